#include "TestSupport.h"

#include <memory>
#include <optional>

using namespace mqtttest;

namespace {

// Protocol name, its length and the level, as the builder stamps them into every CONNECT.
const Bytes kStamped{0x00, 0x04, 'M', 'Q', 'T', 'T', 0x05};
// 60 seconds as the caller stores it for the builder: already in network order.
const Bytes kKeepAlive60{0x00, 0x3C};

MQTTPROTOCOL_HDRCONNNECT HeaderRecord(uint8_t connFlags, const Bytes& keepAliveInMemory = kKeepAlive60)
{
    MQTTPROTOCOL_HDRCONNNECT header{};
    header.byConnFlags = connFlags;
    std::memcpy(&header.wKeepAlive, keepAliveInMemory.data(), sizeof(header.wKeepAlive));
    return header;
}

Bytes BuildConnect(MQTTPROTOCOL_HDRCONNNECT& header, const char* clientID, PropertyList properties = {},
                   const char* user = nullptr, const char* pass = nullptr)
{
    return Built([&](char* out, int* length) {
        return MQTTProtocol_Packet_REQConnect(out, length, &header, clientID, properties.Get(), properties.Count(), user,
                                              pass);
    });
}

// 65,537 bytes: a 16-bit length prefix says 1.
const std::string kOverlong(65537, 'x');

struct ConnectBuildVector
{
    const char* name;
    uint8_t connFlags;
    const char* clientID;
    const char* user;
    const char* pass;
    PropertyList properties;
    Bytes expected;
};

const ConnectBuildVector kConnectBuilds[] = {
    {"16-byte body", 0x02, "abc", nullptr, nullptr, {},
     Concat(kStamped, {0x02, 0x00, 0x3C, 0x00, 0x00, 0x03, 'a', 'b', 'c'})},
    {"22-byte body", 0xC2, "abc", "u", "p", {},
     Concat(kStamped, {0xC2, 0x00, 0x3C, 0x00, 0x00, 0x03, 'a', 'b', 'c', 0x00, 0x01, 'u', 0x00, 0x01, 'p'})},
    {"empty client identifier", 0x02, "", nullptr, nullptr, {}, Concat(kStamped, {0x02, 0x00, 0x3C, 0x00, 0x00, 0x00})},
    {"password without user name", 0x40, "abc", "not sent", "p", {},
     Concat(kStamped, {0x40, 0x00, 0x3C, 0x00, 0x00, 0x03, 'a', 'b', 'c', 0x00, 0x01, 'p'})},
    {"empty user name and password", 0xC0, "c", "", "", {},
     Concat(kStamped, {0xC0, 0x00, 0x3C, 0x00, 0x00, 0x01, 'c', 0x00, 0x00, 0x00, 0x00})},
    {"will flag writes no will fields", 0x06, "abc", nullptr, nullptr, {},
     Concat(kStamped, {0x06, 0x00, 0x3C, 0x00, 0x00, 0x03, 'a', 'b', 'c'})},
    {"properties between header and identifier", 0x02, "abc", nullptr, nullptr,
     PropertyList().Integer(0x11, 4, 120).Integer(0x21, 2, 10),
     Concat(kStamped, {0x02, 0x00, 0x3C, 0x08, 0x11, 0x00, 0x00, 0x00, 0x78, 0x21, 0x00, 0x0A, 0x00, 0x03, 'a', 'b', 'c'})},
    // The client identifier's prefix is cut but all its bytes go out; user name and password are cut.
    {"strings beyond 65,535 bytes", 0xC0, kOverlong.c_str(), kOverlong.c_str(), kOverlong.c_str(), {},
     Concat(Concat(Concat(kStamped, {0xC0, 0x00, 0x3C, 0x00, 0x00, 0x01}), Bytes(kOverlong.begin(), kOverlong.end())),
            {0x00, 0x01, 'x', 0x00, 0x01, 'x'})},
};

TEST(Connect, BuildsGoldenBodies)
{
    for (const auto& vector : kConnectBuilds) {
        SCOPED_TRACE(vector.name);
        MQTTPROTOCOL_HDRCONNNECT header = HeaderRecord(vector.connFlags);
        EXPECT_EQ(BuildConnect(header, vector.clientID, vector.properties, vector.user, vector.pass), vector.expected);
    }
}

TEST(Connect, BuilderStampsProtocolIntoTheCallersRecordAndKeepsTheRest)
{
    MQTTPROTOCOL_HDRCONNNECT header = HeaderRecord(0x02, {0x01, 0x2C});
    header.byNameLenMSB = 0x01;
    header.byNameLenLSB = 9;
    std::memcpy(header.tszProtocol, "MQIs", 4);
    header.byVersion = 4;
    const Bytes body = BuildConnect(header, "");
    EXPECT_EQ(Bytes(body.begin(), body.begin() + 10), (Bytes{0x01, 0x04, 'M', 'Q', 'T', 'T', 0x05, 0x02, 0x01, 0x2C}));
    EXPECT_EQ(header.byNameLenMSB, 0x01) << "the high length byte stays the caller's";
    EXPECT_EQ(header.byNameLenLSB, 4);
    EXPECT_EQ(std::memcmp(header.tszProtocol, "MQTT", 4), 0);
    EXPECT_EQ(header.byVersion, 5);
    EXPECT_EQ(header.wKeepAlive, HeaderRecord(0, {0x01, 0x2C}).wKeepAlive) << "keep-alive is not converted";
}

struct ConnectDecodeVector
{
    const char* name;
    Bytes body;
    uint8_t connFlags;
    uint16_t keepAlive;  // host order
    std::string clientID;
    std::optional<std::string> user;  // nullopt: the field is left as it was
    std::optional<std::string> pass;
    PropertySummary properties;
};

const ConnectDecodeVector kConnectDecodes[] = {
    {"16-byte body", kConnectBuilds[0].expected, 0x02, 60, "abc", {}, {}, {}},
    {"22-byte body", kConnectBuilds[1].expected, 0xC2, 60, "abc", "u", "p", {}},
    {"password without user name", kConnectBuilds[3].expected, 0x40, 60, "abc", {}, "p", {}},
    {"properties", kConnectBuilds[6].expected, 0x02, 60, "abc", {}, {}, {{0x11, 120}, {0x21, 10}}},
    {"keep-alive of 300", Concat(kStamped, {0x02, 0x01, 0x2C, 0x00, 0x00, 0x01, 'x'}), 0x02, 300, "x", {}, {}, {}},
    // No will fields are skipped: a will topic and payload stand where user name and password are read.
    {"will read as user name and password",
     Concat(kStamped, {0xC6, 0x00, 0x3C, 0x00, 0x00, 0x01, 'c', 0x00, 0x01, 't', 0x00, 0x01, 'w', 0x00, 0x01, 'u'}),
     0xC6, 60, "c", "t", "w", {}},
};

// Outputs start as a pattern, so that both absent fields and missing terminators show.
MQTTPROTOCOL_USERINFO PatternedUserInfo()
{
    MQTTPROTOCOL_USERINFO info;
    std::memset(&info, '#', sizeof(info));
    return info;
}

void CopyInto(char* field, const std::optional<std::string>& text)
{
    if (text) std::memcpy(field, text->data(), text->size());
}

TEST(Connect, DecodesGoldenBodies)
{
    for (const auto& vector : kConnectDecodes) {
        SCOPED_TRACE(vector.name);
        const ReceivedBody body(vector.body);
        MQTTPROTOCOL_HDRCONNNECT header{};
        MQTTPROTOCOL_USERINFO info = PatternedUserInfo();
        DecodedProperties properties;
        ASSERT_TRUE(MQTTProtocol_Parse_Connect(body.Data(), static_cast<int>(vector.body.size()), &header, &info,
                                               &properties.list, &properties.count));
        const MQTTPROTOCOL_HDRCONNNECT expectedHeader{0, 4, {'M', 'Q', 'T', 'T'}, 5, vector.connFlags, vector.keepAlive};
        EXPECT_EQ(std::memcmp(&header, &expectedHeader, sizeof(header)), 0);
        MQTTPROTOCOL_USERINFO expectedInfo = PatternedUserInfo();
        CopyInto(expectedInfo.tszClientID, vector.clientID);
        CopyInto(expectedInfo.tszClientUser, vector.user);
        CopyInto(expectedInfo.tszClientPass, vector.pass);
        EXPECT_EQ(std::memcmp(&info, &expectedInfo, sizeof(info)), 0);
        EXPECT_EQ(properties.Summary(), vector.properties);
    }
}

TEST(Connect, DecodedKeepAliveIsHostOrderSoReencodingSendsItSwapped)
{
    const ReceivedBody body(kConnectBuilds[0].expected);
    MQTTPROTOCOL_HDRCONNNECT header{};
    MQTTPROTOCOL_USERINFO info{};
    DecodedProperties properties;
    ASSERT_TRUE(m_Parse.MQTTProtocol_Parse_Connect(body.Data(), 16, &header, &info, &properties.list, &properties.count));
    EXPECT_EQ(header.wKeepAlive, 60);
    EXPECT_EQ(properties.list, nullptr);

    const ReceivedBody again(BuildConnect(header, info.tszClientID));
    ASSERT_TRUE(m_Parse.MQTTProtocol_Parse_Connect(again.Data(), 16, &header, &info, &properties.list, &properties.count));
    EXPECT_EQ(header.wKeepAlive, 15360);
}

TEST(Connect, OtherProtocolLevelFailsAfterFillingTheHeaderRecord)
{
    Bytes level4 = kConnectBuilds[1].expected;
    level4[6] = 4;
    const ReceivedBody body(level4);
    MQTTPROTOCOL_HDRCONNNECT header{};
    MQTTPROTOCOL_USERINFO info = PatternedUserInfo();
    DecodedProperties properties;
    EXPECT_FALSE(MQTTProtocol_Parse_Connect(body.Data(), 22, &header, &info, &properties.list, &properties.count));
    EXPECT_TRUE(MQTTProtocol_IsErrorOccur);
    EXPECT_EQ(MQTTProtocol_GetLastError(nullptr), MQTTPROTOCOL_ERR_PARSE_VERSION);
    EXPECT_EQ(header.byVersion, 4);
    EXPECT_EQ(header.byConnFlags, 0xC2);
    EXPECT_EQ(header.wKeepAlive, 60);
    const MQTTPROTOCOL_USERINFO untouched = PatternedUserInfo();
    EXPECT_EQ(std::memcmp(&info, &untouched, sizeof(info)), 0);
    EXPECT_EQ(properties.list, nullptr);
}

// A user record between guard bytes, on the heap so that AddressSanitizer watches its edges too.
struct GuardedUserInfo
{
    unsigned char before[64];
    MQTTPROTOCOL_USERINFO info;
    unsigned char after[64];
};

Bytes PrefixedField(size_t length, char fill)
{
    Bytes field{static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length & 0xFF)};
    field.insert(field.end(), length, static_cast<uint8_t>(fill));
    return field;
}

