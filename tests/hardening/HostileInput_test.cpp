// Input classes behind the published parser vulnerabilities of other MQTT implementations, each run
// through Send and Recv and the decoder that matches its type, with outputs of the documented
// capacities: nothing is read or written outside what the library was given or allocated.
#include "reassembly/ReceiveSupport.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

namespace {

using mqtttest::Bytes;
using mqtttest::Wire;

constexpr int kTopicCapacity = 0xFFFF;

// A packet as Recv hands it out, freed at the end of the test.
struct Delivered
{
    MQTTPROTOCOL_FIXEDHEADER header{};
    char* body = nullptr;
    int length = -1;
    ~Delivered() { std::free(body); }
};

struct DecodedOutputs
{
    unsigned char reasonCode = 0xEE;
    unsigned short identifier = 0xEEEE;
    std::vector<char> topic = std::vector<char>(kTopicCapacity);
    MQTTPROTOCOL_HDRPROPERTY** properties = nullptr;
    int propertyCount = 0;
    ~DecodedOutputs() { Keel_OperatorMemory_Free(reinterpret_cast<void***>(&properties), propertyCount); }
};

class HostileInput : public mqtttest::ReceiveTest
{
protected:
    // Sends one whole packet as its own piece and takes it out again.
    void SendAndReceive(const Bytes& wire, Delivered& delivered)
    {
        ASSERT_TRUE(m_Session.Send(wire));
        ASSERT_FALSE(MQTTProtocol_IsErrorOccur);
        ASSERT_TRUE(MQTTProtocol_Parse_Recv(m_Session.c_str(), &delivered.header, &delivered.body, &delivered.length));
        ASSERT_NE(delivered.body, nullptr);
    }

    mqtttest::Session m_Session{"hostile"};
};

TEST_F(HostileInput, LargestRemainingLengthIsRefusedBeforeAnythingIsQueued)
{
    EXPECT_FALSE(m_Session.Send({0x10, 0xFF, 0xFF, 0xFF, 0x7F}));
    EXPECT_EQ(MQTTProtocol_GetLastError(nullptr), MQTTPROTOCOL_ERR_PARSE_LENGTH);
    Delivered none;
    EXPECT_FALSE(MQTTProtocol_Parse_Recv(m_Session.c_str(), &none.header, &none.body, &none.length));
    EXPECT_EQ(MQTTProtocol_GetLastError(nullptr), MQTTPROTOCOL_ERR_PARSE_EMPTY) << "no partial packet waits either";
}

// A piece that, behind the bytes of a fixed header still incomplete, would make the input count more
// bytes than an int holds: refused before a byte of it is read (the size alone reaches the check, so
// a small buffer stands in for 2 GiB), in both body modes, and the stream goes on aligned.
TEST_F(HostileInput, APieceThatWouldCountPastIntMaxIsRefusedUnread)
{
    const char standIn[4] = {};
    for (int mode : {MQTTPROTOCOL_BODY_BLOCK, MQTTPROTOCOL_BODY_COMPACT}) {
        ASSERT_TRUE(MQTTProtocol_Parse_BodyMode(mode));
        ASSERT_TRUE(m_Session.Send({0x30}));
        EXPECT_TRUE(MQTTProtocol_Parse_Send(m_Session.c_str(), standIn, INT_MAX)) << "bytes were waiting";
        EXPECT_TRUE(MQTTProtocol_IsErrorOccur);
        EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_LENGTH);
        EXPECT_EQ(mqtttest::ReadyCount(m_Session.address, kPoolCount), 0);
        Delivered delivered;
        SendAndReceive(Wire(0x30, {0x00, 0x01, 'a', 'x'}), delivered);
        EXPECT_EQ(mqtttest::ToBytes(delivered.body, delivered.length), Bytes({0x00, 0x01, 'a', 'x'}));
    }
    MQTTProtocol_Parse_BodyMode(MQTTPROTOCOL_BODY_BLOCK);
}

