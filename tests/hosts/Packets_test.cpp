#include "host/Packets.h"
#include "host/PacketCutter.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

using namespace host;

// A body as a peer would send it, in a Frame (zero bytes behind it, as in the library's blocks).
Frame Received(unsigned char firstByte, const std::string& body)
{
    std::string packet(1, static_cast<char>(firstByte));
    packet += static_cast<char>(body.size());  // bodies here stay below 128 bytes
    return SplitPacket(packet + body);
}

TEST(Packets, PublishWithRetainOrDupKeepsItsIdentifier)
{
    // mosquitto_pub -r -q 1: flags 0x3; a resent QoS 2 message: flags 0xC; both with identifier 0x0102.
    const std::string body("\x00\x01t\x01\x02\x00hi", 8);
    for (unsigned char firstByte : {0x33, 0x3C, 0x3B, 0x32}) {
        const Frame frame = Received(firstByte, body);
        Publish publish;
        ASSERT_TRUE(DecodePublish(frame.header, frame.body.data(), frame.length, publish));
        EXPECT_EQ(publish.id, 0x0102) << std::hex << int(firstByte);
        EXPECT_EQ(publish.topic, "t");
        EXPECT_EQ(publish.payload, "hi");
        EXPECT_EQ(publish.qos, (firstByte >> 1) & 3);
        EXPECT_EQ(publish.retain, (firstByte & 1) != 0);
        EXPECT_EQ(publish.dup, (firstByte & 8) != 0);
    }
}

TEST(Packets, PublishRoundTripsWithPropertiesAndRefusesBadBodies)
{
    // Python paho's order: a User Property first, then Message Expiry Interval and a Topic Alias.
    const std::string userProperty("\x26\x00\x01k\x00\x02vv", 8);
    const std::string body = std::string("\x00\x03\x61/b\x00\x09\x10", 8) + userProperty +
                             std::string("\x02\x00\x00\x0E\x10\x23\x00\x01", 8) + "payload";
    const Frame frame = Received(0x35, body);
    Publish publish;
    ASSERT_TRUE(DecodePublish(frame.header, frame.body.data(), frame.length, publish));
    EXPECT_EQ(publish.payload, "payload");
    EXPECT_EQ(publish.messageExpiry, 3600U);
    const std::string forwarded = PublishPacket("a/b", "payload", 2, 9, true, publish.properties);
    EXPECT_EQ(forwarded.substr(2), std::string("\x00\x03\x61/b\x00\x09\x08", 8) + userProperty + "payload")
        << "the User Property goes on, the alias and the expiry do not";

    const std::pair<unsigned char, std::string> refused[] = {
        {0x32, std::string("\x00\x05t", 3)},                                             // topic runs past the body
        {0x32, std::string("\x00\x01t\x00\x00\x00", 6)},                                 // QoS 1 with identifier 0
        {0x32, std::string("\x00\x01t\x00\x01\x80\x01", 7) + std::string(128, '\x26')},  // a block of 128 bytes
        {0x36, std::string("\x00\x01t\x00\x01\x00", 6)},                                 // QoS 3
    };
    for (const auto& [firstByte, body] : refused) {
        const Frame bad = Received(firstByte, body);
        Publish ignored;
        EXPECT_FALSE(DecodePublish(bad.header, bad.body.data(), bad.length, ignored))
            << "first byte " << int(firstByte) << ", " << body.size() << " bytes";
    }
}

TEST(Packets, BuildersGiveTheSameBytesEveryTime)
{
    // The library swaps multi-byte property values in the records it builds from; the list is copied.
    PropertyList properties;
    properties.AddU16(kReceiveMaximum, 10);
    properties.AddU32(kMaximumPacketSize, 4096);
    const std::string expected("\x20\x0B\x00\x00\x08\x21\x00\x0A\x27\x00\x00\x10\x00", 13);
    EXPECT_EQ(ConnackPacket(0, properties), expected);
    EXPECT_EQ(ConnackPacket(0, properties), expected);
    EXPECT_EQ(AckPacket(kPuback, 5, 0x10), std::string("\x40\x03\x00\x05\x10", 5));
    EXPECT_EQ(SubscriptionAckPacket(kSuback, 1, 0x02), std::string("\x90\x04\x00\x01\x00\x02", 6));
}

