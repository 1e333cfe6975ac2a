// PUBLISH body and the body its four acknowledgements (PUBACK, PUBREC, PUBREL, PUBCOMP) share.
//
// PUBLISH: topic name, packet identifier (present or absent by the rules below), property block,
// payload to the end of the body. The QoS, DUP and RETAIN bits live in the fixed header, which the
// caller writes.
// Acknowledgement: packet identifier, reason code, property block.
#include "codec/PacketFields.h"

namespace {

// The flags nibbles whose PUBLISH carries an identifier: exactly QoS 1 or QoS 2 with neither DUP nor
// RETAIN. The whole nibble is compared, so a PUBLISH with DUP or RETAIN is read without one.
constexpr unsigned kQoS1Flags = 2;
constexpr unsigned kQoS2Flags = 4;
// An acknowledgement longer than identifier and reason code carries a property block.
constexpr int kAckBodyWithoutProperties = 3;

}  // namespace

bool CMQTTProtocol_Packet::MQTTProtocol_Packet_REQPublish(char* ptszMsgBuffer, int* pInt_MsgLen,
                                                          const char* lpszTopicName, const char* lpszPayload,
                                                          int nPayloadLen, unsigned short wMsgID,
                                                          MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                          int nPropertyCount)
{
    return mqttprotocol::BuildBody(ptszMsgBuffer, pInt_MsgLen, [&](auto& writer) {
        mqttprotocol::PutPrefixedString(writer, lpszTopicName);
        // The identifier's value alone decides: the caller passes 0 for QoS 0.
        mqttprotocol::PutIdentifierIfSet(writer, wMsgID);
        mqttprotocol::PutPropertyBlock(*this, writer, pppSt_Property, nPropertyCount);
        writer.PutBytes(lpszPayload, nPayloadLen);
    });
}

bool CMQTTProtocol_Packet::MQTTProtocol_Packet_REPPublish(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                                          unsigned char byReasonCode,
                                                          MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                          int nPropertyCount)
{
    return mqttprotocol::BuildBody(ptszMsgBuffer, pInt_MsgLen, [&](auto& writer) {
        mqttprotocol::PutIdentifierIfSet(writer, wMsgID);
        writer.PutU8(byReasonCode);
        // A negative count asks for the short form: identifier and reason code only.
        if (nPropertyCount >= 0) {
            mqttprotocol::PutPropertyBlock(*this, writer, pppSt_Property, nPropertyCount);
        }
    });
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_Publish(const char* lpszMsgBuffer, int nMsgLen,
                                                     MQTTPROTOCOL_FIXEDHEADER* pSt_FixedHeader, char* ptszTopicName,
                                                     unsigned short* pwMsgID, char* ptszPayload, int* pInt_PayloadLen,
                                                     MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                     int* pInt_PropertyCount)
{
    return mqttprotocol::DecodeBody(lpszMsgBuffer, nMsgLen, [&](auto& reader) {
        mqttprotocol::GetPrefixedBytes(reader, ptszTopicName, mqttprotocol::kMaxPrefixedLength);
        if (pSt_FixedHeader->byMsgFlag == kQoS1Flags || pSt_FixedHeader->byMsgFlag == kQoS2Flags) {
            *pwMsgID = reader.GetU16();
        }
        mqttprotocol::GetPropertyBlock(reader, pppSt_Property, pInt_PropertyCount);
        if (nMsgLen > reader.Position()) {
            *pInt_PayloadLen = nMsgLen - reader.Position();
            reader.GetBytes(ptszPayload, *pInt_PayloadLen);
        }
    });
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_Puback(const char* lpszMsgBuffer, int nMsgLen,
                                                    unsigned char* pbyReasonCode, unsigned short* pwMsgID,
                                                    MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount)
{
    return mqttprotocol::DecodeBody(lpszMsgBuffer, nMsgLen, [&](auto& reader) {
        *pwMsgID = reader.GetU16();
        // Read whatever the length: a two-byte body hands out the byte behind it.
        *pbyReasonCode = reader.GetU8();
        if (nMsgLen > kAckBodyWithoutProperties) {
            mqttprotocol::GetPropertyBlock(reader, pppSt_Property, pInt_PropertyCount);
        }
    });
}
