#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(ErrorState, FlagClearsOnSuccessButTheCodeStays)
{
    char out[8];
    int length = 0;
    ASSERT_FALSE(MQTTProtocol_Packet_Header(nullptr, &length, 12, nullptr, 0, 0));
    EXPECT_TRUE(MQTTProtocol_IsErrorOccur);
    EXPECT_EQ(MQTTProtocol_dwErrorCode, MQTTPROTOCOL_ERR_PACKET_ARGUMENT);

    ASSERT_TRUE(MQTTProtocol_Packet_Header(out, &length, 12, nullptr, 0, 0));
    EXPECT_FALSE(MQTTProtocol_IsErrorOccur);
    EXPECT_EQ(MQTTProtocol_GetLastError(nullptr), MQTTPROTOCOL_ERR_PACKET_ARGUMENT);

    int value = 0;
    ASSERT_FALSE(m_Parse.MQTTProtocol_Parse_Length(out, 0, &value, &length));
    EXPECT_EQ(MQTTProtocol_GetLastError(nullptr), MQTTPROTOCOL_ERR_PARSE_LENGTH) << "a later failure replaces the code";
}

TEST(ErrorState, GetLastErrorHandsOutErrnoAndTouchesNeitherGlobal)
{
    char out[8];
    int length = 0;
    ASSERT_FALSE(MQTTProtocol_Packet_Header(out, nullptr, 12, nullptr, 0, 0));
    errno = EAGAIN;
    int systemError = 0;
    EXPECT_EQ(MQTTProtocol_GetLastError(&systemError), MQTTPROTOCOL_ERR_PACKET_ARGUMENT);
    EXPECT_EQ(systemError, EAGAIN);
    EXPECT_EQ(MQTTProtocol_GetLastError(nullptr), MQTTPROTOCOL_ERR_PACKET_ARGUMENT) << "reading twice gives the same code";
    EXPECT_TRUE(MQTTProtocol_IsErrorOccur);
    (void)length;
}

}  // namespace
