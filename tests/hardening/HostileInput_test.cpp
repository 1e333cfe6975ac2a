// Input classes behind the published parser vulnerabilities of other MQTT implementations: nothing is
// read or written outside what the library was given or allocated. Length fields that run past a
// body are the decoder harness's (fuzz/fuzz_decoders.cpp), which reads each body in both body modes.
#include "reassembly/ReceiveSupport.h"

#include <climits>

namespace {

using mqtttest::Bytes;

class HostileInput : public mqtttest::ReceiveTest
{
protected:
    mqtttest::Session m_Session{"hostile"};
};

TEST_F(HostileInput, LargestRemainingLengthIsRefusedBeforeAnythingIsQueued)
{
    EXPECT_FALSE(m_Session.Send({0x10, 0xFF, 0xFF, 0xFF, 0x7F}));
    EXPECT_EQ(MQTTProtocol_GetLastError(nullptr), MQTTPROTOCOL_ERR_PARSE_LENGTH);
    EXPECT_FALSE(mqtttest::Take(m_Session.c_str()).ok);
    EXPECT_EQ(MQTTProtocol_GetLastError(nullptr), MQTTPROTOCOL_ERR_PARSE_EMPTY) << "no partial packet waits either";
}

// A piece that, behind the bytes of a fixed header still incomplete, would make the input count more
// bytes than an int holds: refused before a byte of it is read (the size alone reaches the check, so
// a small buffer stands in for 2 GiB), and the stream goes on aligned.
TEST_F(HostileInput, APieceThatWouldCountPastIntMaxIsRefusedUnread)
{
    const char standIn[4] = {};
    ASSERT_TRUE(m_Session.Send({0x30}));
    EXPECT_TRUE(MQTTProtocol_Parse_Send(m_Session.c_str(), standIn, INT_MAX)) << "bytes were waiting";
    EXPECT_TRUE(MQTTProtocol_IsErrorOccur);
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_LENGTH);
    EXPECT_EQ(mqtttest::ReadyCount(m_Session.address, kPoolCount), 0);
    ASSERT_TRUE(m_Session.Send(mqtttest::Wire(0x30, {0x00, 0x01, 'a', 'x'})));
    EXPECT_EQ(mqtttest::Take(m_Session.c_str()).body, Bytes({0x00, 0x01, 'a', 'x'}));
}

TEST_F(HostileInput, ConnectWhoseThreeStringsClaim65535BytesStaysInsideTheUserRecord)
{
    Bytes bytes{0x00, 0x04, 'M', 'Q', 'T', 'T', 0x05, 0xC2, 0x00, 0x3C, 0x00};
    for (char fill : {'i', 'u', 'p'}) {
        bytes.insert(bytes.end(), {0xFF, 0xFF});
        bytes.insert(bytes.end(), 0xFFFF, static_cast<uint8_t>(fill));
    }
    const mqtttest::ReceivedBody body(bytes);
    // The record sits between guard bytes in one heap block, so both the guards and ASan watch it.
    constexpr size_t kGuard = 64;
    std::vector<char> area(kGuard + sizeof(MQTTPROTOCOL_USERINFO) + kGuard, 0x5A);
    auto* user = reinterpret_cast<MQTTPROTOCOL_USERINFO*>(area.data() + kGuard);
    std::memset(user, 0, sizeof(*user));
    MQTTPROTOCOL_HDRCONNNECT header{};
    mqtttest::DecodedProperties properties;
    ASSERT_TRUE(MQTTProtocol_Parse_Connect(body.Data(), static_cast<int>(bytes.size()), &header, user, &properties.list,
                                           &properties.count));
    EXPECT_EQ(std::string(user->tszClientID, 260), std::string(260, 'i'));
    EXPECT_EQ(std::string(user->tszClientUser, 260), std::string(260, 'u')) << "read from where the wire puts it";
    EXPECT_EQ(std::string(user->tszClientPass, 260), std::string(260, 'p'));
    EXPECT_EQ(std::string(area.begin(), area.begin() + kGuard), std::string(kGuard, 0x5A));
    EXPECT_EQ(std::string(area.end() - kGuard, area.end()), std::string(kGuard, 0x5A));
}

TEST_F(HostileInput, AddressesOf127BytesAreServedAnd128BytesRefused)
{
    const std::string longest(127, 'a');
    ASSERT_TRUE(MQTTProtocol_Parse_Insert(longest.c_str()));
    EXPECT_TRUE(MQTTProtocol_Parse_Send(longest.c_str(), "\xC0\x00", 2));
    EXPECT_EQ(mqtttest::ReadyCount(longest, kPoolCount), 1) << "the pool lists the full address";
    EXPECT_TRUE(mqtttest::Take(longest.c_str()).ok);
    MQTTProtocol_Parse_Delete(longest.c_str());

    const std::string tooLong(128, 'a');
    EXPECT_FALSE(MQTTProtocol_Parse_Insert(tooLong.c_str()));
    EXPECT_EQ(MQTTProtocol_GetLastError(nullptr), MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    EXPECT_FALSE(MQTTProtocol_Parse_Send(tooLong.c_str(), "\xC0\x00", 2));
    EXPECT_EQ(MQTTProtocol_GetLastError(nullptr), MQTTPROTOCOL_ERR_PARSE_NOTFOUND);
}

}  // namespace
