// One piece carrying 50,000 packets: cutting them must not use stack per packet, and every one
// must come out, in order, each counted once. Under a sanitizer, where the blocks cost shadow memory
// (ThreadSanitizer also clears each block by hand, so every block held is 10 MiB resident), the burst
// is a hundred packets: the order and the counts are checked all the same, and the plain build keeps
// the full burst that would overflow a stack used per packet.
#include "reassembly/ReceiveSupport.h"

namespace {

TEST(ReceiveBurst, FiftyThousandPingreqsInOnePiece)
{
    constexpr int kPingreqs = mqtttest::kSanitized ? 100 : 50000;
    ASSERT_TRUE(MQTTProtocol_Parse_Init(1));
    {
        mqtttest::Session session;
        mqtttest::Bytes burst;
        for (int i = 0; i < kPingreqs; i++) burst.insert(burst.end(), {0xC0, 0x00});
        ASSERT_TRUE(session.Send(burst));
        EXPECT_FALSE(MQTTProtocol_IsErrorOccur);
        EXPECT_EQ(mqtttest::ReadyCount(session.address, 1), kPingreqs);

        // Each gets a block, except the last, which is cut as a two-byte input of its own.
        for (int i = 0; i < kPingreqs; i++) {
            const mqtttest::Taken taken = mqtttest::Take(session.c_str());
            ASSERT_TRUE(taken.ok) << i;
            ASSERT_EQ(taken.first, 0xC0);
            ASSERT_EQ(taken.hasBody, i + 1 < kPingreqs) << i;
            ASSERT_TRUE(taken.body.empty());
        }
        EXPECT_FALSE(mqtttest::Take(session.c_str()).ok);
        EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PARSE_EMPTY);
        EXPECT_EQ(mqtttest::ReadyCount(session.address, 1), 0);
    }
    MQTTProtocol_Parse_Destory();
}

}  // namespace
