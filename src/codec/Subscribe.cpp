// SUBSCRIBE and SUBACK bodies (SUBACK is built by the reply builder it shares with UNSUBACK, REPComm).
//
// SUBSCRIBE: packet identifier, property block, one topic filter, its subscription-options byte.
// Only one topic filter and one reason code are handled per packet; the rest of a body is ignored.
#include "codec/PacketFields.h"

bool CMQTTProtocol_Packet::MQTTProtocol_Packet_REQSubscribe(char* ptszMsgBuffer, int* pInt_MsgLen,
                                                            unsigned short wMsgID, const char* lpszTopicFilter,
                                                            MQTTPROTOCOL_HDRSUBSCRIBE* pSt_SubOption,
                                                            MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                            int nPropertyCount)
{
    return mqttprotocol::BuildBody(ptszMsgBuffer, pInt_MsgLen, [&](auto& writer) {
        mqttprotocol::PutFilterRequest(*this, writer, wMsgID, lpszTopicFilter, pppSt_Property, nPropertyCount);
        writer.PutBytes(pSt_SubOption, sizeof(*pSt_SubOption));
    });
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_Subscribe(const char* lpszMsgBuffer, int nMsgLen, unsigned short* pwMsgID,
                                                       char* ptszTopicFilter, MQTTPROTOCOL_HDRSUBSCRIBE* pSt_SubOption,
                                                       MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                       int* pInt_PropertyCount)
{
    return mqttprotocol::DecodeBody(lpszMsgBuffer, nMsgLen, [&](auto& reader) {
        mqttprotocol::GetFilterRequest(reader, pwMsgID, ptszTopicFilter, pppSt_Property, pInt_PropertyCount);
        reader.GetBytes(pSt_SubOption, sizeof(*pSt_SubOption));
    });
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_Suback(const char* lpszMsgBuffer, int nMsgLen,
                                                    unsigned char* pbyReasonCode, unsigned short* pwMsgID,
                                                    MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount)
{
    return mqttprotocol::DecodeBody(lpszMsgBuffer, nMsgLen, [&](auto& reader) {
        *pwMsgID = reader.GetU16();
        // The property length is taken from byte 0, the identifier's high byte, not from byte 2: for
        // an identifier below 256 no property is decoded and the reason code is the identifier's low
        // byte. UNSUBACK is read by the wire layout; SUBACK keeps these positions.
        mqttprotocol::ByteReader fromStart(lpszMsgBuffer, mqttprotocol::ReadableEnd(nMsgLen));
        mqttprotocol::GetPropertyBlock(fromStart, pppSt_Property, pInt_PropertyCount);
        *pbyReasonCode = fromStart.GetU8();
    });
}
