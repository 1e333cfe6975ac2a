// The receive framing's behaviour as hosts meet it, case by case: how pieces become packets, what
// waits, what is refused and what the error state says afterwards.
#include "reassembly/ReceiveSupport.h"

namespace {

using mqtttest::Bytes;
using mqtttest::Counting;
using mqtttest::Take;
using mqtttest::Wire;

class ReceiveFraming : public mqtttest::ReceiveTest
{
protected:
    int Ready(const mqtttest::Session& session) { return mqtttest::ReadyCount(session.address, kPoolCount); }

    void ExpectNothingToTake(const mqtttest::Session& session, uint64_t code)
    {
        EXPECT_FALSE(Take(session.c_str()).ok);
        EXPECT_EQ(MQTTProtocol_dwErrorCode, code);
    }

    void ExpectTake(const mqtttest::Session& session, uint8_t first, const Bytes& body, bool hasBody = true)
    {
        const mqtttest::Taken taken = Take(session.c_str(), true);
        ASSERT_TRUE(taken.ok);
        EXPECT_EQ(taken.first, first);
        EXPECT_EQ(taken.hasBody, hasBody);
        EXPECT_EQ(taken.body, body);
        EXPECT_TRUE(taken.zeroBeyondBody);
    }

    void ExpectResult(bool result, bool flag, uint64_t code)
    {
        EXPECT_TRUE(result);
        EXPECT_EQ(MQTTProtocol_IsErrorOccur, flag);
        EXPECT_EQ(MQTTProtocol_dwErrorCode, code);
    }
};

TEST_F(ReceiveFraming, LonePingreqIsQueuedAtOnceWithoutABlock)
{
    mqtttest::Session session;
    ASSERT_TRUE(session.Send({0xC0, 0x00}));
    EXPECT_EQ(Ready(session), 1);
    ExpectTake(session, 0xC0, {}, false);
    EXPECT_EQ(Ready(session), 0);
}

TEST_F(ReceiveFraming, TwoPingreqsInOnePieceOnlyTheLastWithoutABlock)
{
    mqtttest::Session session;
    ASSERT_TRUE(session.Send({0xC0, 0x00, 0xC0, 0x00}));
    EXPECT_EQ(Ready(session), 2);
    ExpectTake(session, 0xC0, {}, true);
    ExpectTake(session, 0xC0, {}, false);
}

TEST_F(ReceiveFraming, TwoBytePacketWaitsUntilFourBytesHaveCome)
{
    mqtttest::Session session;
    ASSERT_TRUE(session.Send({0xE0, 0x00}));
    EXPECT_EQ(Ready(session), 0);
    ExpectNothingToTake(session, MQTTPROTOCOL_ERR_PARSE_NOTCOMPLETE);

    // The four bytes are cut as one input: the DISCONNECT, then the PINGREQ as an input of its own.
    ASSERT_TRUE(session.Send({0xC0, 0x00}));
    EXPECT_EQ(Ready(session), 2);
    ExpectTake(session, 0xE0, {}, true);
    ExpectTake(session, 0xC0, {}, false);
}

TEST_F(ReceiveFraming, PublishArrivingOneBytePerCallIsQueuedWithItsLastByte)
{
    mqtttest::Session session;
    const Bytes body = Counting(40);
    const Bytes publish = Wire(0x32, body);
    for (size_t i = 0; i + 1 < publish.size(); i++) {
        ASSERT_TRUE(session.Send({publish[i]}));
        ExpectNothingToTake(session, MQTTPROTOCOL_ERR_PARSE_NOTCOMPLETE);
    }
    ASSERT_TRUE(session.Send({publish.back()}));
    EXPECT_EQ(Ready(session), 1);
    ExpectTake(session, 0x32, body);
}

TEST_F(ReceiveFraming, TwoWholePacketsAndTenBytesOfAThird)
{
    mqtttest::Session session;
    const Bytes third = Wire(0x30, Counting(30));
    ASSERT_TRUE(session.Send(mqtttest::Concat({Wire(0x30, Counting(5)), Wire(0x62, {0x00, 0x07}),
                                               Bytes(third.begin(), third.begin() + 10)})));
    EXPECT_EQ(Ready(session), 2);
    ExpectTake(session, 0x30, Counting(5));
    ExpectTake(session, 0x62, {0x00, 0x07});
    ExpectNothingToTake(session, MQTTPROTOCOL_ERR_PARSE_NOTCOMPLETE);

    ASSERT_TRUE(session.Send(Bytes(third.begin() + 10, third.end())));
    ExpectTake(session, 0x30, Counting(30));
}

TEST_F(ReceiveFraming, BytesAfterACompletedPacketWaitAsTheNextOne)
{
    mqtttest::Session session;
    const Bytes first = Wire(0x30, Counting(20));
    const Bytes next = Wire(0x31, Counting(8));
    ASSERT_TRUE(session.Send(Bytes(first.begin(), first.begin() + 6)));
    ASSERT_TRUE(session.Send(
        mqtttest::Concat({Bytes(first.begin() + 6, first.end()), Bytes(next.begin(), next.begin() + 5)})));
    EXPECT_EQ(Ready(session), 1);
    ExpectTake(session, 0x30, Counting(20));
    ExpectNothingToTake(session, MQTTPROTOCOL_ERR_PARSE_NOTCOMPLETE);
    ASSERT_TRUE(session.Send(Bytes(next.begin() + 5, next.end())));
    ExpectTake(session, 0x31, Counting(8));

    // A PINGREQ whose first byte came with a completing piece waits for two bytes more than its own.
    ASSERT_TRUE(session.Send(Bytes(first.begin(), first.begin() + 6)));
    ASSERT_TRUE(session.Send(mqtttest::Concat({Bytes(first.begin() + 6, first.end()), {0xC0}})));
    ASSERT_TRUE(session.Send({0x00}));
    EXPECT_EQ(Ready(session), 1);
    ASSERT_TRUE(session.Send({0xC0, 0x00}));
    EXPECT_EQ(Ready(session), 3);
    ExpectTake(session, 0x30, Counting(20));
    ExpectTake(session, 0xC0, {}, true);
    ExpectTake(session, 0xC0, {}, false);
}

TEST_F(ReceiveFraming, SubscribeAndUnsubscribeNeedFlagsTwo)
{
    const struct
    {
        uint8_t first;
        bool queued;
    } cases[] = {{0x82, true}, {0xA2, true}, {0x80, false}, {0x83, false}, {0x8F, false}, {0xA0, false}, {0xA3, false}};
    for (const auto& example : cases) {
        SCOPED_TRACE(static_cast<int>(example.first));
        mqtttest::Session session;
        const bool result = session.Send(mqtttest::Concat({Wire(example.first, Counting(9)), {0xC0, 0x00}}));
        EXPECT_EQ(result, example.queued);
        if (example.queued) {
            EXPECT_EQ(Ready(session), 2);
            continue;
        }
        EXPECT_TRUE(MQTTProtocol_IsErrorOccur);
        EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_HDRFLAGS);
        ExpectNothingToTake(session, MQTTPROTOCOL_ERR_PARSE_EMPTY);  // the PINGREQ behind it is lost too
    }
}

