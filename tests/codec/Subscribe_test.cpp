// SUBSCRIBE: one topic filter and its options byte, read back with a second filter behind it, which
// the decoder ignores; SUBACK read from the decoder's own positions.
#include "codec/CodecSupport.h"

using namespace mqtttest;

namespace {

TEST(Subscribe, BuildsAndDecodesGoldenBodies)
{
    const struct
    {
        uint16_t packetID;
        const char* topicFilter;
        uint8_t options;  // passed through whole, reserved bits included
        PropertyList properties;
        Bytes body;
    } rows[] = {
        {1, "t/#", 0x01, {}, {0x00, 0x01, 0x00, 0x00, 0x03, 't', '/', '#', 0x01}},
        {0, "t/#", 0xFF, {}, {0x00, 0x00, 0x00, 0x00, 0x03, 't', '/', '#', 0xFF}},
        {65535, "", 0x00, PropertyList().Integer(0x0B, 1, 5), {0xFF, 0xFF, 0x02, 0x0B, 0x05, 0x00, 0x00, 0x00}},
    };
    for (const auto& row : rows) {
        MQTTPROTOCOL_HDRSUBSCRIBE options;
        std::memcpy(&options, &row.options, 1);
        EXPECT_EQ(BuiltFilterRequest(row.packetID, row.topicFilter, &options, row.properties), row.body);
        const Bytes received = Concat({row.body, {0x00, 0x01, 'x', 0x02}});
        const auto decoded = Decoded(kSubscribe, received);
        ASSERT_TRUE(decoded.result);
        EXPECT_EQ(decoded.identifier, row.packetID);
        EXPECT_STREQ(decoded.topic.data(), row.topicFilter);
        EXPECT_EQ(std::memcmp(&decoded.options, &row.options, 1), 0);
        ExpectProperties(decoded, row.properties);
    }
}

// The SUBACK decoder reads the property length from byte 0, the identifier's high byte, and the
// reason code behind the properties it finds there.
TEST(Suback, DecoderReadsThePropertyLengthFromByteZero)
{
    const Bytes built = BuiltReply(MQTTProtocol_Packet_REPComm, 1, 0x80, {}, 0);
    ExpectReply(kSuback, built, static_cast<int>(built.size()), 1, 0x01);
    ExpectReply(kSuback, {0x00, 0x07, 0x00, 0x02}, 4, 7, 0x07);
    // From an identifier of 256 on, its high byte is a property length.
    ExpectReply(kSuback, {0x01, 0x02, 0x21, 0x00, 0x0A}, 5, 0x0102, 0x21, PropertyList().Integer(0x02, 4, 0x21000A00));
}

}  // namespace
