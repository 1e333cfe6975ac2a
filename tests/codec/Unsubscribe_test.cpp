// UNSUBSCRIBE: one topic filter, read back with a second filter behind it, which the decoder ignores;
// UNSUBACK read by the wire layout with one reason code.
#include "codec/CodecSupport.h"

using namespace mqtttest;

namespace {

TEST(Unsubscribe, BuildsAndDecodesGoldenBodies)
{
    const struct
    {
        uint16_t packetID;
        const char* topicFilter;
        PropertyList properties;
        Bytes body;
    } rows[] = {
        {2, "t/#", {}, {0x00, 0x02, 0x00, 0x00, 0x03, 't', '/', '#'}},
        {0, "t/#", {}, {0x00, 0x00, 0x00, 0x00, 0x03, 't', '/', '#'}},
        {65535,
         "",
         PropertyList().Raw(0x26, {0x00, 0x01, 'k', 0x00, 0x01, 'v'}),
         {0xFF, 0xFF, 0x07, 0x26, 0x00, 0x01, 'k', 0x00, 0x01, 'v', 0x00, 0x00}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(BuiltFilterRequest(row.packetID, row.topicFilter, nullptr, row.properties), row.body);
        const Bytes received = Concat({row.body, {0x00, 0x01, 'x'}});
        const auto decoded = Decoded(kUnsubscribe, received);
        ASSERT_TRUE(decoded.result);
        EXPECT_EQ(decoded.identifier, row.packetID);
        EXPECT_STREQ(decoded.topic.data(), row.topicFilter);
        ExpectProperties(decoded, row.properties);
    }
}

TEST(Unsuback, DecoderReadsOneReasonCode) { ExpectReply(kUnsuback, {0x00, 0x02, 0x00, 0x80, 0x92}, 5, 2, 0x80); }

}  // namespace