TEST_F(ReceiveFraming, BadSubscribeAfterAPublishKeepsThePublishAndLosesTheRest)
{
    mqtttest::Session session;
    const bool result = session.Send(
        mqtttest::Concat({Wire(0x30, Counting(7)), Wire(0x80, Counting(9)), Wire(0x30, Counting(3))}));
    ExpectResult(result, true, MQTTPROTOCOL_ERR_PARSE_HDRFLAGS);
    ExpectTake(session, 0x30, Counting(7));
    ExpectNothingToTake(session, MQTTPROTOCOL_ERR_PARSE_EMPTY);
}

TEST_F(ReceiveFraming, SubscribeFlagsAreCheckedOnlyOnceThePacketIsWhole)
{
    mqtttest::Session session;
    const Bytes subscribe = Wire(0x80, Counting(20));
    ASSERT_TRUE(session.Send(Bytes(subscribe.begin(), subscribe.begin() + 6)));
    EXPECT_FALSE(MQTTProtocol_IsErrorOccur);
    ExpectResult(session.Send(Bytes(subscribe.begin() + 6, subscribe.end())), true, MQTTPROTOCOL_ERR_PARSE_HDRFLAGS);
    ExpectNothingToTake(session, MQTTPROTOCOL_ERR_PARSE_EMPTY);
}

