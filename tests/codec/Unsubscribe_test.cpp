#include "TestSupport.h"

using namespace mqtttest;

namespace {

struct UnsubscribeVector
{
    uint16_t packetID;
    const char* topicFilter;
    PropertyList properties;
    Bytes body;
    PropertySummary decodedProperties;
};

const UnsubscribeVector kUnsubscribes[] = {
    {2, "t/#", {}, {0x00, 0x02, 0x00, 0x00, 0x03, 't', '/', '#'}, {}},
    {0, "t/#", {}, {0x00, 0x00, 0x00, 0x00, 0x03, 't', '/', '#'}, {}},
    {65535, "", PropertyList().Raw(0x26, {0x00, 0x01, 'k', 0x00, 0x01, 'v'}),
     {0xFF, 0xFF, 0x07, 0x26, 0x00, 0x01, 'k', 0x00, 0x01, 'v', 0x00, 0x00}, {{0x26, 6}}},
};

TEST(Unsubscribe, BuildsAndDecodesGoldenBodies)
{
    for (const auto& vector : kUnsubscribes) {
        PropertyList properties = vector.properties;
        EXPECT_EQ(Built([&](char* out, int* length) {
                      return MQTTProtocol_Packet_REQUNSubscribe(out, length, vector.packetID, vector.topicFilter,
                                                                properties.Get(), properties.Count());
                  }),
                  vector.body);

        // A second topic filter behind the first is ignored.
        const ReceivedBody body(Concat(vector.body, {0x00, 0x01, 'x'}));
        unsigned short packetID = 0xBEEF;
        char topicFilter[16] = {};
        DecodedProperties decoded;
        ASSERT_TRUE(MQTTProtocol_Parse_UNSubcribe(body.Data(), static_cast<int>(vector.body.size()) + 3, &packetID,
                                                  topicFilter, &decoded.list, &decoded.count));
        EXPECT_EQ(packetID, vector.packetID);
        EXPECT_STREQ(topicFilter, vector.topicFilter);
        EXPECT_EQ(decoded.Summary(), vector.decodedProperties);
    }
}

TEST(Unsuback, DecodesGoldenBodies)
{
    ExpectReplyDecodes(MQTTProtocol_Parse_UNSuback,
                       {
                           {"one reason code", {0x00, 0x02, 0x00, 0x11}, 4, 2, 0x11, {}},
                           {"later reason codes are ignored", {0x00, 0x02, 0x00, 0x80, 0x92}, 5, 2, 0x80, {}},
                           {"properties", {0x00, 0x02, 0x03, 0x21, 0x00, 0x0A, 0x11}, 7, 2, 0x11, {{0x21, 10}}},
                       });
}

// The reply builder leaves a zero identifier out; the decoder still reads one, then reads past the body.
TEST(Unsuback, ReplyBuiltWithIdentifierZeroDoesNotReadBackAsZero)
{
    const Bytes reply =
        Built([](char* out, int* length) { return MQTTProtocol_Packet_REPComm(out, length, 0, 0x11, nullptr, 0); });
    ASSERT_EQ(reply, (Bytes{0x00, 0x11}));
    ExpectReplyDecodes(MQTTProtocol_Parse_UNSuback, {{"identifier 0", reply, 2, 0x0011, 0x00, {}}});
}

}  // namespace
