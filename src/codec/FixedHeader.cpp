// The fixed header: first byte (type and flags) and the variable-length remaining length.
#include "codec/ByteCursor.h"
#include "frame/ErrorState.h"

namespace {
// Seven bits of value per length byte; bit 7 says another byte follows.
constexpr int kLengthDigitBits = 7;
constexpr int kLengthContinue = 0x80;
constexpr int kLengthDigitMask = 0x7F;
// The decoder reads at most four length bytes (values up to 268,435,455).
constexpr int kMaxLengthBytes = 4;
// The encoder has no upper bound: a positive int needs at most five bytes.
constexpr int kMaxEncodedLengthBytes = 5;
}  // namespace

bool CMQTTProtocol_Packet::MQTTProtocol_Packet_Header(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned char byType,
                                                      const char* lpszBody, int nBodyLen, unsigned char byFlags)
{
    mqttprotocol::ClearError();
    if (ptszMsgBuffer == nullptr || pInt_MsgLen == nullptr) {
        return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PACKET_ARGUMENT);
    }
    unsigned char lengthBytes[kMaxEncodedLengthBytes];
    unsigned char lengthCount = 0;
    MQTTProtocol_Packet_Length(nBodyLen, lengthBytes, &lengthCount);

    mqttprotocol::ByteWriter writer(ptszMsgBuffer);
    writer.PutU8(static_cast<uint8_t>(((byType & 0x0F) << 4) | (byFlags & 0x0F)));
    writer.PutBytes(lengthBytes, lengthCount);
    writer.PutBytes(lpszBody, nBodyLen);
    *pInt_MsgLen = writer.Position();
    return true;
}

bool CMQTTProtocol_Packet::MQTTProtocol_Packet_Length(int nLen, unsigned char* ptszLen, unsigned char* pbyLen)
{
    unsigned char count = 0;
    do {
        int digit = nLen % (1 << kLengthDigitBits);
        nLen /= (1 << kLengthDigitBits);
        if (nLen > 0) {
            digit |= kLengthContinue;
        }
        ptszLen[count++] = static_cast<unsigned char>(digit);
    } while (nLen > 0);
    *pbyLen = count;
    return true;
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_Length(const char* lpszMsgBuffer, int nMsgLen, int* pInt_Length,
                                                    int* pInt_HdrLen)
{
    mqttprotocol::ClearError();
    int value = 0;
    int index = 0;
    for (;;) {
        if (index >= nMsgLen || index >= kMaxLengthBytes) {
            return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PARSE_LENGTH);
        }
        const int digit = static_cast<unsigned char>(lpszMsgBuffer[index]);
        value |= (digit & kLengthDigitMask) << (kLengthDigitBits * index);
        index++;
        if ((digit & kLengthContinue) == 0) {
            break;
        }
    }
    *pInt_Length = value;
    *pInt_HdrLen += index;
    return true;
}
