// The property block: one length byte, then the properties back to back (identifier, value).
#include "codec/PacketFields.h"
#include "companion/Companion.h"

namespace {

using mqttprotocol::ByteReader;
using mqttprotocol::ByteWriter;

constexpr int kValueCapacity = static_cast<int>(sizeof(MQTTPROTOCOL_HDRPROPERTY::tszValue));
// Marks an identifier whose value takes every byte left in its block.
constexpr int kRestOfBlock = -1;

// The width the decoder gives each identifier: the fixed-size integers have theirs, everything else
// (strings, binary data, string pairs, variable byte integers and unknown identifiers) takes the rest
// of the block.
int FixedWidthOf(uint8_t propertyID)
{
    switch (propertyID) {
    case 0x01:  // Payload Format Indicator
    case 0x17:  // Request Problem Information
    case 0x19:  // Request Response Information
    case 0x24:  // Maximum QoS
    case 0x25:  // Retain Available
    case 0x28:  // Wildcard Subscription Available
    case 0x29:  // Subscription Identifier Available
    case 0x2A:  // Shared Subscription Available
        return 1;
    case 0x13:  // Server Keep Alive
    case 0x21:  // Receive Maximum
    case 0x22:  // Topic Alias Maximum
    case 0x23:  // Topic Alias
        return 2;
    case 0x02:  // Message Expiry Interval
    case 0x11:  // Session Expiry Interval
    case 0x18:  // Will Delay Interval
    case 0x27:  // Maximum Packet Size
        return 4;
    default:
        return kRestOfBlock;
    }
}

int WidthAt(const ByteReader& block, int blockLen, int valuePosition)
{
    const int width = FixedWidthOf(block.At(valuePosition - 1));
    return width == kRestOfBlock ? blockLen - valuePosition : width;
}

// Walks the block the way the decoder does and counts its properties. The test comes after the first
// property, so a block of length zero or less still yields one.
int CountProperties(const ByteReader& block, int blockLen)
{
    int count = 0;
    int position = 0;
    do {
        position++;
        position += WidthAt(block, blockLen, position);
        count++;
    } while (position < blockLen);
    return count;
}

// Reads one property into a zeroed record; returns the position behind it.
int ReadProperty(const ByteReader& block, int blockLen, int position, MQTTPROTOCOL_HDRPROPERTY& property)
{
    ByteReader reader = block;
    reader.Skip(position);
    property.byPropertyID = reader.GetU8();
    const int valuePosition = reader.Position();
    property.nPropertyLen = WidthAt(block, blockLen, valuePosition);
    switch (property.nPropertyLen) {
    case 4:
        property.dwValue = reader.GetU32();
        break;
    case 2:
        property.wValue = reader.GetU16();
        break;
    default:
        reader.GetBytesBounded(property.tszValue, property.nPropertyLen, kValueCapacity);
        break;
    }
    return valuePosition + property.nPropertyLen;
}

// Writes one property at the block's eight-bit position: each field is written whole, then the
// position wraps modulo 256. Two- and four-byte values are converted in the caller's record.
void WriteProperty(char* block, uint8_t& position, MQTTPROTOCOL_HDRPROPERTY& property)
{
    ByteWriter writer(block, position);
    writer.PutU8(property.byPropertyID);
    writer.Seek(static_cast<uint8_t>(writer.Position()));
    switch (property.nPropertyLen) {
    case 4:
        property.dwValue = mqttprotocol::NetworkOrder32(property.dwValue);
        writer.PutRaw32(property.dwValue);
        break;
    case 2:
        property.wValue = mqttprotocol::NetworkOrder16(property.wValue);
        writer.PutRaw16(property.wValue);
        break;
    case 1:
        writer.PutU8(property.byValue);
        break;
    default: {
        // Never read past the record: a width beyond tszValue is padded with zeros.
        const int copied = property.nPropertyLen < kValueCapacity ? property.nPropertyLen : kValueCapacity;
        writer.PutBytes(property.tszValue, copied);
        writer.PutZeros(property.nPropertyLen - copied);
        break;
    }
    }
    position = static_cast<uint8_t>(writer.Position());
}

}  // namespace

bool CMQTTProtocol_Packet::MQTTProtocol_Packet_Property(char* ptszMsgBuffer, int* pInt_MsgLen,
                                                        MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount)
{
    mqttprotocol::ClearError();
    if (ptszMsgBuffer == nullptr || pInt_MsgLen == nullptr) {
        return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PACKET_ARGUMENT);
    }
    if (nPropertyCount <= 0) {
        ptszMsgBuffer[0] = 0;
        *pInt_MsgLen += 1;
        return true;
    }
    uint8_t position = 1;  // just behind the length byte
    for (int i = 0; i < nPropertyCount; i++) {
        WriteProperty(ptszMsgBuffer, position, *(*pppSt_Property)[i]);
    }
    *pInt_MsgLen += position;
    ptszMsgBuffer[0] = static_cast<char>(static_cast<uint8_t>(position - 1));
    return true;
}

void mqttprotocol::DecodeProperties(const ByteReader& blockReader, int blockLen,
                                    MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount)
{
    // Counting first lets the list be allocated once, already zeroed, and filled in place.
    const int count = CountProperties(blockReader, blockLen);
    if (!Keel_OperatorMemory_Malloc(reinterpret_cast<void***>(pppSt_Property), count,
                                    static_cast<int>(sizeof(MQTTPROTOCOL_HDRPROPERTY)))) {
        *pInt_PropertyCount = 0;
        return;
    }
    *pInt_PropertyCount = count;
    int position = 0;
    for (int i = 0; i < count; i++) {
        position = ReadProperty(blockReader, blockLen, position, *(*pppSt_Property)[i]);
    }
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_Property(const char* lpszMsgBuffer, int nMsgLen,
                                                      MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                      int* pInt_PropertyCount)
{
    mqttprotocol::ClearError();
    // Called on its own, the block is all there is: in compact mode it ends after nMsgLen bytes.
    const ByteReader block(lpszMsgBuffer, mqttprotocol::ReadableEnd(nMsgLen));
    mqttprotocol::DecodeProperties(block, nMsgLen, pppSt_Property, pInt_PropertyCount);
    return true;
}
