#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>

using mqtttest::Bytes;
using mqtttest::DecodedProperties;
using mqtttest::PropertyList;

namespace {

Bytes BuildBlock(PropertyList& list, int count, int* runningLength = nullptr)
{
    char out[1024];
    std::memset(out, 0xEE, sizeof(out));
    int length = 0;
    EXPECT_TRUE(m_Packet.MQTTProtocol_Packet_Property(out, &length, list.Get(), count));
    if (runningLength != nullptr) *runningLength = length;
    return mqtttest::ToBytes(out, length);
}

// Decodes a block given with its length byte, from inside a zeroed area as a received body lies.
void DecodeBlock(const Bytes& block, DecodedProperties& decoded)
{
    std::vector<char> body(block.size() + 16, 0);
    std::memcpy(body.data(), block.data(), block.size());
    ASSERT_TRUE(m_Parse.MQTTProtocol_Parse_Property(body.data() + 1, block[0], &decoded.list, &decoded.count));
    ASSERT_NE(decoded.list, nullptr);
}

TEST(PropertyBlock, EmptyListWritesOneZeroByte)
{
    PropertyList none;
    for (int count : {0, -1}) {
        int length = 0;
        EXPECT_EQ(BuildBlock(none, count, &length), Bytes{0x00});
        EXPECT_EQ(length, 1);
    }
}

TEST(PropertyBlock, AddsTheBlockSizeToTheRunningLength)
{
    PropertyList list;
    list.Integer(0x24, 1, 1);
    char out[16];
    int length = 10;
    ASSERT_TRUE(m_Packet.MQTTProtocol_Packet_Property(out, &length, list.Get(), 1));
    EXPECT_EQ(length, 13);
}

TEST(PropertyBlock, WritesIntegersBigEndianAndSwapsTheCallersRecordsInPlace)
{
    PropertyList list;
    list.Integer(0x21, 2, 10).Integer(0x27, 4, 4096);
    int length = 0;
    EXPECT_EQ(BuildBlock(list, 2, &length), (Bytes{0x08, 0x21, 0x00, 0x0A, 0x27, 0x00, 0x00, 0x10, 0x00}));
    EXPECT_EQ(length, 9);
    EXPECT_EQ(list.records[0].wValue, 0x0A00);
    EXPECT_EQ(list.records[1].dwValue, 0x00100000u);
    // The same list built again goes out byte-reversed.
    EXPECT_EQ(BuildBlock(list, 2), (Bytes{0x08, 0x21, 0x0A, 0x00, 0x27, 0x00, 0x10, 0x00, 0x00}));
}

TEST(PropertyBlock, WidthComesFromTheRecordNotTheIdentifier)
{
    PropertyList list;
    list.Integer(0x11, 2, 0x0102)        // a four-byte identifier written as two bytes
        .Integer(0x26, 1, 0x7F)          // a string pair written as one byte
        .Raw(0x02, {0xAA, 0xBB, 0xCC})   // a four-byte identifier with three raw bytes
        .Raw(0x1F, {});                  // width zero: an identifier with an empty value
    EXPECT_EQ(BuildBlock(list, 4), (Bytes{0x0A, 0x11, 0x01, 0x02, 0x26, 0x7F, 0x02, 0xAA, 0xBB, 0xCC, 0x1F}));
}

TEST(PropertyBlock, BlocksOf128To255BytesKeepTheirOneByteLength)
{
    PropertyList list;
    list.Raw(0x26, Bytes(199, 'x'));
    const Bytes block = BuildBlock(list, 1);
    ASSERT_EQ(block.size(), 201u);
    EXPECT_EQ(block[0], 0xC8);
    DecodedProperties decoded;
    DecodeBlock(block, decoded);
    ASSERT_EQ(decoded.count, 1);
    EXPECT_EQ(decoded[0].nPropertyLen, 199);
}

TEST(PropertyBlock, PositionWrapsAtEightBits)
{
    // 1 + 252 bytes bring the position to 254; the identifier takes 254 and the two-byte value starts
    // at 255 and is written whole (bytes 255 and 256) before the position wraps to 1.
    PropertyList list;
    list.Raw(0x26, Bytes(252, 'a')).Integer(0x21, 2, 0xBEEF);
    char out[512];
    std::memset(out, 0xEE, sizeof(out));
    int length = 0;
    ASSERT_TRUE(m_Packet.MQTTProtocol_Packet_Property(out, &length, list.Get(), 2));
    EXPECT_EQ(static_cast<uint8_t>(out[254]), 0x21);
    EXPECT_EQ(static_cast<uint8_t>(out[255]), 0xBE);
    EXPECT_EQ(static_cast<uint8_t>(out[256]), 0xEF);
    EXPECT_EQ(static_cast<uint8_t>(out[0]), 0x00) << "the length byte is the wrapped position minus 1";
    EXPECT_EQ(length, 1);

    // One more property lands over the start of the block, the length byte rewritten last.
    list.Integer(0x24, 1, 7);
    std::memset(out, 0xEE, sizeof(out));
    length = 0;
    list.records[1].wValue = 0xBEEF;
    ASSERT_TRUE(m_Packet.MQTTProtocol_Packet_Property(out, &length, list.Get(), 3));
    EXPECT_EQ(static_cast<uint8_t>(out[1]), 0x24);
    EXPECT_EQ(static_cast<uint8_t>(out[2]), 7);
    EXPECT_EQ(static_cast<uint8_t>(out[0]), 2);
    EXPECT_EQ(length, 3);
}

TEST(PropertyBlock, NeverReadsPastTheRecordAndNeverMovesBack)
{
    PropertyList list;
    list.Raw(0x09, Bytes(260, 'v'));
    list.records[0].nPropertyLen = 300;
    char out[600];
    std::memset(out, 0xEE, sizeof(out));
    int length = 0;
    ASSERT_TRUE(m_Packet.MQTTProtocol_Packet_Property(out, &length, list.Get(), 1));
    EXPECT_EQ(out[2 + 259], 'v');
    EXPECT_EQ(out[2 + 260], 0) << "width beyond tszValue is padded with zeros";
    EXPECT_EQ(out[2 + 299], 0);
    EXPECT_EQ(static_cast<uint8_t>(out[2 + 300]), 0xEE);
    EXPECT_EQ(length, (1 + 1 + 300) % 256);

    PropertyList negative;
    negative.Raw(0x09, {}).Integer(0x24, 1, 2);
    negative.records[0].nPropertyLen = -5;
    EXPECT_EQ(BuildBlock(negative, 2), (Bytes{0x03, 0x09, 0x24, 0x02}));
}

struct DecodeVector
{
    const char* name;
    Bytes block;  // length byte first
    std::vector<std::pair<uint8_t, int>> records;  // identifier, width
};

const DecodeVector kDecodeVectors[] = {
    {"fixed widths", {0x08, 0x21, 0x00, 0x0A, 0x27, 0x00, 0x00, 0x10, 0x00}, {{0x21, 2}, {0x27, 4}}},
    {"every byte property", {0x10, 0x01, 1, 0x17, 1, 0x19, 1, 0x24, 1, 0x25, 1, 0x28, 1, 0x29, 1, 0x2A, 1},
     {{0x01, 1}, {0x17, 1}, {0x19, 1}, {0x24, 1}, {0x25, 1}, {0x28, 1}, {0x29, 1}, {0x2A, 1}}},
    {"every two-byte property", {0x0C, 0x13, 0, 1, 0x21, 0, 2, 0x22, 0, 3, 0x23, 0, 4},
     {{0x13, 2}, {0x21, 2}, {0x22, 2}, {0x23, 2}}},
    {"every four-byte property", {0x14, 0x02, 0, 0, 0, 1, 0x11, 0, 0, 0, 2, 0x18, 0, 0, 0, 3, 0x27, 0, 0, 0, 4},
     {{0x02, 4}, {0x11, 4}, {0x18, 4}, {0x27, 4}}},
    {"string", {0x06, 0x1F, 0x00, 0x03, 'a', 'b', 'c'}, {{0x1F, 5}}},
    {"string pair swallows what follows", {0x08, 0x26, 0x00, 0x01, 'k', 0x00, 0x00, 0x01, 0x01}, {{0x26, 7}}},
    {"rest-of-block identifier as the last byte", {0x03, 0x24, 0x01, 0x08}, {{0x24, 1}, {0x08, 0}}},
    {"unknown identifier takes the rest", {0x04, 0x7E, 0x01, 0x02, 0x03}, {{0x7E, 3}}},
    {"subscription identifier is rest of block", {0x02, 0x0B, 0x05}, {{0x0B, 1}}},
    {"fixed width reads past a short block", {0x01, 0x21, 0xAB, 0xCD}, {{0x21, 2}}},
};

TEST(PropertyBlock, DecodesWidthsByIdentifier)
{
    for (const auto& vector : kDecodeVectors) {
        SCOPED_TRACE(vector.name);
        DecodedProperties decoded;
        DecodeBlock(vector.block, decoded);
        ASSERT_EQ(decoded.count, static_cast<int>(vector.records.size()));
        for (int i = 0; i < decoded.count; i++) {
            EXPECT_EQ(decoded[i].byPropertyID, vector.records[static_cast<size_t>(i)].first);
            EXPECT_EQ(decoded[i].nPropertyLen, vector.records[static_cast<size_t>(i)].second);
        }
    }
}

TEST(PropertyBlock, DecodesValuesIntoHostOrderAndZeroPadsRawValues)
{
    DecodedProperties integers;
    DecodeBlock({0x08, 0x21, 0x00, 0x0A, 0x27, 0x00, 0x00, 0x10, 0x00}, integers);
    EXPECT_EQ(integers[0].wValue, 10);
    EXPECT_EQ(integers[1].dwValue, 4096u);

    DecodedProperties text;
    DecodeBlock({0x06, 0x1F, 0x00, 0x03, 'a', 'b', 'c'}, text);
    const char expected[8] = {0x00, 0x03, 'a', 'b', 'c', 0, 0, 0};
    EXPECT_EQ(std::memcmp(text[0].tszValue, expected, sizeof(expected)), 0);
    for (size_t i = 5; i < sizeof(text[0].tszValue); i++) ASSERT_EQ(text[0].tszValue[i], 0);
}

TEST(PropertyBlock, DecoderSwapsAnyValueItGaveWidthTwoOrFour)
{
    // An unknown identifier whose rest of block is exactly two or four bytes is converted like an
    // integer, so that building the record again gives back the same bytes.
    for (const Bytes& block : {Bytes{0x03, 0x7E, 0x12, 0x34}, Bytes{0x05, 0x1F, 0x12, 0x34, 0x56, 0x78}}) {
        DecodedProperties decoded;
        DecodeBlock(block, decoded);
        ASSERT_EQ(decoded.count, 1);
        if (decoded[0].nPropertyLen == 2) {
            EXPECT_EQ(decoded[0].wValue, 0x1234);
        } else {
            EXPECT_EQ(decoded[0].dwValue, 0x12345678u);
        }

        PropertyList rebuilt;
        rebuilt.records.push_back(decoded[0]);
        EXPECT_EQ(BuildBlock(rebuilt, 1), block);
    }
}

TEST(PropertyBlock, DirectCallWithEmptyBlockStillDecodesOneProperty)
{
    const char bytes[8] = {0x1F};
    DecodedProperties decoded;
    ASSERT_TRUE(m_Parse.MQTTProtocol_Parse_Property(bytes, 0, &decoded.list, &decoded.count));
    ASSERT_EQ(decoded.count, 1);
    EXPECT_EQ(decoded[0].byPropertyID, 0x1F);
    EXPECT_EQ(decoded[0].nPropertyLen, -1);
    EXPECT_FALSE(MQTTProtocol_IsErrorOccur);
}

TEST(PropertyBlock, LongRestOfBlockValueIsBoundedToTheRecord)
{
    std::vector<char> bytes(400, 'z');
    bytes[0] = 0x26;
    DecodedProperties decoded;
    ASSERT_TRUE(m_Parse.MQTTProtocol_Parse_Property(bytes.data(), 399, &decoded.list, &decoded.count));
    ASSERT_EQ(decoded.count, 1);
    EXPECT_EQ(decoded[0].nPropertyLen, 398);
    EXPECT_EQ(decoded[0].tszValue[259], 'z');
}

TEST(PropertyBlock, RoundTripsEveryWidth)
{
    PropertyList list;
    list.Integer(0x01, 1, 1)
        .Integer(0x02, 4, 0xDEADBEEF)
        .Integer(0x21, 2, 65535)
        .Integer(0x11, 4, 0)
        .String(0x1F, "reason: all good");  // a rest-of-block value only ever stands last
    const PropertyList original = list;
    const Bytes block = BuildBlock(list, list.Count());
    DecodedProperties decoded;
    DecodeBlock(block, decoded);
    ASSERT_EQ(decoded.count, original.Count());
    for (int i = 0; i < decoded.count; i++) {
        const auto& want = original.records[static_cast<size_t>(i)];
        EXPECT_EQ(decoded[i].byPropertyID, want.byPropertyID);
        EXPECT_EQ(decoded[i].nPropertyLen, want.nPropertyLen);
        EXPECT_EQ(std::memcmp(decoded[i].tszValue, want.tszValue, sizeof(want.tszValue)), 0) << i;
    }
}

TEST(PropertyBlock, NullOutputsFailWithThePacketCode)
{
    PropertyList none;
    int length = 0;
    char out[4];
    EXPECT_FALSE(m_Packet.MQTTProtocol_Packet_Property(nullptr, &length, none.Get(), 0));
    EXPECT_EQ(MQTTProtocol_GetLastError(nullptr), MQTTPROTOCOL_ERR_PACKET_ARGUMENT);
    EXPECT_FALSE(m_Packet.MQTTProtocol_Packet_Property(out, nullptr, none.Get(), 0));
    EXPECT_TRUE(MQTTProtocol_IsErrorOccur);
    EXPECT_EQ(length, 0);
}

}  // namespace
