#include "TestSupport.h"

#include <cerrno>

namespace {

// A success clears the flag but keeps the code. Reading the error touches neither global and hands
// out the thread's errno beside the code. (That each failure sets both anew, every refusal test shows.)
TEST(ErrorState, FlagClearsOnSuccessTheCodeStaysAndReadingItChangesNothing)
{
    char out[8];
    int length = 0;
    ASSERT_FALSE(MQTTProtocol_Packet_Header(nullptr, &length, 12, nullptr, 0, 0));
    ASSERT_TRUE(MQTTProtocol_Packet_Header(out, &length, 12, nullptr, 0, 0));
    EXPECT_FALSE(MQTTProtocol_IsErrorOccur);
    errno = EAGAIN;
    int systemError = 0;
    EXPECT_EQ(MQTTProtocol_GetLastError(&systemError), MQTTPROTOCOL_ERR_PACKET_ARGUMENT);
    EXPECT_EQ(systemError, EAGAIN);
    EXPECT_FALSE(MQTTProtocol_IsErrorOccur);
}

}  // namespace
