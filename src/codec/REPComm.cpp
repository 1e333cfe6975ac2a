// The reply body that SUBACK and UNSUBACK share: packet identifier (left out when zero), property
// block, one reason code. Their decoders are told with their requests, in Subscribe.cpp and
// Unsubscribe.cpp.
#include "codec/PacketFields.h"

bool CMQTTProtocol_Packet::MQTTProtocol_Packet_REPComm(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                                       unsigned char byReasonCode,
                                                       MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount)
{
    return mqttprotocol::BuildBody(ptszMsgBuffer, pInt_MsgLen, [&](auto& writer) {
        mqttprotocol::PutIdentifierIfSet(writer, wMsgID);
        // Always a block here, even for a negative count: these replies have no short form.
        mqttprotocol::PutPropertyBlock(*this, writer, pppSt_Property, nPropertyCount);
        writer.PutU8(byReasonCode);
    });
}