TEST_F(ReceiveFraming, EmptyPieceLeavesAnEmptyPacketWaiting)
{
    mqtttest::Session session;
    ASSERT_TRUE(session.Send({}));
    ExpectNothingToTake(session, MQTTPROTOCOL_ERR_PARSE_NOTCOMPLETE);
    ASSERT_TRUE(session.Send({0xC0, 0x00}));  // appended to the zero waiting bytes: no PINGREQ yet
    ExpectNothingToTake(session, MQTTPROTOCOL_ERR_PARSE_NOTCOMPLETE);
    ASSERT_TRUE(session.Send({0xC0, 0x00}));
    EXPECT_EQ(Ready(session), 2);
}

TEST_F(ReceiveFraming, MalformedOrCutOffLengthMakesTheFirstByteAnEmptyPacket)
{
    mqtttest::Session session;
    // 0x30 then four length bytes that all ask for more: 0x30 is a packet of its own. The next input
    // is exactly four bytes whose length field is cut off: 0xC0 is one too, and three bytes wait.
    ExpectResult(session.Send({0x30, 0xC0, 0xC0, 0xC0, 0xC0}), false, MQTTPROTOCOL_ERR_PARSE_LENGTH);
    EXPECT_EQ(Ready(session), 2);
    ExpectTake(session, 0x30, {});
    ExpectTake(session, 0xC0, {});
    ExpectNothingToTake(session, MQTTPROTOCOL_ERR_PARSE_NOTCOMPLETE);
}

// A packet with a four-byte remaining length (2,097,152 body bytes or more) falls apart when the
// framing has to cut exactly its first four bytes: the length is cut off, so its first byte becomes
// an empty packet and cutting goes on at the next byte. Hosts meet this when such a packet's first
// piece is exactly four bytes, or when its bytes come one at a time.
class FourByteLength : public ReceiveFraming
{
protected:
    const Bytes body = Counting(2097152);
    const Bytes header{0x30, 0x80, 0x80, 0x80, 0x01};
};

TEST_F(FourByteLength, WholeHeaderInTheFirstPieceIsCutNormally)
{
    mqtttest::Session session;
    ASSERT_TRUE(session.Send(header));
    ASSERT_TRUE(session.Send(body));
    ExpectTake(session, 0x30, body);
}

TEST_F(FourByteLength, FirstPieceOfExactlyFourBytesBreaksThePacket)
{
    mqtttest::Session session;
    ExpectResult(session.Send(Bytes(header.begin(), header.begin() + 4)), false, MQTTPROTOCOL_ERR_PARSE_LENGTH);
    ExpectTake(session, 0x30, {});
    // Cutting resumed at 0x80, which reads as a SUBSCRIBE with flags 0 once its bytes are whole.
    ExpectResult(session.Send(mqtttest::Concat({{0x01}, body})), true, MQTTPROTOCOL_ERR_PARSE_HDRFLAGS);
    ExpectNothingToTake(session, MQTTPROTOCOL_ERR_PARSE_EMPTY);
}

TEST_F(FourByteLength, HeaderArrivingOneByteAtATimeBreaksThePacket)
{
    mqtttest::Session session;
    for (uint8_t byte : header) ASSERT_TRUE(session.Send({byte}));
    ExpectTake(session, 0x30, {});
    ExpectNothingToTake(session, MQTTPROTOCOL_ERR_PARSE_NOTCOMPLETE);
    ExpectResult(session.Send(body), true, MQTTPROTOCOL_ERR_PARSE_HDRFLAGS);
}

