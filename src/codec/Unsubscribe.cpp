// UNSUBSCRIBE and UNSUBACK bodies (UNSUBACK is built by the reply builder it shares with SUBACK, REPComm).
//
// UNSUBSCRIBE: packet identifier, property block, one topic filter (the opening SUBSCRIBE shares, no
// options byte behind it).
// UNSUBACK as read: packet identifier, property block, one reason code; later codes are ignored.
#include "codec/PacketFields.h"

bool CMQTTProtocol_Packet::MQTTProtocol_Packet_REQUNSubscribe(char* ptszMsgBuffer, int* pInt_MsgLen,
                                                              unsigned short wMsgID, const char* lpszTopicFilter,
                                                              MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                              int nPropertyCount)
{
    return mqttprotocol::BuildBody(ptszMsgBuffer, pInt_MsgLen, [&](auto& writer) {
        mqttprotocol::PutFilterRequest(*this, writer, wMsgID, lpszTopicFilter, pppSt_Property, nPropertyCount);
    });
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_UNSubcribe(const char* lpszMsgBuffer, int nMsgLen, unsigned short* pwMsgID,
                                                        char* ptszTopicFilter,
                                                        MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                        int* pInt_PropertyCount)
{
    return mqttprotocol::DecodeBody(lpszMsgBuffer, nMsgLen, [&](auto& reader) {
        mqttprotocol::GetFilterRequest(reader, pwMsgID, ptszTopicFilter, pppSt_Property, pInt_PropertyCount);
    });
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_UNSuback(const char* lpszMsgBuffer, int nMsgLen,
                                                      unsigned char* pbyReasonCode, unsigned short* pwMsgID,
                                                      MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                      int* pInt_PropertyCount)
{
    return mqttprotocol::DecodeBody(lpszMsgBuffer, nMsgLen, [&](auto& reader) {
        *pwMsgID = reader.GetU16();
        mqttprotocol::GetPropertyBlock(reader, pppSt_Property, pInt_PropertyCount);
        *pbyReasonCode = reader.GetU8();
    });
}
