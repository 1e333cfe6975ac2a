// One piece carrying 70,000 packets: cutting them must not use stack per packet, every one must come
// out, in order, each counted once; and in block mode the burst, more blocks than glibc maps by
// default, must leave every later block a fresh mapping rather than heap memory cleared by hand.
// A sanitizer's allocator is its own, so glibc's count of mappings is not met there, and each block
// costs shadow memory (ThreadSanitizer even clears every block by hand, so each block held is 10 MiB
// resident): the burst is then a hundred packets, whose order and counts are checked all the same.
#include "reassembly/ReceiveSupport.h"

#include <malloc.h>

namespace {

constexpr int kPingreqs = mqtttest::kSanitized ? 100 : 70000;

TEST(ReceiveBurst, SeventyThousandPingreqsInOnePieceLeaveLaterBlocksFreshMappings)
{
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
        }
        EXPECT_FALSE(mqtttest::Take(session.c_str()).ok);
        EXPECT_EQ(mqtttest::ReadyCount(session.address, 1), 0);
        // A session record made now is never freed: it pins the top of the heap, so memory the burst
        // may have taken from the heap could not go back to the system.
        mqtttest::Session later;
        for (int i = 0; i < 20 && !mqtttest::kSanitized; i++) {
            const size_t mappedBefore = mallinfo2().hblks;
            ASSERT_TRUE(later.Send(mqtttest::Wire(0x30, mqtttest::Counting(40))));
            EXPECT_EQ(mallinfo2().hblks, mappedBefore + 1) << "block " << i << " does not have a mapping of its own";
            EXPECT_TRUE(mqtttest::Take(later.c_str()).ok);
        }
    }
    MQTTProtocol_Parse_Destory();
}

}  // namespace
