// The readiness pool as the library makes, ends and passes it through: every failure carries the
// pool's own code. Waiters woken by another thread's Send: Concurrency_test.
#include "reassembly/ReceiveSupport.h"

namespace {

using ReceivePool = mqtttest::ReceiveTest;

TEST(ReceivePoolLifetime, FailedInitLeavesNoHandleAndThePoolsCode)
{
    EXPECT_FALSE(MQTTProtocol_Parse_Init(0));
    EXPECT_TRUE(MQTTProtocol_IsErrorOccur);
    EXPECT_EQ(MQTTProtocol_dwErrorCode, HOPPER_ERR_ARGUMENT);
    EXPECT_FALSE(MQTTProtocol_Parse_WaitEvent(0, 0));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, HOPPER_ERR_HANDLE) << "the null handle went to the pool";
    EXPECT_TRUE(MQTTProtocol_Parse_Destory());
    EXPECT_FALSE(MQTTProtocol_IsErrorOccur) << "Destory does not look at the pool's result";
}

TEST(ReceivePoolLifetime, SessionsOutliveThePool)
{
    ASSERT_TRUE(MQTTProtocol_Parse_Init(1));
    mqtttest::Session session;
    ASSERT_TRUE(MQTTProtocol_Parse_Destory());
    EXPECT_FALSE(MQTTProtocol_Parse_GetPool(0, nullptr, nullptr));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, HOPPER_ERR_HANDLE) << "the stale handle is refused";
    ASSERT_TRUE(session.Send({0xC0, 0x00}));
    EXPECT_EQ(mqtttest::Take(session.c_str()).first, 0xC0) << "counting failures are ignored";
}

TEST_F(ReceivePool, WaitEndsOnActivationOrReadinessOfTheSessionsIndexOnly)
{
    EXPECT_TRUE(MQTTProtocol_Parse_ActiveEvent(0));
    EXPECT_TRUE(MQTTProtocol_Parse_WaitEvent(0, 0));
    EXPECT_FALSE(MQTTProtocol_Parse_ActiveEvent(kPoolCount));
    EXPECT_EQ(MQTTProtocol_dwErrorCode, HOPPER_ERR_ARGUMENT);

    mqtttest::Session session;
    ASSERT_TRUE(session.Send({0xC0, 0x00}));
    int readyIndexes = 0;
    for (int index = 0; index < kPoolCount; index++) readyIndexes += MQTTProtocol_Parse_WaitEvent(index, 0);
    EXPECT_EQ(readyIndexes, 1) << "only the session's own index is ready";
}

}  // namespace
