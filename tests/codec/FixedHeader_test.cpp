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

// value -1: refused with 0x070B1004, both outputs left as they were.
void ExpectDecoded(const Bytes& bytes, int available, int value, int consumed)
{
    SCOPED_TRACE(::testing::PrintToString(bytes));
    int decoded = 1234;
    int position = 1;  // as the framing presets it: afterwards it is the fixed header's size
    EXPECT_EQ(m_Parse.MQTTProtocol_Parse_Length(AsChars(bytes), available, &decoded, &position), value >= 0);
    EXPECT_EQ(MQTTProtocol_IsErrorOccur, value < 0);
    EXPECT_EQ(MQTTProtocol_dwErrorCode, value < 0 ? MQTTPROTOCOL_ERR_PARSE_LENGTH : 0u);
    EXPECT_EQ(decoded, value < 0 ? 1234 : value);
    EXPECT_EQ(position, 1 + consumed);
}

TEST(RemainingLength, EncodesEveryBoundaryAndDecodesUpToFourBytes)
{
    for (const auto& row : kLengths) {
        unsigned char out[8] = {};
        unsigned char count = 0;
        MQTTProtocol_IsErrorOccur = true;
        EXPECT_TRUE(m_Packet.MQTTProtocol_Packet_Length(row.value, out, &count));
        EXPECT_TRUE(MQTTProtocol_IsErrorOccur) << "the encoder leaves the error state alone";
        EXPECT_EQ(Bytes(out, out + count), row.encoded) << row.value;

        MQTTProtocol_dwErrorCode = 0;
        const int size = static_cast<int>(row.encoded.size());
        if (row.value >= 0 && size <= 4) ExpectDecoded(row.encoded, size, row.value, size);
    }
    ExpectDecoded({0x00}, 0, -1, 0);  // incomplete and malformed share one code
    ExpectDecoded({0x80}, 1, -1, 0);
    ExpectDecoded({0x80, 0x80, 0x80, 0x80, 0x01}, 5, -1, 0);
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
        Bytes out(body.size() + 8, 0xEE);
        int outLen = 100;  // set, not added to
        ASSERT_TRUE(MQTTProtocol_Packet_Header(reinterpret_cast<char*>(out.data()), &outLen, row.type, AsChars(body),
                                               row.bodyLen, row.flags));
        const Bytes expected = mqtttest::Concat({row.header, body});
        ASSERT_EQ(outLen, static_cast<int>(expected.size()));
        EXPECT_EQ(Bytes(out.begin(), out.begin() + outLen), expected);
        EXPECT_EQ(out[static_cast<size_t>(outLen)], 0xEE) << "nothing written past the packet";
    }
}

}  // namespace
