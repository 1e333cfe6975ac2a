// PUBLISH, and the four acknowledgements that share one builder and one decoder.
#include "codec/CodecSupport.h"

using namespace mqtttest;

namespace {

const std::string kLongTopic(65537, 't');

TEST(Publish, BuildsAndDecodesGoldenBodies)
{
    const struct
    {
        const char* name;
        const char* topic;
        int payloadLen;  // of "xy"
        uint16_t packetID;
        PropertyList properties;
        Bytes body;
    } rows[] = {
        {"QoS 1", "a/b", 2, 10, {}, {0x00, 0x03, 'a', '/', 'b', 0x00, 0x0A, 0x00, 'x', 'y'}},
        {"identifier 0 is left out", "a/b", 2, 0, {}, {0x00, 0x03, 'a', '/', 'b', 0x00, 'x', 'y'}},
        {"no payload", "a/b", 0, 10, {}, {0x00, 0x03, 'a', '/', 'b', 0x00, 0x0A, 0x00}},
        {"negative payload length", "a/b", -1, 10, {}, {0x00, 0x03, 'a', '/', 'b', 0x00, 0x0A, 0x00}},
        {"empty topic, properties",
         "",
         1,
         65535,
         PropertyList().Integer(0x01, 1, 1).Integer(0x23, 2, 5).String(0x08, "r"),
         {0x00, 0x00, 0xFF, 0xFF, 0x09, 0x01, 0x01, 0x23, 0x00, 0x05, 0x08, 0x00, 0x01, 'r', 'x'}},
        {"topic length cut to 16 bits", kLongTopic.c_str(), 0, 0, {}, {0x00, 0x01, 't', 0x00}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        PropertyList properties = row.properties;
        EXPECT_EQ(Built([&](char* out, int* length) {
                      return MQTTProtocol_Packet_REQPublish(out, length, row.topic, "xy", row.payloadLen, row.packetID,
                                                            properties.Get(), properties.Count());
                  }),
                  row.body);

        // Read back at QoS 1, or QoS 0 without an identifier; an absent payload leaves both its outs.
        const auto decoded = Decoded(kPublish, row.body, static_cast<int>(row.body.size()), row.packetID ? 0x32 : 0x30);
        ASSERT_TRUE(decoded.result);
        const std::string topic = row.topic;
        EXPECT_EQ(std::string(decoded.topic.data()), topic.substr(0, topic.size() % 65536));
        EXPECT_EQ(decoded.identifier, row.packetID != 0 ? row.packetID : kUnsetIdentifier);
        EXPECT_EQ(decoded.payloadLen, row.payloadLen > 0 ? row.payloadLen : kUnsetPayloadLen);
        std::vector<char> payload{'x', 'y'};
        payload.resize(static_cast<size_t>(std::max(row.payloadLen, 0)));
        payload.resize(decoded.payload.size(), static_cast<char>(kUnsetByte));
        EXPECT_EQ(decoded.payload, payload);
        ExpectProperties(decoded, row.properties);
    }
}

// Only a flags nibble of exactly 2 or 4 has an identifier: with DUP or RETAIN beside the QoS, the
// identifier's bytes 00 0A are read as an empty property block and the payload's start. The type
// nibble is not looked at.
TEST(Publish, IdentifierIsReadOnlyForFlagsExactlyTwoOrFour)
{
    const Bytes body{0x00, 0x03, 'a', '/', 'b', 0x00, 0x0A, 0x00, 'x', 'y'};
    for (uint8_t firstByte : {0x30, 0x31, 0x32, 0x33, 0x34, 0x35, 0x3A, 0x3C, 0x02}) {
        SCOPED_TRACE(static_cast<int>(firstByte));
        const bool hasIdentifier = (firstByte & 0x0F) == 2 || (firstByte & 0x0F) == 4;
        const auto decoded = Decoded(kPublish, body, static_cast<int>(body.size()), firstByte);
        EXPECT_EQ(decoded.identifier, hasIdentifier ? 10 : kUnsetIdentifier);
        const Bytes payload = hasIdentifier ? Bytes{'x', 'y'} : Bytes{0x0A, 0x00, 'x', 'y'};
        ASSERT_EQ(decoded.payloadLen, static_cast<int>(payload.size()));
        EXPECT_EQ(ToBytes(decoded.payload.data(), decoded.payloadLen), payload);
    }
}

TEST(Puback, BuildsGoldenBodiesAndReadsThemBack)
{
    EXPECT_EQ(BuiltReply(MQTTProtocol_Packet_REPPublish, 0x1234, 0x10, PropertyList().String(0x1F, "fine"), 1),
              (Bytes{0x12, 0x34, 0x10, 0x07, 0x1F, 0x00, 0x04, 'f', 'i', 'n', 'e'}));
    EXPECT_EQ(BuiltReply(MQTTProtocol_Packet_REPPublish, 0x1234, 0x10, {}, 0), (Bytes{0x12, 0x34, 0x10, 0x00}));
    EXPECT_EQ(BuiltReply(MQTTProtocol_Packet_REPPublish, 0x1234, 0x10, {}, -1), (Bytes{0x12, 0x34, 0x10}));
    // A zero identifier is left out; the decoder, which always expects one, reads the reason code as its
    // high byte.
    EXPECT_EQ(BuiltReply(MQTTProtocol_Packet_REPPublish, 0, 0x10, {}, 0), (Bytes{0x10, 0x00}));
    ExpectReply(kPuback, {0x10, 0x00}, 2, 0x1000, 0x00);
}

// The reason code is byte 2 whatever the length: after a two-byte body, the byte behind it. Properties
// are read only when the length is above 3.
TEST(Puback, DecoderReadsTheReasonCodeAtByteTwo)
{
    ExpectReply(kPuback, {0x00, 0x05, 0x97}, 2, 5, 0x97);
    ExpectReply(kPuback, {0x00, 0x05, 0x10, 0x03, 0x21, 0x00, 0x0A}, 3, 5, 0x10);
}

}  // namespace
