// What the codec tests share: any decoder run on a received body with its outputs preset to markers,
// decoded property lists checked, and the builders of several packet families.
#pragma once

#include "TestSupport.h"
#include "codec/DecoderRun.h"

namespace mqtttest {

using namespace mqttdecode;

// Decodes length bytes of a body as the receive side hands it out, outputs preset to their markers.
inline Run Decoded(Decoder decoder, const Bytes& body, int length, uint8_t publishFirstByte = 0)
{
    const ReceivedBody received(body);
    return Decode(decoder, publishFirstByte, received.Data(), length, true);
}
inline Run Decoded(Decoder decoder, const Bytes& body) { return Decoded(decoder, body, static_cast<int>(body.size())); }

// The decoded records equal the expected ones byte for byte. An empty expectation means the decoder
// left both property outs as they were.
inline void ExpectProperties(const Run& decoded, const PropertyList& expected)
{
    EXPECT_EQ(decoded.listReturned, expected.Count() != 0);
    EXPECT_EQ(decoded.propertyCount, expected.Count() != 0 ? expected.Count() : DecodedProperties::kUntouched);
    EXPECT_TRUE(SameRecords(decoded.properties, expected.records));
}

// The reply bodies: an identifier, a reason code and properties. PUBACK and its kin share a builder
// and a decoder; SUBACK and UNSUBACK share the builder REPComm and have a decoder each.
using ReplyBuilder = bool (*)(char*, int*, unsigned short, unsigned char, MQTTPROTOCOL_HDRPROPERTY***, int);

// Builds a reply and returns its body.
inline Bytes BuiltReply(ReplyBuilder build, uint16_t packetID, uint8_t reasonCode, PropertyList properties, int count)
{
    return Built(
        [&](char* out, int* length) { return build(out, length, packetID, reasonCode, properties.Get(), count); });
}

// Decodes bodyLen bytes of a received body and checks what comes out.
inline void ExpectReply(Decoder decoder, const Bytes& bytes, int bodyLen, uint16_t packetID, uint8_t reasonCode,
                        const PropertyList& properties = {})
{
    SCOPED_TRACE(::testing::PrintToString(bytes));
    const Run decoded = Decoded(decoder, bytes, bodyLen);
    ASSERT_TRUE(decoded.result);
    EXPECT_EQ(decoded.identifier, packetID);
    EXPECT_EQ(decoded.reasonCode, reasonCode);
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
