// The reply bodies: an identifier, a reason code and properties. PUBACK and its kin share a builder
// and a decoder; SUBACK and UNSUBACK share the builder REPComm and have a decoder each.
#pragma once

#include "TestSupport.h"

namespace mqtttest {

using ReplyBuilder = bool (*)(char*, int*, unsigned short, unsigned char, MQTTPROTOCOL_HDRPROPERTY***, int);
using ReplyDecoder = bool (*)(const char*, int, unsigned char*, unsigned short*, MQTTPROTOCOL_HDRPROPERTY***, int*);

// Builds a reply and returns its body.
inline Bytes BuiltReply(ReplyBuilder build, uint16_t packetID, uint8_t reasonCode, PropertyList properties, int count)
{
    return Built(
        [&](char* out, int* length) { return build(out, length, packetID, reasonCode, properties.Get(), count); });
}

// Decodes bodyLen bytes of a received body and checks what comes out.
inline void ExpectReply(ReplyDecoder decode, const Bytes& bytes, int bodyLen, uint16_t packetID, uint8_t reasonCode,
                        const PropertyList& properties = {})
{
    SCOPED_TRACE(::testing::PrintToString(bytes));
    const ReceivedBody body(bytes);
    unsigned char decodedReason = 0xEE;
    unsigned short decodedID = 0xBEEF;
    DecodedProperties decoded;
    ASSERT_TRUE(decode(body.Data(), bodyLen, &decodedReason, &decodedID, &decoded.list, &decoded.count));
    EXPECT_EQ(decodedID, packetID);
    EXPECT_EQ(decodedReason, reasonCode);
    ExpectProperties(decoded, properties);
}

// Builds a SUBSCRIBE or UNSUBSCRIBE (options null) and returns its body.
inline Bytes BuiltFilterRequest(uint16_t packetID, const char* filter, MQTTPROTOCOL_HDRSUBSCRIBE* options,
                                PropertyList properties)
{
    return Built([&](char* out, int* length) {
        return options != nullptr ? MQTTProtocol_Packet_REQSubscribe(out, length, packetID, filter, options,
                                                                     properties.Get(), properties.Count())
                                  : MQTTProtocol_Packet_REQUNSubscribe(out, length, packetID, filter, properties.Get(),
                                                                       properties.Count());
    });
}

}  // namespace mqtttest