TEST_F(ReceiveFraming, LengthNoBlockHoldsIsRefusedAsItsHeaderIsCut)
{
    const Bytes tooLong{0x30, 0x81, 0x80, 0x80, 0x05};  // 0xA00001
    mqtttest::Session alone;
    EXPECT_FALSE(alone.Send(mqtttest::Concat({tooLong, Counting(10)})));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_LENGTH);
    ExpectNothingToTake(alone, MQTTPROTOCOL_ERR_PARSE_EMPTY);

    mqtttest::Session afterPublish;
    ExpectResult(afterPublish.Send(mqtttest::Concat({Wire(0x30, Counting(3)), tooLong, {0xC0, 0x00}})), true,
                 MQTTPROTOCOL_ERR_PARSE_LENGTH);
    ExpectTake(afterPublish, 0x30, Counting(3));
    ExpectNothingToTake(afterPublish, MQTTPROTOCOL_ERR_PARSE_EMPTY);

    mqtttest::Session waitingHeader;
    ASSERT_TRUE(waitingHeader.Send({0x30, 0x81}));
    ExpectResult(waitingHeader.Send({0x80, 0x80, 0x05}), true, MQTTPROTOCOL_ERR_PARSE_LENGTH);
    ExpectNothingToTake(waitingHeader, MQTTPROTOCOL_ERR_PARSE_EMPTY);
}

TEST_F(ReceiveFraming, BodyFillingTheWholeBlockIsAccepted)
{
    mqtttest::Session session;
    const Bytes body = Counting(MQTTPROTOCOL_PACKET_BLOCK_SIZE, 3);
    ASSERT_TRUE(session.Send(Wire(0x30, body)));
    ExpectTake(session, 0x30, body);
}

TEST_F(ReceiveFraming, BadArgumentsAreRefusedBeforeTheLookupAndChangeNothing)
{
    mqtttest::Session session;
    ASSERT_TRUE(session.Send({0xE0, 0x00}));
    const char bytes[] = {0x01};
    EXPECT_FALSE(MQTTProtocol_Parse_Send(session.c_str(), bytes, -1));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    EXPECT_FALSE(MQTTProtocol_Parse_Send(session.c_str(), nullptr, 3));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    EXPECT_FALSE(MQTTProtocol_Parse_Send(nullptr, bytes, 1));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    EXPECT_FALSE(MQTTProtocol_Parse_Send("never inserted", bytes, -1));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_ARGUMENT);

    ASSERT_TRUE(MQTTProtocol_Parse_Send(session.c_str(), nullptr, 0));  // an empty piece, appended to nothing
    ASSERT_TRUE(session.Send({0xC0, 0x00}));
    ExpectTake(session, 0xE0, {});
    ExpectTake(session, 0xC0, {}, false);
}

TEST_F(ReceiveFraming, UnknownAddressIsNotFound)
{
    const char bytes[] = {static_cast<char>(0xC0), 0x00};
    EXPECT_FALSE(MQTTProtocol_Parse_Send("never inserted", bytes, 2));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_NOTFOUND);
}

TEST_F(ReceiveFraming, PacketAndBuildRefuseWhatTheyCannotWorkOn)
{
    const char bytes[] = {static_cast<char>(0xC0), 0x00};
    EXPECT_FALSE(m_Parse.MQTTProtocol_Parse_Packet(nullptr, bytes, 2));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    TAVRIN_MQTTPARSE session;
    session.pSt_Locker = std::make_unique<std::mutex>();
    session.pStl_ListPacket = std::make_unique<std::list<MQTTPROTOCOL_MSGBUFFER>>();
    EXPECT_FALSE(m_Parse.MQTTProtocol_Parse_Build(&session, bytes, 2)) << "no packet is arriving";
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    EXPECT_FALSE(m_Parse.MQTTProtocol_Parse_Packet(&session, bytes, -2));
    EXPECT_TRUE(session.pStl_ListPacket->empty());
}

}  // namespace
