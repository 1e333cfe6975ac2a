// Opening and closing sessions, and taking packets out of them.
#include "reassembly/ReceiveSupport.h"

#include <malloc.h>

namespace {

using mqtttest::Bytes;
using mqtttest::Take;
using mqtttest::Wire;

class ReceiveSession : public mqtttest::ReceiveTest
{
};

TEST_F(ReceiveSession, DeleteFreesWhatIsQueuedAndForgetsTheAddress)
{
    const std::string address = mqtttest::FreshAddress("deleted");
    ASSERT_TRUE(MQTTProtocol_Parse_Insert(address.c_str()));
    // A complete packet, a PINGREQ without a block, and a packet still arriving: the leak checker
    // reports any of their memory that Delete does not free.
    const Bytes bytes = mqtttest::Concat({Wire(0x30, mqtttest::Counting(50)), {0xC0, 0x00}});
    ASSERT_TRUE(MQTTProtocol_Parse_Send(address.c_str(), mqtttest::AsChars(bytes), static_cast<int>(bytes.size())));
    ASSERT_TRUE(MQTTProtocol_Parse_Send(address.c_str(), mqtttest::AsChars(bytes), 10));
    EXPECT_EQ(mqtttest::ReadyCount(address, kPoolCount), 2);

    MQTTProtocol_Parse_Send("never inserted", nullptr, 0);
    EXPECT_TRUE(MQTTProtocol_Parse_Delete(address.c_str()));
    EXPECT_FALSE(MQTTProtocol_IsErrorOccur);
    EXPECT_EQ(mqtttest::ReadyCount(address, kPoolCount), 0);
    EXPECT_FALSE(MQTTProtocol_Parse_Send(address.c_str(), mqtttest::AsChars(bytes), 2));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_NOTFOUND);
    EXPECT_FALSE(Take(address.c_str()).ok);
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_NOTFOUND);

    // Inserted again, the address starts a fresh stream.
    ASSERT_TRUE(MQTTProtocol_Parse_Insert(address.c_str()));
    ASSERT_TRUE(MQTTProtocol_Parse_Send(address.c_str(), "\xC0", 2));
    EXPECT_EQ(Take(address.c_str()).first, 0xC0);
    EXPECT_TRUE(MQTTProtocol_Parse_Delete(address.c_str()));
}

TEST_F(ReceiveSession, DeleteOfAnUnknownAddressSucceedsQuietly)
{
    MQTTProtocol_Parse_Send("never inserted", nullptr, 0);
    ASSERT_TRUE(MQTTProtocol_IsErrorOccur);
    EXPECT_TRUE(MQTTProtocol_Parse_Delete("never inserted"));
    EXPECT_FALSE(MQTTProtocol_IsErrorOccur);
    EXPECT_TRUE(MQTTProtocol_Parse_Delete(nullptr));
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

TEST_F(ReceiveSession, AddressesOf128BytesOrMoreAreRefused)
{
    const std::string longest(127, 'a');
    EXPECT_TRUE(MQTTProtocol_Parse_Insert(longest.c_str()));
    ASSERT_TRUE(MQTTProtocol_Parse_Send(longest.c_str(), "\xC0", 2));
    EXPECT_EQ(mqtttest::ReadyCount(longest, kPoolCount), 1) << "the pool counts under the whole address";
    EXPECT_TRUE(MQTTProtocol_Parse_Delete(longest.c_str()));

    const std::string tooLong(128, 'a');
    EXPECT_FALSE(MQTTProtocol_Parse_Insert(tooLong.c_str()));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    EXPECT_FALSE(MQTTProtocol_Parse_Insert(nullptr));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
}

TEST_F(ReceiveSession, RecvHandsOutTheOldestPacketInAWholeBlock)
{
    mqtttest::Session session;
    ASSERT_TRUE(session.Send(mqtttest::Concat({Wire(0x3B, {1}), Wire(0x31, {2, 2})})));
    MQTTPROTOCOL_FIXEDHEADER header{};
    char* body = nullptr;
    int length = 0;
    ASSERT_TRUE(MQTTProtocol_Parse_Recv(session.c_str(), &header, &body, &length));
    EXPECT_EQ(header.byMsgType, 3);
    EXPECT_EQ(header.byMsgFlag, 0xB);
    EXPECT_EQ(length, 1);
    EXPECT_GE(malloc_usable_size(body), static_cast<size_t>(MQTTPROTOCOL_PACKET_BLOCK_SIZE));
    std::free(body);
    EXPECT_EQ(mqtttest::ReadyCount(session.address, kPoolCount), 1);
    EXPECT_EQ(Take(session.c_str()).first, 0x31);
    EXPECT_FALSE(Take(session.c_str()).ok);
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_EMPTY);
}

TEST_F(ReceiveSession, FailedRecvWritesNothingAndKeepsTheCount)
{
    mqtttest::Session session;
    ASSERT_TRUE(session.Send({0xC0, 0x00}));
    MQTTPROTOCOL_FIXEDHEADER header{};
    char* body = reinterpret_cast<char*>(&header);
    int length = -7;
    EXPECT_FALSE(MQTTProtocol_Parse_Recv(session.c_str(), nullptr, &body, &length));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    EXPECT_FALSE(MQTTProtocol_Parse_Recv(nullptr, &header, &body, &length));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    EXPECT_FALSE(MQTTProtocol_Parse_Recv("never inserted", &header, &body, &length));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_NOTFOUND);
    EXPECT_EQ(body, reinterpret_cast<char*>(&header));
    EXPECT_EQ(length, -7);
    EXPECT_EQ(mqtttest::ReadyCount(session.address, kPoolCount), 1);
}

}  // namespace
