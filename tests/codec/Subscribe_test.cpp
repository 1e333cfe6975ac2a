// SUBSCRIBE and UNSUBSCRIBE: one topic filter each (SUBSCRIBE with its options byte), built, then
// read back with a second filter behind the first, which the decoders ignore.
#include "TestSupport.h"

using namespace mqtttest;

namespace {

TEST(SubscribeAndUnsubscribe, BuildAndDecodeGoldenBodies)
{
    const struct
    {
        bool subscribe;
        uint16_t packetID;
        const char* topicFilter;
        uint8_t options;  // passed through whole, reserved bits included
        PropertyList properties;
        Bytes body;
    } rows[] = {
        {true, 1, "t/#", 0x01, {}, {0x00, 0x01, 0x00, 0x00, 0x03, 't', '/', '#', 0x01}},
        {true, 0, "t/#", 0xFF, {}, {0x00, 0x00, 0x00, 0x00, 0x03, 't', '/', '#', 0xFF}},
        {true, 65535, "", 0x00, PropertyList().Integer(0x0B, 1, 5), {0xFF, 0xFF, 0x02, 0x0B, 0x05, 0x00, 0x00, 0x00}},
        {false, 2, "t/#", 0, {}, {0x00, 0x02, 0x00, 0x00, 0x03, 't', '/', '#'}},
        {false, 0, "t/#", 0, {}, {0x00, 0x00, 0x00, 0x00, 0x03, 't', '/', '#'}},
        {false, 65535, "", 0, PropertyList().Raw(0x26, {0x00, 0x01, 'k', 0x00, 0x01, 'v'}),
         {0xFF, 0xFF, 0x07, 0x26, 0x00, 0x01, 'k', 0x00, 0x01, 'v', 0x00, 0x00}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.body));
        PropertyList properties = row.properties;
        MQTTPROTOCOL_HDRSUBSCRIBE options;
        std::memcpy(&options, &row.options, 1);
        EXPECT_EQ(Built([&](char* out, int* length) {
                      const uint16_t id = row.packetID;
                      const char* filter = row.topicFilter;
                      return row.subscribe ? MQTTProtocol_Packet_REQSubscribe(out, length, id, filter, &options,
                                                                              properties.Get(), properties.Count())
                                           : MQTTProtocol_Packet_REQUNSubscribe(out, length, id, filter,
                                                                                properties.Get(), properties.Count());
                  }),
                  row.body);

        const Bytes received = Concat({row.body, {0x00, 0x01, 'x', 0x02}});
        const ReceivedBody body(received);
        const int bodyLen = static_cast<int>(received.size());
        unsigned short packetID = 0xBEEF;
        char topicFilter[16] = {};
        MQTTPROTOCOL_HDRSUBSCRIBE decodedOptions{};
        DecodedProperties decoded;
        ASSERT_TRUE(row.subscribe ? MQTTProtocol_Parse_Subscribe(body.Data(), bodyLen, &packetID, topicFilter,
                                                                 &decodedOptions, &decoded.list, &decoded.count)
                                  : MQTTProtocol_Parse_UNSubcribe(body.Data(), bodyLen, &packetID, topicFilter,
                                                                  &decoded.list, &decoded.count));
        EXPECT_EQ(packetID, row.packetID);
        EXPECT_STREQ(topicFilter, row.topicFilter);
        EXPECT_EQ(std::memcmp(&decodedOptions, &row.options, 1), 0);
        ExpectProperties(decoded, row.properties);
    }
}

}  // namespace
