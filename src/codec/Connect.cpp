// CONNECT and CONNACK bodies.
//
// CONNECT: the ten-byte variable header record, the property block, the client identifier, then the
// user name (connect flag bit 7) and the password (bit 6). No will fields are written or read,
// whatever the will flag says.
// CONNACK: acknowledge flags, reason code, property block.
#include "codec/PacketFields.h"

namespace {

constexpr uint8_t kUserNameFlag = 0x80;
constexpr uint8_t kPasswordFlag = 0x40;
constexpr uint8_t kProtocolNameLength = 4;
constexpr char kProtocolName[] = {'M', 'Q', 'T', 'T'};
constexpr uint8_t kProtocolLevel = 5;
constexpr int kUserInfoFieldCapacity = static_cast<int>(sizeof(MQTTPROTOCOL_USERINFO::tszClientID));

// The builder fills in what identifies the protocol; the caller's other fields go out as set.
void StampProtocol(MQTTPROTOCOL_HDRCONNNECT& header)
{
    header.byNameLenLSB = kProtocolNameLength;
    std::memcpy(header.tszProtocol, kProtocolName, sizeof(kProtocolName));
    header.byVersion = kProtocolLevel;
}

}  // namespace

bool CMQTTProtocol_Packet::MQTTProtocol_Packet_REQConnect(char* ptszMsgBuffer, int* pInt_MsgLen,
                                                          MQTTPROTOCOL_HDRCONNNECT* pSt_HDRConnect,
                                                          const char* lpszClientID,
                                                          MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                          int nPropertyCount, const char* lpszClientUser,
                                                          const char* lpszClientPass)
{
    return mqttprotocol::BuildBody(ptszMsgBuffer, pInt_MsgLen, [&](auto& writer) {
        StampProtocol(*pSt_HDRConnect);
        // Copied as it lies in memory: the caller stores the keep-alive in network order already.
        writer.PutBytes(pSt_HDRConnect, sizeof(*pSt_HDRConnect));
        mqttprotocol::PutPropertyBlock(*this, writer, pppSt_Property, nPropertyCount);
        // The identifier's prefix is cut to 16 bits but the identifier itself goes out whole.
        const size_t clientIDLength = std::strlen(lpszClientID);
        writer.PutU16(static_cast<uint16_t>(clientIDLength));
        writer.PutBytes(lpszClientID, static_cast<int>(clientIDLength));
        if (pSt_HDRConnect->byConnFlags & kUserNameFlag) {
            mqttprotocol::PutPrefixedString(writer, lpszClientUser);
        }
        if (pSt_HDRConnect->byConnFlags & kPasswordFlag) {
            mqttprotocol::PutPrefixedString(writer, lpszClientPass);
        }
    });
}

bool CMQTTProtocol_Packet::MQTTProtocol_Packet_REPConnect(char* ptszMsgBuffer, int* pInt_MsgLen,
                                                          unsigned char byConnAckFlags, unsigned char byReasonCode,
                                                          MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                          int nPropertyCount)
{
    return mqttprotocol::BuildBody(ptszMsgBuffer, pInt_MsgLen, [&](auto& writer) {
        writer.PutU8(byConnAckFlags);
        writer.PutU8(byReasonCode);
        mqttprotocol::PutPropertyBlock(*this, writer, pppSt_Property, nPropertyCount);
    });
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_Connect(const char* lpszMsgBuffer, int nMsgLen,
                                                     MQTTPROTOCOL_HDRCONNNECT* pSt_HDRConnect,
                                                     MQTTPROTOCOL_USERINFO* pSt_UserInfo,
                                                     MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                     int* pInt_PropertyCount)
{
    return mqttprotocol::DecodeBody(lpszMsgBuffer, nMsgLen, [&](auto& reader) {
        reader.GetBytes(pSt_HDRConnect, sizeof(*pSt_HDRConnect));
        pSt_HDRConnect->wKeepAlive = mqttprotocol::NetworkOrder16(pSt_HDRConnect->wKeepAlive);
        if (pSt_HDRConnect->byVersion != kProtocolLevel) {
            return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PARSE_VERSION);
        }
        mqttprotocol::GetPropertyBlock(reader, pppSt_Property, pInt_PropertyCount);
        // Each field is bounded to its 260 bytes, while the reader moves past the whole field so that
        // the next one is read where the wire puts it.
        mqttprotocol::GetPrefixedBytes(reader, pSt_UserInfo->tszClientID, kUserInfoFieldCapacity);
        if (pSt_HDRConnect->byConnFlags & kUserNameFlag) {
            mqttprotocol::GetPrefixedBytes(reader, pSt_UserInfo->tszClientUser, kUserInfoFieldCapacity);
        }
        if (pSt_HDRConnect->byConnFlags & kPasswordFlag) {
            mqttprotocol::GetPrefixedBytes(reader, pSt_UserInfo->tszClientPass, kUserInfoFieldCapacity);
        }
        return true;
    });
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_Connack(const char* lpszMsgBuffer, int nMsgLen,
                                                     unsigned char* pbyReasonCode,
                                                     MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                     int* pInt_PropertyCount)
{
    return mqttprotocol::DecodeBody(lpszMsgBuffer, nMsgLen, [&](auto& reader) {
        reader.Skip(1);  // the acknowledge flags: the session-present bit is not handed out
        *pbyReasonCode = reader.GetU8();
        mqttprotocol::GetPropertyBlock(reader, pppSt_Property, pInt_PropertyCount);
    });
}