TEST(Packets, PropertyBlocksStayBelow128Bytes)
{
    PropertyList properties;
    EXPECT_TRUE(properties.AddString(0x1F, std::string(121, 'r')));  // 1 + 2 + 121 bytes
    EXPECT_TRUE(properties.AddU16(kReceiveMaximum, 1));              // 127
    EXPECT_FALSE(properties.AddByte(kSubscriptionIdsAvailable, 0));  // would be 129
    EXPECT_EQ(properties.BlockSize(), 127);
}

TEST(Packets, AcknowledgementOfTwoBytesMeansSuccess)
{
    // The standard's short form: identifier only. The library reads the byte behind it as the reason.
    const std::string afterBody("\x00\x05\x97", 3);
    Ack ack;
    ASSERT_TRUE(DecodeAck(afterBody.data(), 2, ack));
    EXPECT_EQ(ack.id, 5);
    EXPECT_EQ(ack.reason, 0x00);
    ASSERT_TRUE(DecodeAck(afterBody.data(), 3, ack));
    EXPECT_EQ(ack.reason, 0x97);
    EXPECT_FALSE(DecodeAck(afterBody.data(), 1, ack));
}

TEST(Packets, SubackIsReadWhereItsFieldsAre)
{
    // Identifier 0x0102 with a Reason String property, then reason code 0x01: the library's SUBACK
    // decoder would take 0x01 (the identifier's first byte) as the property length.
    const std::string body("\x01\x02\x04\x1F\x00\x01x\x01", 8);
    Ack ack;
    ASSERT_TRUE(DecodeSubscriptionAck(body.data(), static_cast<int>(body.size()), ack));
    EXPECT_EQ(ack.id, 0x0102);
    EXPECT_EQ(ack.reason, 0x01);
}

TEST(Packets, SubscribeCountsItsFiltersAndReadsTheFirst)
{
    // mosquitto_sub -t a -t b/c: two filters in one SUBSCRIBE.
    const std::string body("\x00\x07\x00\x00\x01\x61\x01\x00\x03\x62/c\x02", 13);
    Subscription subscription;
    ASSERT_TRUE(DecodeSubscribe(body.data(), static_cast<int>(body.size()), subscription));
    EXPECT_EQ(subscription.id, 7);
    EXPECT_EQ(subscription.filter, "a");
    EXPECT_EQ(subscription.options.byMaxQos, 1);
    EXPECT_EQ(subscription.filterCount, 2);
    EXPECT_FALSE(DecodeSubscribe(body.data(), 12, subscription)) << "an options byte is missing";
    ASSERT_TRUE(DecodeUnsubscribe(body.data(), 6, subscription));
    EXPECT_EQ(subscription.filterCount, 1);
}

TEST(Packets, ConnectIsRefusedWithTheRightReason)
{
    const Frame connect = SplitPacket(ConnectPacket("client-1", 60));
    Connect decoded;
    ASSERT_EQ(DecodeConnect(connect.body.data(), connect.length, decoded), 0x00);

    std::vector<char> withWill = connect.body;
    withWill[7] |= 0x04;
    EXPECT_EQ(DecodeConnect(withWill.data(), connect.length, decoded), 0x83);
    std::vector<char> version4 = connect.body;
    version4[6] = 4;
    EXPECT_EQ(DecodeConnect(version4.data(), connect.length, decoded), 0x84);
    EXPECT_EQ(DecodeConnect(connect.body.data(), connect.length - 1, decoded), 0x81);

    // Properties the broker refuses a client for.
    const auto withProperties = [](const std::string& properties) {
        return Received(0x10, std::string("\x00\x04MQTT\x05\x02\x00\x3C", 10) + static_cast<char>(properties.size()) +
                                  properties + std::string("\x00\x01p", 3));
    };
    const Frame noWindow = withProperties(std::string("\x21\x00\x00", 3));
    EXPECT_EQ(DecodeConnect(noWindow.body.data(), noWindow.length, decoded), 0x82);
    const Frame unknown = withProperties(std::string("\x7F\x00", 2));
    EXPECT_EQ(DecodeConnect(unknown.body.data(), unknown.length, decoded), 0x81);
}

TEST(Packets, DisconnectWithoutBodyMeansNormal)
{
    EXPECT_EQ(DecodeDisconnect("", 0), 0x00);
    EXPECT_EQ(DecodeDisconnect("\x8E\x00", 2), 0x8E);
    EXPECT_EQ(DecodeDisconnect("\x04\x05", 2), 0x81) << "its property block runs past the body";
}

}  // namespace
