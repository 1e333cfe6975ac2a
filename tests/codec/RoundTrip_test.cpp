// What one builder writes, its decoder reads back, for the part of each packet family that the
// standard and this library agree on. SUBACK is left out: its decoder reads positions of its own.
#include "TestSupport.h"

using namespace mqtttest;

namespace {

struct Sample
{
    uint16_t packetID;
    std::string text;  // client identifier, user name, password, topic name or filter
    PropertyList properties;
};

std::vector<Sample> Samples()
{
    // Every width, the rest-of-block value last, where the decoder can give it its own length.
    const PropertyList everyWidth =
        PropertyList().Integer(0x01, 1, 1).Integer(0x23, 2, 65535).Integer(0x02, 4, 0xDEADBEEF).String(0x1F, "why not");
    std::vector<Sample> samples;
    for (uint16_t packetID : {1, 65535}) {
        for (const char* text : {"", "sensors/+/temp"}) {
            for (const PropertyList& properties : {PropertyList(), everyWidth}) {
                samples.push_back({packetID, text, properties});
            }
        }
    }
    return samples;
}

void ExpectSameProperties(const PropertyList& sent, const DecodedProperties& decoded)
{
    ASSERT_EQ(decoded.count, sent.Count());
    if (sent.Count() == 0) {
        EXPECT_EQ(decoded.list, nullptr);
    }
    for (int i = 0; i < decoded.count; i++) {
        const auto& want = sent.records[static_cast<size_t>(i)];
        EXPECT_EQ(decoded[i].byPropertyID, want.byPropertyID);
        EXPECT_EQ(decoded[i].nPropertyLen, want.nPropertyLen);
        EXPECT_EQ(std::memcmp(decoded[i].tszValue, want.tszValue, sizeof(want.tszValue)), 0) << i;
    }
}

// Builds each sample with its own copy of the property list (builders swap values in place), then
// hands the body as received and the untouched originals to the check.
template <typename Build, typename Check>
void RoundTripEverySample(Build build, Check check)
{
    for (const Sample& sample : Samples()) {
        SCOPED_TRACE(::testing::Message() << sample.packetID << " '" << sample.text << "' "
                                          << sample.properties.Count() << " properties");
        PropertyList sent = sample.properties;
        const Bytes body = Built([&](char* out, int* length) { return build(out, length, sample, sent); });
        const ReceivedBody received(body);
        DecodedProperties decoded;
        check(received.Data(), static_cast<int>(body.size()), sample, decoded);
        ExpectSameProperties(sample.properties, decoded);
    }
}

TEST(RoundTrip, Connect)
{
    MQTTPROTOCOL_HDRCONNNECT sentHeader{};
    sentHeader.byConnFlags = 0xC2;
    const uint8_t keepAlive300[2] = {0x01, 0x2C};
    std::memcpy(&sentHeader.wKeepAlive, keepAlive300, 2);
    RoundTripEverySample(
        [&](char* out, int* length, const Sample& s, PropertyList& sent) {
            const char* text = s.text.c_str();
            return m_Packet.MQTTProtocol_Packet_REQConnect(out, length, &sentHeader, text, sent.Get(), sent.Count(),
                                                           text, text);
        },
        [&](const char* body, int bodyLen, const Sample& s, DecodedProperties& decoded) {
            MQTTPROTOCOL_HDRCONNNECT header{};
            MQTTPROTOCOL_USERINFO info{};
            ASSERT_TRUE(m_Parse.MQTTProtocol_Parse_Connect(body, bodyLen, &header, &info, &decoded.list, &decoded.count));
            EXPECT_EQ(std::memcmp(&header, &sentHeader, 8), 0);
            EXPECT_EQ(header.wKeepAlive, 300);
            EXPECT_EQ(info.tszClientID, s.text);
            EXPECT_EQ(info.tszClientUser, s.text);
            EXPECT_EQ(info.tszClientPass, s.text);
        });
}

TEST(RoundTrip, Connack)
{
    RoundTripEverySample(
        [](char* out, int* length, const Sample&, PropertyList& sent) {
            return m_Packet.MQTTProtocol_Packet_REPConnect(out, length, 0x01, 0x87, sent.Get(), sent.Count());
        },
        [](const char* body, int bodyLen, const Sample&, DecodedProperties& decoded) {
            unsigned char reasonCode = 0;
            ASSERT_TRUE(m_Parse.MQTTProtocol_Parse_Connack(body, bodyLen, &reasonCode, &decoded.list, &decoded.count));
            EXPECT_EQ(reasonCode, 0x87);
        });
}

TEST(RoundTrip, Disconnect)
{
    RoundTripEverySample(
        [](char* out, int* length, const Sample&, PropertyList& sent) {
            return m_Packet.MQTTProtocol_Packet_DisConnect(out, length, 0x8E, sent.Get(), sent.Count());
        },
        [](const char* body, int bodyLen, const Sample&, DecodedProperties& decoded) {
            unsigned char reasonCode = 0;
            ASSERT_TRUE(m_Parse.MQTTProtocol_Parse_Disconnect(body, bodyLen, &reasonCode, &decoded.list, &decoded.count));
            EXPECT_EQ(reasonCode, 0x8E);
        });
}

TEST(RoundTrip, PublishAtQoS1AndQoS2)
{
    for (uint8_t firstByte : {0x32, 0x34}) {
        RoundTripEverySample(
            [](char* out, int* length, const Sample& s, PropertyList& sent) {
                return m_Packet.MQTTProtocol_Packet_REQPublish(out, length, s.text.c_str(), "\0payload", 8, s.packetID,
                                                               sent.Get(), sent.Count());
            },
            [&](const char* body, int bodyLen, const Sample& s, DecodedProperties& decoded) {
                MQTTPROTOCOL_FIXEDHEADER header;
                std::memcpy(&header, &firstByte, 1);
                char topic[32] = {};
                char payload[16] = {};
                unsigned short packetID = 0;
                int payloadLen = 0;
                ASSERT_TRUE(m_Parse.MQTTProtocol_Parse_Publish(body, bodyLen, &header, topic, &packetID, payload,
                                                               &payloadLen, &decoded.list, &decoded.count));
                EXPECT_EQ(topic, s.text);
                EXPECT_EQ(packetID, s.packetID);
                EXPECT_EQ(std::string(payload, static_cast<size_t>(payloadLen)), std::string("\0payload", 8));
            });
    }
}

// The PUBLISH acknowledgement and UNSUBACK pair a builder and a decoder of the same signatures.
TEST(RoundTrip, Replies)
{
    const struct
    {
        bool (CMQTTProtocol_Packet::*build)(char*, int*, unsigned short, unsigned char, MQTTPROTOCOL_HDRPROPERTY***, int);
        bool (CMQTTProtocol_Parse::*decode)(const char*, int, unsigned char*, unsigned short*,
                                            MQTTPROTOCOL_HDRPROPERTY***, int*);
    } pairs[] = {
        {&CMQTTProtocol_Packet::MQTTProtocol_Packet_REPPublish, &CMQTTProtocol_Parse::MQTTProtocol_Parse_Puback},
        {&CMQTTProtocol_Packet::MQTTProtocol_Packet_REPComm, &CMQTTProtocol_Parse::MQTTProtocol_Parse_UNSuback},
    };
    for (const auto& pair : pairs) {
        RoundTripEverySample(
            [&](char* out, int* length, const Sample& s, PropertyList& sent) {
                return (m_Packet.*pair.build)(out, length, s.packetID, 0x10, sent.Get(), sent.Count());
            },
            [&](const char* body, int bodyLen, const Sample& s, DecodedProperties& decoded) {
                unsigned char reasonCode = 0;
                unsigned short packetID = 0;
                ASSERT_TRUE((m_Parse.*pair.decode)(body, bodyLen, &reasonCode, &packetID, &decoded.list,
                                                   &decoded.count));
                EXPECT_EQ(packetID, s.packetID);
                EXPECT_EQ(reasonCode, 0x10);
            });
    }
}

TEST(RoundTrip, Subscribe)
{
    MQTTPROTOCOL_HDRSUBSCRIBE sentOptions{};
    sentOptions.byMaxQos = 2;
    sentOptions.byNoLocal = 1;
    sentOptions.byRetainHandling = 2;
    RoundTripEverySample(
        [&](char* out, int* length, const Sample& s, PropertyList& sent) {
            return m_Packet.MQTTProtocol_Packet_REQSubscribe(out, length, s.packetID, s.text.c_str(), &sentOptions,
                                                             sent.Get(), sent.Count());
        },
        [&](const char* body, int bodyLen, const Sample& s, DecodedProperties& decoded) {
            unsigned short packetID = 0;
            char topicFilter[32] = {};
            MQTTPROTOCOL_HDRSUBSCRIBE options{};
            ASSERT_TRUE(m_Parse.MQTTProtocol_Parse_Subscribe(body, bodyLen, &packetID, topicFilter, &options,
                                                             &decoded.list, &decoded.count));
            EXPECT_EQ(packetID, s.packetID);
            EXPECT_EQ(topicFilter, s.text);
            EXPECT_EQ(std::memcmp(&options, &sentOptions, 1), 0);
        });
}

TEST(RoundTrip, Unsubscribe)
{
    RoundTripEverySample(
        [](char* out, int* length, const Sample& s, PropertyList& sent) {
            return m_Packet.MQTTProtocol_Packet_REQUNSubscribe(out, length, s.packetID, s.text.c_str(), sent.Get(),
                                                               sent.Count());
        },
        [](const char* body, int bodyLen, const Sample& s, DecodedProperties& decoded) {
            unsigned short packetID = 0;
            char topicFilter[32] = {};
            ASSERT_TRUE(m_Parse.MQTTProtocol_Parse_UNSubcribe(body, bodyLen, &packetID, topicFilter, &decoded.list,
                                                              &decoded.count));
            EXPECT_EQ(packetID, s.packetID);
            EXPECT_EQ(topicFilter, s.text);
        });
}

}  // namespace
