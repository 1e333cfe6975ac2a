// DISCONNECT body: reason code, then the property block. Both are always written and always read;
// the short forms without them are neither produced nor recognised.
#include "codec/PacketFields.h"

bool CMQTTProtocol_Packet::MQTTProtocol_Packet_DisConnect(char* ptszMsgBuffer, int* pInt_MsgLen,
                                                          unsigned char byReasonCode,
                                                          MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                          int nPropertyCount)
{
    return mqttprotocol::BuildBody(ptszMsgBuffer, pInt_MsgLen, [&](auto& writer) {
        writer.PutU8(byReasonCode);
        mqttprotocol::PutPropertyBlock(*this, writer, pppSt_Property, nPropertyCount);
    });
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_Disconnect(const char* lpszMsgBuffer, int nMsgLen,
                                                        unsigned char* pbyReasonCode,
                                                        MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                        int* pInt_PropertyCount)
{
    return mqttprotocol::DecodeBody(lpszMsgBuffer, nMsgLen, [&](auto& reader) {
        *pbyReasonCode = reader.GetU8();
        mqttprotocol::GetPropertyBlock(reader, pppSt_Property, pInt_PropertyCount);
    });
}
