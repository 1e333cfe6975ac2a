// UNSUBSCRIBE and UNSUBACK bodies (UNSUBACK is built by the shared reply builder with SUBACK).
//
// UNSUBSCRIBE: packet identifier, property block, one topic filter (no options byte).
// UNSUBACK as read: packet identifier, property block, one reason code; later codes are ignored.
#include "codec/PacketFields.h"

namespace {
using mqttprotocol::ByteReader;
using mqttprotocol::ByteWriter;
}  // namespace

bool CMQTTProtocol_Packet::MQTTProtocol_Packet_REQUNSubscribe(char* ptszMsgBuffer, int* pInt_MsgLen,
                                                              unsigned short wMsgID, const char* lpszTopicFilter,
                                                              MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                              int nPropertyCount)
{
    if (!mqttprotocol::StartBuilding(ptszMsgBuffer, pInt_MsgLen)) {
        return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PACKET_ARGUMENT);
    }
    ByteWriter writer(ptszMsgBuffer);
    writer.PutU16(wMsgID);
    mqttprotocol::PutPropertyBlock(*this, writer, pppSt_Property, nPropertyCount);
    mqttprotocol::PutPrefixedString(writer, lpszTopicFilter);
    *pInt_MsgLen = writer.Position();
    return true;
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_UNSubcribe(const char* lpszMsgBuffer, int /*nMsgLen*/,
                                                        unsigned short* pwMsgID, char* ptszTopicFilter,
                                                        MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                        int* pInt_PropertyCount)
{
    if (!mqttprotocol::StartDecoding(lpszMsgBuffer)) {
        return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    }
    ByteReader reader(lpszMsgBuffer);
    *pwMsgID = reader.GetU16();
    mqttprotocol::GetPropertyBlock(*this, reader, pppSt_Property, pInt_PropertyCount);
    mqttprotocol::GetPrefixedBytes(reader, ptszTopicFilter, mqttprotocol::kMaxPrefixedLength);
    return true;
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_UNSuback(const char* lpszMsgBuffer, int /*nMsgLen*/,
                                                      unsigned char* pbyReasonCode, unsigned short* pwMsgID,
                                                      MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                      int* pInt_PropertyCount)
{
    if (!mqttprotocol::StartDecoding(lpszMsgBuffer)) {
        return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    }
    ByteReader reader(lpszMsgBuffer);
    *pwMsgID = reader.GetU16();
    mqttprotocol::GetPropertyBlock(*this, reader, pppSt_Property, pInt_PropertyCount);
    *pbyReasonCode = reader.GetU8();
    return true;
}
