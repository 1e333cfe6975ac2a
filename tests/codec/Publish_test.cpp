#include "TestSupport.h"

#include <optional>

using namespace mqtttest;

namespace {

const std::string kLongTopic(65537, 't');

struct PublishBuildVector
{
    const char* name;
    const char* topic;
    int payloadLen;  // of "xy"
    uint16_t packetID;
    PropertyList properties;
    Bytes expected;
};

const PublishBuildVector kPublishBuilds[] = {
    {"QoS 1", "a/b", 2, 10, {}, {0x00, 0x03, 'a', '/', 'b', 0x00, 0x0A, 0x00, 'x', 'y'}},
    {"identifier 0 is left out", "a/b", 2, 0, {}, {0x00, 0x03, 'a', '/', 'b', 0x00, 'x', 'y'}},
    {"no payload", "a/b", 0, 10, {}, {0x00, 0x03, 'a', '/', 'b', 0x00, 0x0A, 0x00}},
    {"negative payload length", "a/b", -1, 10, {}, {0x00, 0x03, 'a', '/', 'b', 0x00, 0x0A, 0x00}},
    {"empty topic", "", 1, 1, {}, {0x00, 0x00, 0x00, 0x01, 0x00, 'x'}},
    {"properties", "t", 0, 65535, PropertyList().Integer(0x01, 1, 1).Integer(0x23, 2, 5),
     {0x00, 0x01, 't', 0xFF, 0xFF, 0x05, 0x01, 0x01, 0x23, 0x00, 0x05}},
    {"topic length cut to 16 bits", kLongTopic.c_str(), 0, 0, {}, {0x00, 0x01, 't', 0x00}},
};

TEST(Publish, BuildsGoldenBodies)
{
    for (const auto& vector : kPublishBuilds) {
        SCOPED_TRACE(vector.name);
        PropertyList properties = vector.properties;
        EXPECT_EQ(Built([&](char* out, int* length) {
                      return MQTTProtocol_Packet_REQPublish(out, length, vector.topic, "xy", vector.payloadLen,
                                                            vector.packetID, properties.Get(), properties.Count());
                  }),
                  vector.expected);
    }
}

// Topic a/b, identifier 10, no properties, payload xy.
const Bytes kQoS1Body = kPublishBuilds[0].expected;
// Read without an identifier, its bytes 00 0A become an empty property block and the payload's start.
const Bytes kPayloadWithoutIdentifier{0x0A, 0x00, 'x', 'y'};

struct PublishDecodeVector
{
    const char* name;
    uint8_t firstByte;
    Bytes body;
    int bodyLen;
    std::string topic;
    std::optional<uint16_t> packetID;  // nullopt: the out keeps its value
    std::optional<Bytes> payload;      // nullopt: neither payload nor its length is written
    PropertySummary properties;
};

const PublishDecodeVector kPublishDecodes[] = {
    {"flags 0", 0x30, kQoS1Body, 10, "a/b", {}, kPayloadWithoutIdentifier, {}},
    {"flags 1", 0x31, kQoS1Body, 10, "a/b", {}, kPayloadWithoutIdentifier, {}},
    {"flags 2", 0x32, kQoS1Body, 10, "a/b", 10, Bytes{'x', 'y'}, {}},
    {"flags 3", 0x33, kQoS1Body, 10, "a/b", {}, kPayloadWithoutIdentifier, {}},
    {"flags 4", 0x34, kQoS1Body, 10, "a/b", 10, Bytes{'x', 'y'}, {}},
    {"flags 5", 0x35, kQoS1Body, 10, "a/b", {}, kPayloadWithoutIdentifier, {}},
    {"flags 10", 0x3A, kQoS1Body, 10, "a/b", {}, kPayloadWithoutIdentifier, {}},
    {"flags 12", 0x3C, kQoS1Body, 10, "a/b", {}, kPayloadWithoutIdentifier, {}},
    {"type nibble is not examined", 0x02, kQoS1Body, 10, "a/b", 10, Bytes{'x', 'y'}, {}},
    {"body ends after the property block", 0x30, {0x00, 0x01, 't', 0x00}, 4, "t", {}, {}, {}},
    {"body length short of the position", 0x32, kQoS1Body, 7, "a/b", 10, {}, {}},
    {"negative body length", 0x30, kQoS1Body, -1, "a/b", {}, {}, {}},
    {"properties", 0x32, {0x00, 0x01, 't', 0x00, 0x01, 0x05, 0x01, 0x01, 0x23, 0x00, 0x05, 'p'}, 12, "t", 1,
     Bytes{'p'}, {{0x01, 1}, {0x23, 5}}},
};

TEST(Publish, DecodesGoldenBodies)
{
    for (const auto& vector : kPublishDecodes) {
        SCOPED_TRACE(vector.name);
        const ReceivedBody body(vector.body);
        MQTTPROTOCOL_FIXEDHEADER header;
        std::memcpy(&header, &vector.firstByte, 1);
        char topic[16] = {};
        char payload[16];
        std::memset(payload, 0xEE, sizeof(payload));
        unsigned short packetID = 0xBEEF;
        int payloadLen = -7;
        DecodedProperties properties;
        ASSERT_TRUE(MQTTProtocol_Parse_Publish(body.Data(), vector.bodyLen, &header, topic, &packetID, payload,
                                               &payloadLen, &properties.list, &properties.count));
        EXPECT_EQ(std::string(topic), vector.topic);
        EXPECT_EQ(packetID, vector.packetID.value_or(0xBEEF));
        const Bytes untouched(sizeof(payload), 0xEE);
        Bytes expectedPayload = untouched;
        if (vector.payload) std::copy(vector.payload->begin(), vector.payload->end(), expectedPayload.begin());
        EXPECT_EQ(mqtttest::ToBytes(payload, sizeof(payload)), expectedPayload);
        EXPECT_EQ(payloadLen, vector.payload ? static_cast<int>(vector.payload->size()) : -7);
        EXPECT_EQ(properties.Summary(), vector.properties);
    }
}

struct AckBuildVector
{
    uint16_t packetID;
    PropertyList properties;
    int count;
    Bytes expected;
};

const AckBuildVector kAckBuilds[] = {
    {0x1234, {}, 0, {0x12, 0x34, 0x10, 0x00}},
    {0x1234, {}, -1, {0x12, 0x34, 0x10}},
    {0, {}, 0, {0x10, 0x00}},
    {0, {}, -1, {0x10}},
    {0x1234, PropertyList().String(0x1F, "fine"), 1, {0x12, 0x34, 0x10, 0x07, 0x1F, 0x00, 0x04, 'f', 'i', 'n', 'e'}},
};

TEST(PublishAcknowledgement, BuildsGoldenBodies)
{
    for (const auto& vector : kAckBuilds) {
        PropertyList properties = vector.properties;
        EXPECT_EQ(Built([&](char* out, int* length) {
                      return MQTTProtocol_Packet_REPPublish(out, length, vector.packetID, 0x10, properties.Get(),
                                                            vector.count);
                  }),
                  vector.expected);
    }
}

TEST(PublishAcknowledgement, DecodesGoldenBodies)
{
    ExpectReplyDecodes(MQTTProtocol_Parse_Puback,
                       {
                           {"three bytes", {0x00, 0x05, 0x00}, 3, 5, 0x00, {}},
                           {"two bytes: the reason code is the byte behind them", {0x00, 0x05, 0x97}, 2, 5, 0x97, {}},
                           {"empty property block", {0x12, 0x34, 0x10, 0x00}, 4, 0x1234, 0x10, {}},
                           {"properties", {0x00, 0x05, 0x10, 0x03, 0x21, 0x00, 0x0A}, 7, 5, 0x10, {{0x21, 10}}},
                           {"no properties read at a length of 3", {0x00, 0x05, 0x10, 0x03, 0x21, 0x00, 0x0A}, 3, 5,
                            0x10, {}},
                       });
}

}  // namespace
