#include "TestSupport.h"

using namespace mqtttest;

namespace {

MQTTPROTOCOL_HDRSUBSCRIBE OptionsFromByte(uint8_t byte)
{
    MQTTPROTOCOL_HDRSUBSCRIBE options;
    std::memcpy(&options, &byte, 1);
    return options;
}

struct SubscribeVector
{
    uint16_t packetID;
    const char* topicFilter;
    uint8_t options;
    PropertyList properties;
    Bytes body;
    PropertySummary decodedProperties;
};

const SubscribeVector kSubscribes[] = {
    {1, "t/#", 0x01, {}, {0x00, 0x01, 0x00, 0x00, 0x03, 't', '/', '#', 0x01}, {}},
    {0, "t/#", 0x01, {}, {0x00, 0x00, 0x00, 0x00, 0x03, 't', '/', '#', 0x01}, {}},
    {1, "t/#", 0xFF, {}, {0x00, 0x01, 0x00, 0x00, 0x03, 't', '/', '#', 0xFF}, {}},
    {65535, "", 0x00, PropertyList().Integer(0x0B, 1, 5), {0xFF, 0xFF, 0x02, 0x0B, 0x05, 0x00, 0x00, 0x00}, {{0x0B, 5}}},
};

TEST(Subscribe, BuildsAndDecodesGoldenBodies)
{
    for (const auto& vector : kSubscribes) {
        PropertyList properties = vector.properties;
        MQTTPROTOCOL_HDRSUBSCRIBE options = OptionsFromByte(vector.options);
        EXPECT_EQ(Built([&](char* out, int* length) {
                      return MQTTProtocol_Packet_REQSubscribe(out, length, vector.packetID, vector.topicFilter,
                                                              &options, properties.Get(), properties.Count());
                  }),
                  vector.body);

        // A second topic filter behind the first is ignored.
        const ReceivedBody body(Concat(vector.body, {0x00, 0x01, 'x', 0x02}));
        unsigned short packetID = 0xBEEF;
        char topicFilter[16] = {};
        MQTTPROTOCOL_HDRSUBSCRIBE decodedOptions{};
        DecodedProperties decoded;
        ASSERT_TRUE(MQTTProtocol_Parse_Subscribe(body.Data(), static_cast<int>(vector.body.size()) + 4, &packetID,
                                                 topicFilter, &decodedOptions, &decoded.list, &decoded.count));
        EXPECT_EQ(packetID, vector.packetID);
        EXPECT_STREQ(topicFilter, vector.topicFilter);
        EXPECT_EQ(std::memcmp(&decodedOptions, &options, 1), 0);
        EXPECT_EQ(decoded.Summary(), vector.decodedProperties);
    }
}

struct ReplyVector
{
    uint16_t packetID;
    uint8_t reasonCode;
    PropertyList properties;
    int count;
    Bytes expected;
};

const ReplyVector kReplies[] = {
    {1, 0x80, {}, 0, {0x00, 0x01, 0x00, 0x80}},
    {0, 0x80, {}, 0, {0x00, 0x80}},
    {1, 0x80, {}, -1, {0x00, 0x01, 0x00, 0x80}},
    {7, 0x02, PropertyList().Integer(0x21, 2, 10), 1, {0x00, 0x07, 0x03, 0x21, 0x00, 0x0A, 0x02}},
};

TEST(SubscribeReply, BuildsGoldenBodiesAlwaysWithAPropertyBlock)
{
    for (const auto& vector : kReplies) {
        PropertyList properties = vector.properties;
        EXPECT_EQ(Built([&](char* out, int* length) {
                      return MQTTProtocol_Packet_REPComm(out, length, vector.packetID, vector.reasonCode,
                                                         properties.Get(), vector.count);
                  }),
                  vector.expected);
    }
}

// The property length is read from byte 0, the identifier's high byte.
TEST(Suback, DecodesByItsOwnPositions)
{
    ExpectReplyDecodes(MQTTProtocol_Parse_Suback,
                       {
                           {"identifier below 256", {0x00, 0x07, 0x00, 0x02}, 4, 7, 0x07, {}},
                           {"as the reply builder writes it", {0x00, 0x01, 0x00, 0x80}, 4, 1, 0x01, {}},
                           {"high byte taken as a property length", {0x01, 0x02, 0x21, 0x00, 0x0A}, 5, 0x0102, 0x21,
                            {{0x02, 0x21000A00}}},
                       });
}

}  // namespace