TEST(Connect, HostileLengthsNeverWriteOutsideTheUserRecord)
{
    const Bytes head = Concat(kStamped, {0xC0, 0x00, 0x3C, 0x00});
    const struct
    {
        const char* name;
        Bytes body;
        std::string user;
        std::string pass;
    } hostile[] = {
        {"client identifier of 65,535 bytes",
         Concat(Concat(head, PrefixedField(65535, 'c')), {0x00, 0x03, 'u', 's', 'r', 0x00, 0x02, 'p', 'w'}), "usr", "pw"},
        {"every field of 65,535 bytes",
         Concat(Concat(Concat(head, PrefixedField(65535, 'c')), PrefixedField(65535, 'u')), PrefixedField(65535, 'p')),
         std::string(260, 'u'), std::string(260, 'p')},
    };
    for (const auto& input : hostile) {
        SCOPED_TRACE(input.name);
        const ReceivedBody body(input.body);
        auto guarded = std::make_unique<GuardedUserInfo>();
        std::memset(guarded.get(), 0xA5, sizeof(*guarded));
        std::memset(&guarded->info, 0, sizeof(guarded->info));
        MQTTPROTOCOL_HDRCONNNECT header{};
        DecodedProperties properties;
        ASSERT_TRUE(MQTTProtocol_Parse_Connect(body.Data(), static_cast<int>(input.body.size()), &header, &guarded->info,
                                               &properties.list, &properties.count));
        EXPECT_EQ(std::string(guarded->info.tszClientID, 260), std::string(260, 'c'));
        EXPECT_EQ(std::string(guarded->info.tszClientUser, input.user.size()), input.user);
        EXPECT_EQ(std::string(guarded->info.tszClientPass, input.pass.size()), input.pass);
        EXPECT_EQ(Bytes(guarded->before, guarded->before + 64), Bytes(64, 0xA5));
        EXPECT_EQ(Bytes(guarded->after, guarded->after + 64), Bytes(64, 0xA5));
    }
}

