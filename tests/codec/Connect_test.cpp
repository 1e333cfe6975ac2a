// The session's opening: CONNECT and CONNACK.
#include "codec/CodecSupport.h"

using namespace mqtttest;

namespace {

// Protocol name, its length and the level, as the builder stamps them into every CONNECT.
const Bytes kStamped{0x00, 0x04, 'M', 'Q', 'T', 'T', 0x05};

// 60 seconds as the caller stores it for the builder, in network order: the bytes 0x00 0x3C on this
// little-endian host.
constexpr uint16_t kKeepAlive60 = 0x3C00;

Bytes BuildConnect(MQTTPROTOCOL_HDRCONNNECT& header, const char* clientID, PropertyList properties = {},
                   const char* user = nullptr, const char* pass = nullptr)
{
    return Built([&](char* out, int* length) {
        return MQTTProtocol_Packet_REQConnect(out, length, &header, clientID, properties.Get(), properties.Count(),
                                              user, pass);
    });
}

// What a 260-byte field of the user record holds after a text was copied into it, or none (null).
std::string Field(const char* text)
{
    const std::string copied = text == nullptr ? "" : text;
    return copied + std::string(260 - copied.size(), kUnsetText);
}

// User name and password are read back where their flags are set, as given: no will fields are
// written and none are skipped, so the decoder reads a will's fields in their places.
struct ConnectRow
{
    const char* name;
    uint8_t connFlags;
    const char* clientID;
    const char* user;
    const char* pass;
    PropertyList properties;
    Bytes body;
};

// clang-format off
const ConnectRow kConnects[] = {
    {"16-byte body", 0x02, "abc", nullptr, nullptr, {},
     Concat({kStamped, {0x02, 0x00, 0x3C, 0x00, 0x00, 0x03, 'a', 'b', 'c'}})},
    {"22-byte body", 0xC2, "abc", "u", "p", {},
     Concat({kStamped, {0xC2, 0x00, 0x3C, 0x00, 0x00, 0x03, 'a', 'b', 'c', 0x00, 0x01, 'u', 0x00, 0x01, 'p'}})},
    {"empty client identifier, password without user name", 0x40, "", "not sent", "p", {},
     Concat({kStamped, {0x40, 0x00, 0x3C, 0x00, 0x00, 0x00, 0x00, 0x01, 'p'}})},
    {"will flag", 0xC6, "c", "t", "w", {},
     Concat({kStamped, {0xC6, 0x00, 0x3C, 0x00, 0x00, 0x01, 'c', 0x00, 0x01, 't', 0x00, 0x01, 'w'}})},
    {"properties between header and identifier", 0x02, "abc", nullptr, nullptr,
     PropertyList().Integer(0x11, 4, 120).Integer(0x21, 2, 10).Integer(0x17, 1, 1).String(0x15, "tok"),
     Concat({kStamped,
             {0x02, 0x00, 0x3C, 0x10, 0x11, 0x00, 0x00, 0x00, 0x78, 0x21, 0x00, 0x0A, 0x17, 0x01},
             {0x15, 0x00, 0x03, 't', 'o', 'k', 0x00, 0x03, 'a', 'b', 'c'}})},
};
// clang-format on

TEST(Connect, BuildsAndDecodesGoldenBodies)
{
    for (const auto& row : kConnects) {
        SCOPED_TRACE(row.name);
        MQTTPROTOCOL_HDRCONNNECT header{0, 0, {}, 0, row.connFlags, kKeepAlive60};
        EXPECT_EQ(BuildConnect(header, row.clientID, row.properties, row.user, row.pass), row.body);

        const auto decoded = Decoded(kConnect, row.body);
        ASSERT_TRUE(decoded.result);
        const MQTTPROTOCOL_HDRCONNNECT expectedHeader{0, 4, {'M', 'Q', 'T', 'T'}, 5, row.connFlags, 60};
        EXPECT_TRUE(SameBytes(decoded.connect, expectedHeader));
        EXPECT_EQ(std::string(decoded.user.tszClientID, 260), Field(row.clientID));
        EXPECT_EQ(std::string(decoded.user.tszClientUser, 260), Field((row.connFlags & 0x80) ? row.user : nullptr));
        EXPECT_EQ(std::string(decoded.user.tszClientPass, 260), Field((row.connFlags & 0x40) ? row.pass : nullptr));
        ExpectProperties(decoded, row.properties);
    }
}

TEST(Connect, BuilderStampsTheCallersRecordAndSendsTheKeepAliveAsStoredWhileTheDecoderConverts)
{
    MQTTPROTOCOL_HDRCONNNECT header{0x01, 9, {'M', 'Q', 'I', 's'}, 4, 0x02, kKeepAlive60};  // 0x01: the caller's, kept
    const Bytes body = BuildConnect(header, "");
    EXPECT_EQ(Bytes(body.begin(), body.begin() + 10), (Bytes{0x01, 0x04, 'M', 'Q', 'T', 'T', 0x05, 0x02, 0x00, 0x3C}));
    EXPECT_EQ(std::memcmp(&header, body.data(), 10), 0) << "the record is stamped, its keep-alive left as it was";

    // Decoded into host order, 60 goes out as 0x3C 0x00 when the record is built again: 15,360.
    MQTTPROTOCOL_HDRCONNNECT decoded = Decoded(kConnect, body).connect;
    EXPECT_EQ(decoded.wKeepAlive, 60);
    EXPECT_EQ(Decoded(kConnect, BuildConnect(decoded, "")).connect.wKeepAlive, 15360);
}

// The client identifier's length goes out cut to 16 bits but all its bytes follow; user name and
// password go out as many bytes as their cut length says.
TEST(Connect, StringsOf65536BytesOrMoreGoOutWithTheirLengthCut)
{
    const std::string overlong(65537, 'x');
    MQTTPROTOCOL_HDRCONNNECT header{0, 0, {}, 0, 0xC0, kKeepAlive60};
    EXPECT_EQ(BuildConnect(header, overlong.c_str(), {}, overlong.c_str(), overlong.c_str()),
              Concat({kStamped,
                      {0xC0, 0x00, 0x3C, 0x00, 0x00, 0x01},
                      Bytes(overlong.begin(), overlong.end()),
                      {0x00, 0x01, 'x', 0x00, 0x01, 'x'}}));
}

// CONNACK's acknowledge flags go out as given; its decoder drops them.
TEST(Connack, BuildsAndDecodesGoldenBodies)
{
    const struct
    {
        uint8_t reasonCode;
        PropertyList properties;
        Bytes body;
    } rows[] = {
        {0x00, {}, {0x01, 0x00, 0x00}},
        {0x9F,
         PropertyList().Integer(0x24, 1, 1).Integer(0x27, 4, 4096).String(0x1F, "not"),
         {0x01, 0x9F, 0x0D, 0x24, 0x01, 0x27, 0x00, 0x00, 0x10, 0x00, 0x1F, 0x00, 0x03, 'n', 'o', 't'}},
    };
    for (const auto& row : rows) {
        PropertyList properties = row.properties;
        EXPECT_EQ(Built([&](char* out, int* length) {
                      return MQTTProtocol_Packet_REPConnect(out, length, 0x01, row.reasonCode, properties.Get(),
                                                            properties.Count());
                  }),
                  row.body);
        const auto decoded = Decoded(kConnack, row.body);
        ASSERT_TRUE(decoded.result);
        EXPECT_EQ(decoded.reasonCode, row.reasonCode);
        ExpectProperties(decoded, row.properties);
    }
}

}  // namespace