// Bodies whose own length fields run past the body: the decoders read on into the zero-filled block.
TEST_F(HostileInput, LengthFieldsRunningPastTheBodyAreReadFromTheBlock)
{
    const struct
    {
        const char* what;
        Bytes wire;
        std::function<bool(const Delivered&, DecodedOutputs&)> decode;
        std::function<void(const DecodedOutputs&)> check;
    } cases[] = {
        {"PUBLISH topic length past its body", Wire(0x32, {0xFF, 0xFF, 'a', 'b'}),
         [](const Delivered& d, DecodedOutputs& out) {
             MQTTPROTOCOL_FIXEDHEADER header = d.header;
             int payloadLen = -1;
             std::vector<char> payload(static_cast<size_t>(d.length));
             const bool ok = MQTTProtocol_Parse_Publish(d.body, d.length, &header, out.topic.data(), &out.identifier,
                                                        payload.data(), &payloadLen, &out.properties, &out.propertyCount);
             EXPECT_EQ(payloadLen, -1) << "no payload behind a topic that ends past the body";
             return ok;
         },
         [](const DecodedOutputs& out) { EXPECT_EQ(out.identifier, 0) << "read from the zeros"; }},
        {"SUBACK without a reason code", Wire(0x90, {0x00, 0x01}),
         [](const Delivered& d, DecodedOutputs& out) {
             return MQTTProtocol_Parse_Suback(d.body, d.length, &out.reasonCode, &out.identifier, &out.properties,
                                              &out.propertyCount);
         },
         [](const DecodedOutputs& out) { EXPECT_EQ(out.reasonCode, 0x01); }},
        {"UNSUBACK without a reason code", Wire(0xB0, {0x00, 0x01, 0x00}),
         [](const Delivered& d, DecodedOutputs& out) {
             return MQTTProtocol_Parse_UNSuback(d.body, d.length, &out.reasonCode, &out.identifier, &out.properties,
                                                &out.propertyCount);
         },
         [](const DecodedOutputs& out) { EXPECT_EQ(out.reasonCode, 0x00); }},
        {"CONNACK property length past its body", Wire(0x20, {0x00, 0x00, 0xFF, 0x11}),
         [](const Delivered& d, DecodedOutputs& out) {
             return MQTTProtocol_Parse_Connack(d.body, d.length, &out.reasonCode, &out.properties, &out.propertyCount);
         },
         [](const DecodedOutputs& out) { EXPECT_GE(out.propertyCount, 1); }},
        {"DISCONNECT property length past its body", Wire(0xE0, {0x00, 0xFF}),
         [](const Delivered& d, DecodedOutputs& out) {
             return MQTTProtocol_Parse_Disconnect(d.body, d.length, &out.reasonCode, &out.properties, &out.propertyCount);
         },
         [](const DecodedOutputs& out) {
             ASSERT_EQ(out.propertyCount, 1);
             EXPECT_EQ(out.properties[0]->nPropertyLen, 254) << "an unknown identifier 0 takes the rest of the block";
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Delivered delivered;
        SendAndReceive(c.wire, delivered);
        DecodedOutputs out;
        EXPECT_TRUE(c.decode(delivered, out));
        c.check(out);
    }
}

TEST_F(HostileInput, BlockOf255BytesOfRestOfBlockPropertiesIsOneProperty)
{
    Bytes body{0x00, 0xFF};
    body.insert(body.end(), 255, 0x26);  // a User Property whose value swallows the rest
    Delivered delivered;
    SendAndReceive(Wire(0xE0, body), delivered);
    DecodedOutputs out;
    ASSERT_TRUE(MQTTProtocol_Parse_Disconnect(delivered.body, delivered.length, &out.reasonCode, &out.properties,
                                              &out.propertyCount));
    ASSERT_EQ(out.propertyCount, 1);
    EXPECT_EQ(out.properties[0]->byPropertyID, 0x26);
    EXPECT_EQ(out.properties[0]->nPropertyLen, 254);
}

TEST_F(HostileInput, ConnectWhoseThreeStringsClaim65535BytesStaysInsideTheUserRecord)
{
    Bytes body{0x00, 0x04, 'M', 'Q', 'T', 'T', 0x05, 0xC2, 0x00, 0x3C, 0x00};
    for (char fill : {'i', 'u', 'p'}) {
        body.insert(body.end(), {0xFF, 0xFF});
        body.insert(body.end(), 0xFFFF, static_cast<uint8_t>(fill));
    }
    Delivered delivered;
    SendAndReceive(Wire(0x10, body), delivered);
    // The record sits between guard bytes in one heap block, so both the guards and ASan watch it.
    constexpr size_t kGuard = 64;
    std::vector<char> area(kGuard + sizeof(MQTTPROTOCOL_USERINFO) + kGuard, 0x5A);
    auto* user = reinterpret_cast<MQTTPROTOCOL_USERINFO*>(area.data() + kGuard);
    std::memset(user, 0, sizeof(*user));
    MQTTPROTOCOL_HDRCONNNECT header{};
    DecodedOutputs out;
    ASSERT_TRUE(MQTTProtocol_Parse_Connect(delivered.body, delivered.length, &header, user, &out.properties,
                                           &out.propertyCount));
    EXPECT_EQ(std::string(user->tszClientID, 260), std::string(260, 'i'));
    EXPECT_EQ(std::string(user->tszClientUser, 260), std::string(260, 'u')) << "read from where the wire puts it";
    EXPECT_EQ(std::string(user->tszClientPass, 260), std::string(260, 'p'));
    for (size_t i = 0; i < kGuard; i++) {
        ASSERT_EQ(area[i], 0x5A);
        ASSERT_EQ(area[kGuard + sizeof(MQTTPROTOCOL_USERINFO) + i], 0x5A);
    }
}

TEST_F(HostileInput, AddressesOf127BytesAreServedAnd128BytesRefused)
{
    const std::string longest(127, 'a');
    ASSERT_TRUE(MQTTProtocol_Parse_Insert(longest.c_str()));
    EXPECT_TRUE(MQTTProtocol_Parse_Send(longest.c_str(), "\xC0\x00", 2));
    EXPECT_EQ(mqtttest::ReadyCount(longest, kPoolCount), 1) << "the pool lists the full address";
    Delivered delivered;
    EXPECT_TRUE(MQTTProtocol_Parse_Recv(longest.c_str(), &delivered.header, &delivered.body, &delivered.length));
    MQTTProtocol_Parse_Delete(longest.c_str());

    const std::string tooLong(128, 'a');
    EXPECT_FALSE(MQTTProtocol_Parse_Insert(tooLong.c_str()));
    EXPECT_EQ(MQTTProtocol_GetLastError(nullptr), MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    EXPECT_FALSE(MQTTProtocol_Parse_Send(tooLong.c_str(), "\xC0\x00", 2));
    EXPECT_EQ(MQTTProtocol_GetLastError(nullptr), MQTTPROTOCOL_ERR_PARSE_NOTFOUND);
}

}  // namespace
