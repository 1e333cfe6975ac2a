#include "codec/CodecSupport.h"

#include <algorithm>

using mqttdecode::kFixedWidths;
using mqtttest::Bytes;
using mqtttest::PropertyList;

namespace {

// Builds into a buffer of 0xEE bytes with a running length of 10, which must grow by the block's size.
Bytes BuildBlock(PropertyList& list, int count)
{
    char out[512];
    std::memset(out, 0xEE, sizeof(out));
    int length = 10;
    EXPECT_TRUE(m_Packet.MQTTProtocol_Packet_Property(out, &length, list.Get(), count));
    EXPECT_EQ(static_cast<uint8_t>(out[length - 10]), 0xEE) << "written behind the block";
    return mqtttest::ToBytes(out, length - 10);
}

TEST(PropertyBlock, BuildsGoldenBlocks)
{
    const struct
    {
        const char* name;
        PropertyList list;
        int count;
        Bytes block;
    } rows[] = {
        {"no properties", {}, 0, {0x00}},
        {"negative count", PropertyList().Integer(0x24, 1, 1), -1, {0x00}},
        {"the width is the record's, not the identifier's",
         PropertyList().Integer(0x11, 2, 0x0102).Integer(0x26, 1, 0x7F).Raw(0x02, {0xAA, 0xBB, 0xCC}).Raw(0x1F, {}),
         4,
         {0x0A, 0x11, 0x01, 0x02, 0x26, 0x7F, 0x02, 0xAA, 0xBB, 0xCC, 0x1F}},
        {"a negative width writes the identifier alone",
         PropertyList().Integer(0x09, -5, 0).Integer(0x24, 1, 2),
         2,
         {0x03, 0x09, 0x24, 0x02}},
        // Only this library's decoders read such a block: the standard would need two length bytes.
        {"a block of 200 bytes keeps one length byte", PropertyList().Raw(0x26, Bytes(199, 'x')), 1,
         mqtttest::Concat({{0xC8, 0x26}, Bytes(199, 'x')})},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        PropertyList list = row.list;
        EXPECT_EQ(BuildBlock(list, row.count), row.block);
    }
}

TEST(PropertyBlock, SwapsTheCallersValuesInPlaceSoAReusedListGoesOutReversed)
{
    PropertyList list = PropertyList().Integer(0x21, 2, 10).Integer(0x27, 4, 4096);
    EXPECT_EQ(BuildBlock(list, 2), (Bytes{0x08, 0x21, 0x00, 0x0A, 0x27, 0x00, 0x00, 0x10, 0x00}));
    EXPECT_EQ(list.records[0].wValue, 0x0A00);
    EXPECT_EQ(list.records[1].dwValue, 0x00100000u);
    EXPECT_EQ(BuildBlock(list, 2), (Bytes{0x08, 0x21, 0x0A, 0x00, 0x27, 0x00, 0x10, 0x00, 0x00}));
}

// A raw width beyond tszValue goes out padded with zeros, never read from past the record. (The
// decoder's cut at tszValue: the decoder harness's long blocks.)
TEST(PropertyBlock, BuilderNeverCopiesPastTheValueArea)
{
    PropertyList wide = PropertyList().Raw(0x09, Bytes(300, 'v'));
    char out[600];
    std::memset(out, 0xEE, sizeof(out));
    int length = 0;
    ASSERT_TRUE(m_Packet.MQTTProtocol_Packet_Property(out, &length, wide.Get(), 1));
    EXPECT_EQ(mqtttest::ToBytes(out + 2, 301), mqtttest::Concat({Bytes(260, 'v'), Bytes(40, 0), {0xEE}}));
}

// Decodes a block given with its length byte, its contents at the start of a received body.
void ExpectDecoded(const Bytes& block, const PropertyList& expected)
{
    SCOPED_TRACE(::testing::PrintToString(block));
    const auto decoded = mqtttest::Decoded(mqttdecode::kPropertyBlock, Bytes(block.begin() + 1, block.end()), block[0]);
    ASSERT_TRUE(decoded.result);
    mqtttest::ExpectProperties(decoded, expected);
}

TEST(PropertyBlock, DecodesEveryIdentifierWithItsWidthInHostOrder)
{
    for (int id = 0; id < 256; id++) {
        const auto fixed = std::find_if(std::begin(kFixedWidths), std::end(kFixedWidths),
                                        [id](const auto& entry) { return entry.first == id; });
        const int width = fixed == std::end(kFixedWidths) ? 3 : fixed->second;
        Bytes block{static_cast<uint8_t>(1 + width), static_cast<uint8_t>(id), 0x12, 0x34, 0x56, 0x78};
        block.resize(static_cast<size_t>(2 + width));
        PropertyList expected;
        if (width == 3)
            expected.Raw(static_cast<uint8_t>(id), {0x12, 0x34, 0x56});
        else
            expected.Integer(static_cast<uint8_t>(id), width, width == 1 ? 0x12 : width == 2 ? 0x1234 : 0x12345678);
        ExpectDecoded(block, expected);
    }
}

TEST(PropertyBlock, DecodesGoldenBlocks)
{
    // A rest-of-block value swallows the properties behind it.
    ExpectDecoded({0x08, 0x26, 0x00, 0x01, 'k', 0x00, 0x00, 0x01, 0x01},
                  PropertyList().Raw(0x26, {0x00, 0x01, 'k', 0x00, 0x00, 0x01, 0x01}));
    ExpectDecoded({0x03, 0x24, 0x01, 0x08}, PropertyList().Integer(0x24, 1, 1).Raw(0x08, {}));
    // A rest of exactly two bytes is converted like an integer, so that building it again gives them back.
    ExpectDecoded({0x03, 0x7E, 0x12, 0x34}, PropertyList().Integer(0x7E, 2, 0x1234));
    ExpectDecoded({0x01, 0x21, 0xAB, 0xCD}, PropertyList().Integer(0x21, 2, 0xABCD));  // read past a short block
    ExpectDecoded(mqtttest::Concat({{0xC8, 0x26}, Bytes(199, 'x')}), PropertyList().Raw(0x26, Bytes(199, 'x')));
    // The loop test comes after the first property: an empty block still yields one.
    ExpectDecoded({0x00, 0x1F}, PropertyList().Integer(0x1F, -1, 0));
}

}  // namespace
