#include "TestSupport.h"

using mqtttest::AsChars;
using mqtttest::Bytes;

namespace {

// Every boundary of the variable-length encoding, and the encoder's values beyond the decoder's
// range: no upper bound (a fifth byte), and a negative value as one byte.
const struct
{
    int value;
    Bytes encoded;
} kLengths[] = {
    {0, {0x00}},
    {127, {0x7F}},
    {128, {0x80, 0x01}},
    {16383, {0xFF, 0x7F}},
    {16384, {0x80, 0x80, 0x01}},
    {2097151, {0xFF, 0xFF, 0x7F}},
    {2097152, {0x80, 0x80, 0x80, 0x01}},
    {268435455, {0xFF, 0xFF, 0xFF, 0x7F}},
    {268435456, {0x80, 0x80, 0x80, 0x80, 0x01}},
    {-1, {0xFF}},
};

// Inputs the decoder refuses (incomplete, or a fifth byte) and what a refusal leaves behind are the
// checks of the property_length fuzz harness, replayed from its corpus in every build.
TEST(RemainingLength, EncodesEveryBoundaryAndDecodesUpToFourBytes)
{
    for (const auto& row : kLengths) {
        SCOPED_TRACE(row.value);
        unsigned char out[8] = {};
        unsigned char count = 0;
        MQTTProtocol_IsErrorOccur = true;
        EXPECT_TRUE(m_Packet.MQTTProtocol_Packet_Length(row.value, out, &count));
        EXPECT_TRUE(MQTTProtocol_IsErrorOccur) << "the encoder leaves the error state alone";
        EXPECT_EQ(Bytes(out, out + count), row.encoded);
        if (row.value < 0 || count > 4) continue;  // beyond what the decoder reads

        int decoded = -1;
        int position = 1;  // as the framing presets it: afterwards it is the fixed header's size
        EXPECT_TRUE(m_Parse.MQTTProtocol_Parse_Length(AsChars(row.encoded), count, &decoded, &position));
        EXPECT_FALSE(MQTTProtocol_IsErrorOccur);
        EXPECT_EQ(decoded, row.value);
        EXPECT_EQ(position, 1 + count);
    }
}

TEST(PacketHeader, WrapsABodyInAFixedHeader)
{
    const struct
    {
        unsigned char type;
        unsigned char flags;
        int bodyLen;
        Bytes header;  // byte 0 and the remaining length; the body follows
    } rows[] = {
        {12, 0, 0, {0xC0, 0x00}},                    // PINGREQ: two bytes
        {8, 2, 128, {0x82, 0x80, 0x01}},             // SUBSCRIBE
        {3, 0x0B, 16384, {0x3B, 0x80, 0x80, 0x01}},  // flags are not checked against the type
        {0x1C, 0x52, 1, {0xC2, 0x01}},               // only the low four bits of each are used
        {3, 0, -1, {0x30, 0xFF}},                    // a negative length: one length byte, no body
    };
    for (const auto& row : rows) {
        Bytes body(static_cast<size_t>(std::max(row.bodyLen, 0)));
        for (size_t i = 0; i < body.size(); i++) body[i] = static_cast<uint8_t>(i * 7 + 1);
        // Built presets the length to -1: the header sets it, and nothing is written past the packet.
        const Bytes packet = mqtttest::Built([&](char* out, int* length) {
            return MQTTProtocol_Packet_Header(out, length, row.type, AsChars(body), row.bodyLen, row.flags);
        });
        EXPECT_EQ(packet, mqtttest::Concat({row.header, body}));
    }
}

}  // namespace
