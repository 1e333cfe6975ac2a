#include "TestSupport.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>

using mqtttest::Bytes;

namespace {

struct LengthVector
{
    int value;
    Bytes encoded;
};

// Every boundary of the variable-length encoding, and the encoder's values beyond the decoder's range.
const LengthVector kLengthVectors[] = {
    {0, {0x00}},
    {1, {0x01}},
    {127, {0x7F}},
    {128, {0x80, 0x01}},
    {16383, {0xFF, 0x7F}},
    {16384, {0x80, 0x80, 0x01}},
    {2097151, {0xFF, 0xFF, 0x7F}},
    {2097152, {0x80, 0x80, 0x80, 0x01}},
    {268435455, {0xFF, 0xFF, 0xFF, 0x7F}},
    {268435456, {0x80, 0x80, 0x80, 0x80, 0x01}},
    {INT_MAX, {0xFF, 0xFF, 0xFF, 0xFF, 0x07}},
    {-1, {0xFF}},
    {-128, {0x00}},
    {-200, {0xB8}},
};

TEST(RemainingLength, EncodesEveryBoundary)
{
    for (const auto& vector : kLengthVectors) {
        unsigned char out[8] = {};
        unsigned char count = 0;
        MQTTProtocol_IsErrorOccur = true;
        EXPECT_TRUE(m_Packet.MQTTProtocol_Packet_Length(vector.value, out, &count));
        EXPECT_TRUE(MQTTProtocol_IsErrorOccur) << "the encoder never touches the error flag";
        EXPECT_EQ(Bytes(out, out + count), vector.encoded) << vector.value;
    }
    MQTTProtocol_IsErrorOccur = false;
}

TEST(RemainingLength, DecodesEveryEncodingWithinFourBytes)
{
    for (const auto& vector : kLengthVectors) {
        if (vector.value < 0 || vector.encoded.size() > 4) continue;
        int value = -1;
        int position = 1;  // as the framing presets it: afterwards it is the fixed header's size
        ASSERT_TRUE(m_Parse.MQTTProtocol_Parse_Length(mqtttest::AsChars(vector.encoded),
                                                      static_cast<int>(vector.encoded.size()), &value, &position));
        EXPECT_EQ(value, vector.value);
        EXPECT_EQ(position, 1 + static_cast<int>(vector.encoded.size()));
        EXPECT_FALSE(MQTTProtocol_IsErrorOccur);
    }
}

TEST(RemainingLength, DecoderStopsAtTheFirstByteWithoutContinuation)
{
    const Bytes bytes{0x05, 0xFF, 0xFF};  // trailing bytes are the body, not the length
    int value = 0;
    int position = 0;
    ASSERT_TRUE(m_Parse.MQTTProtocol_Parse_Length(mqtttest::AsChars(bytes), 3, &value, &position));
    EXPECT_EQ(value, 5);
    EXPECT_EQ(position, 1);
}

TEST(RemainingLength, DecoderAcceptsLongerEncodingsThanNeeded)
{
    const Bytes bytes{0x80, 0x00};
    int value = -1;
    int position = 0;
    ASSERT_TRUE(m_Parse.MQTTProtocol_Parse_Length(mqtttest::AsChars(bytes), 2, &value, &position));
    EXPECT_EQ(value, 0);
    EXPECT_EQ(position, 2);
}

TEST(RemainingLength, DecoderRefusesCutOffAndFiveByteFieldsLeavingOutputs)
{
    const struct
    {
        Bytes bytes;
        int available;
    } refused[] = {
        {{0x00}, 0},                          // nothing available
        {{0x80}, 1},                          // continuation with no byte behind it
        {{0xFF, 0xFF, 0xFF}, 3},              // cut off inside the field
        {{0x80, 0x80, 0x80, 0x80, 0x01}, 5},  // would need a fifth byte
        {{0xFF, 0xFF, 0xFF, 0xFF}, 4},
    };
    for (const auto& input : refused) {
        int value = 1234;
        int position = 7;
        EXPECT_FALSE(m_Parse.MQTTProtocol_Parse_Length(mqtttest::AsChars(input.bytes), input.available, &value, &position));
        EXPECT_TRUE(MQTTProtocol_IsErrorOccur);
        EXPECT_EQ(MQTTProtocol_GetLastError(nullptr), MQTTPROTOCOL_ERR_PARSE_LENGTH);
        EXPECT_EQ(value, 1234);
        EXPECT_EQ(position, 7);
    }
}

struct HeaderVector
{
    unsigned char type;
    unsigned char flags;
    int bodyLen;
    Bytes expectedHeader;  // byte 0 and the remaining length; the body follows
};

const HeaderVector kHeaderVectors[] = {
    {12, 0, 0, {0xC0, 0x00}},                   // PINGREQ: two bytes
    {14, 0, 2, {0xE0, 0x02}},                   // DISCONNECT
    {3, 2, 127, {0x32, 0x7F}},                  // PUBLISH QoS 1
    {8, 2, 128, {0x82, 0x80, 0x01}},            // SUBSCRIBE
    {3, 0x0B, 16384, {0x3B, 0x80, 0x80, 0x01}}, // flags are not checked against the type
    {0x1F, 0x12, 1, {0xF2, 0x01}},              // only the low four bits of each are used
};

TEST(PacketHeader, WrapsABodyInAFixedHeader)
{
    for (const auto& vector : kHeaderVectors) {
        Bytes body(static_cast<size_t>(vector.bodyLen));
        for (size_t i = 0; i < body.size(); i++) body[i] = static_cast<uint8_t>(i * 7 + 1);
        Bytes out(body.size() + 8, 0xEE);
        int outLen = -1;
        ASSERT_TRUE(MQTTProtocol_Packet_Header(reinterpret_cast<char*>(out.data()), &outLen, vector.type,
                                               mqtttest::AsChars(body), vector.bodyLen, vector.flags));
        Bytes expected = vector.expectedHeader;
        expected.insert(expected.end(), body.begin(), body.end());
        ASSERT_EQ(outLen, static_cast<int>(expected.size()));
        EXPECT_EQ(Bytes(out.begin(), out.begin() + outLen), expected);
        EXPECT_EQ(out[static_cast<size_t>(outLen)], 0xEE) << "nothing written past the packet";
    }
}

TEST(PacketHeader, SetsTheLengthOutRatherThanAddingToIt)
{
    char out[8];
    int outLen = 100;
    ASSERT_TRUE(MQTTProtocol_Packet_Header(out, &outLen, 13, nullptr, 0, 0));
    EXPECT_EQ(outLen, 2);
}

TEST(PacketHeader, NegativeBodyLengthWritesOneLengthByteAndNoBody)
{
    char out[8] = {};
    int outLen = 0;
    ASSERT_TRUE(MQTTProtocol_Packet_Header(out, &outLen, 3, nullptr, -1, 0));
    EXPECT_EQ(outLen, 2);
    EXPECT_EQ(static_cast<uint8_t>(out[0]), 0x30);
    EXPECT_EQ(static_cast<uint8_t>(out[1]), 0xFF);
}

TEST(PacketHeader, NullOutputsFailWithoutWriting)
{
    char out[4] = {0x11, 0x11, 0x11, 0x11};
    int outLen = 9;
    EXPECT_FALSE(MQTTProtocol_Packet_Header(nullptr, &outLen, 12, nullptr, 0, 0));
    EXPECT_EQ(MQTTProtocol_GetLastError(nullptr), MQTTPROTOCOL_ERR_PACKET_ARGUMENT);
    EXPECT_EQ(outLen, 9);
    EXPECT_FALSE(MQTTProtocol_Packet_Header(out, nullptr, 12, nullptr, 0, 0));
    EXPECT_TRUE(MQTTProtocol_IsErrorOccur);
    EXPECT_EQ(out[0], 0x11);
}

}  // namespace