struct ConnackVector
{
    uint8_t ackFlags;
    uint8_t reasonCode;
    PropertyList properties;
    Bytes body;
    PropertySummary decodedProperties;
};

const ConnackVector kConnacks[] = {
    {0x01, 0x00, {}, {0x01, 0x00, 0x00}, {}},
    {0x00, 0x86, PropertyList().Integer(0x21, 2, 10), {0x00, 0x86, 0x03, 0x21, 0x00, 0x0A}, {{0x21, 10}}},
    {0xFF, 0x9F, PropertyList().Integer(0x24, 1, 1).Integer(0x27, 4, 4096),
     {0xFF, 0x9F, 0x07, 0x24, 0x01, 0x27, 0x00, 0x00, 0x10, 0x00}, {{0x24, 1}, {0x27, 4096}}},
};

TEST(Connack, BuildsAndDecodesGoldenBodies)
{
    for (const auto& vector : kConnacks) {
        PropertyList properties = vector.properties;
        EXPECT_EQ(Built([&](char* out, int* length) {
                      return MQTTProtocol_Packet_REPConnect(out, length, vector.ackFlags, vector.reasonCode,
                                                            properties.Get(), properties.Count());
                  }),
                  vector.body);

        // The acknowledge flags are dropped.
        ExpectReasonAndProperties(MQTTProtocol_Parse_Connack, vector.body, vector.reasonCode, vector.decodedProperties);
    }
}

}  // namespace
