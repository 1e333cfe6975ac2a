// Opening and closing sessions, and the calls the receive side refuses.
#include "reassembly/ReceiveSupport.h"

namespace {

using mqtttest::Bytes;
using mqtttest::Take;
using mqtttest::Wire;

using ReceiveSession = mqtttest::ReceiveTest;

TEST_F(ReceiveSession, DeleteFreesWhatIsQueuedAndForgetsTheAddress)
{
    mqtttest::Session session("deleted");
    const char* address = session.c_str();
    // A complete packet, a PINGREQ without a block, and a packet still arriving: the leak checkers
    // report any of their memory that Delete does not free.
    const Bytes bytes = mqtttest::Concat({Wire(0x30, mqtttest::Counting(50)), {0xC0, 0x00}});
    ASSERT_TRUE(session.Send(bytes));
    ASSERT_TRUE(session.Send(Bytes(bytes.begin(), bytes.begin() + 10)));
    EXPECT_EQ(mqtttest::ReadyCount(session.address, kPoolCount), 2);

    EXPECT_TRUE(MQTTProtocol_Parse_Delete(address));
    EXPECT_EQ(mqtttest::ReadyCount(session.address, kPoolCount), 0);
    EXPECT_FALSE(session.Send({0xC0, 0x00}));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_NOTFOUND);
    EXPECT_FALSE(Take(address).ok);
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_NOTFOUND);
    // Unknown now, it is deleted quietly; inserted again, it starts a fresh stream.
    for (const char* unknown : {address, "never inserted", static_cast<const char*>(nullptr)}) {
        EXPECT_TRUE(MQTTProtocol_Parse_Delete(unknown));
        EXPECT_FALSE(MQTTProtocol_IsErrorOccur);
    }
    ASSERT_TRUE(MQTTProtocol_Parse_Insert(address));
    ASSERT_TRUE(session.Send({0xC0, 0x00}));
    EXPECT_EQ(Take(address).first, 0xC0);
}

TEST_F(ReceiveSession, SecondInsertOfAnAddressKeepsTheFirstSession)
{
    mqtttest::Session session;
    const Bytes publish = Wire(0x30, mqtttest::Counting(12));
    ASSERT_TRUE(session.Send(Bytes(publish.begin(), publish.begin() + 5)));
    EXPECT_TRUE(MQTTProtocol_Parse_Insert(session.c_str()));
    EXPECT_FALSE(MQTTProtocol_IsErrorOccur);
    ASSERT_TRUE(session.Send(Bytes(publish.begin() + 5, publish.end())));
    EXPECT_EQ(mqtttest::ReadyCount(session.address, kPoolCount), 1);
    EXPECT_EQ(Take(session.c_str()).body, mqtttest::Counting(12));
}

// A refused call writes no out-parameter and leaves the queue and the ready count as they were.
// Recv looks at its out-pointers only when it has a packet to write through them; before that, its
// own failure is reported whatever they are. (Addresses of 128 bytes: tests/hardening.)
TEST_F(ReceiveSession, RefusedCallsChangeNothing)
{
    mqtttest::Session session;
    ASSERT_TRUE(session.Send({0xE0, 0x00}));
    const char* address = session.c_str();
    const char bytes[] = {static_cast<char>(0xC0), 0x00};
    MQTTPROTOCOL_FIXEDHEADER header{};
    char* body = reinterpret_cast<char*>(&header);
    int length = -7;
    // The call is made before the check runs, so the error state is the call's own.
    const auto expectRefused = [](bool result, uint64_t code) {
        EXPECT_FALSE(result);
        EXPECT_TRUE(MQTTProtocol_IsErrorOccur);
        EXPECT_EQ(MQTTProtocol_dwErrorCode, code);
    };
    expectRefused(MQTTProtocol_Parse_Send(address, bytes, -1), MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    expectRefused(MQTTProtocol_Parse_Send(address, nullptr, 2), MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    expectRefused(MQTTProtocol_Parse_Send(nullptr, bytes, 2), MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    expectRefused(MQTTProtocol_Parse_Send("never inserted", bytes, -1), MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    expectRefused(MQTTProtocol_Parse_Recv(nullptr, &header, &body, &length), MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    expectRefused(MQTTProtocol_Parse_Recv("never inserted", nullptr, nullptr, nullptr),
                  MQTTPROTOCOL_ERR_PARSE_NOTFOUND);
    expectRefused(MQTTProtocol_Parse_Recv(address, nullptr, nullptr, nullptr), MQTTPROTOCOL_ERR_PARSE_NOTCOMPLETE);
    expectRefused(MQTTProtocol_Parse_Recv(address, &header, &body, &length), MQTTPROTOCOL_ERR_PARSE_NOTCOMPLETE);
    expectRefused(MQTTProtocol_Parse_Insert(nullptr), MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    EXPECT_EQ(mqtttest::ReadyCount(session.address, kPoolCount), 0);

    ASSERT_TRUE(MQTTProtocol_Parse_Send(address, nullptr, 0));  // an empty piece, added to the waiting bytes
    ASSERT_TRUE(session.Send({0xC0, 0x00}));
    expectRefused(MQTTProtocol_Parse_Recv(address, nullptr, &body, &length), MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    expectRefused(MQTTProtocol_Parse_Recv(address, &header, nullptr, &length), MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    expectRefused(MQTTProtocol_Parse_Recv(address, &header, &body, nullptr), MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    EXPECT_EQ(body, reinterpret_cast<char*>(&header));
    EXPECT_EQ(length, -7);
    EXPECT_EQ(mqtttest::ReadyCount(session.address, kPoolCount), 2);
    EXPECT_EQ(Take(address).first, 0xE0);
    EXPECT_FALSE(Take(address).hasBody);
    expectRefused(MQTTProtocol_Parse_Recv(address, nullptr, nullptr, nullptr), MQTTPROTOCOL_ERR_PARSE_EMPTY);
}
}  // namespace
