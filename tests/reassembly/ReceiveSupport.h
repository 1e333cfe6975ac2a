// Helpers shared by the receive-side tests: a pool per test, sessions that clean up after
// themselves, wire packets, taking packets out and reading the pool's ready counts.
#pragma once

#include "TestSupport.h"
#include "reassembly/SideBySide.h"

#include <atomic>

namespace mqtttest {

// Under a sanitizer a body block costs about 1.7 ms (ASan) to 10 ms (TSan) instead of 14 us, in
// shadow memory it prepares and clears: tests that make thousands of blocks make fewer there.
#ifdef MQTTTEST_SANITIZED
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

inline Bytes Counting(size_t count, uint8_t start = 1)
{
    Bytes bytes(count);
    for (size_t i = 0; i < count; i++) bytes[i] = static_cast<uint8_t>(start + i);
    return bytes;
}

// A process-wide fresh address for every session a test opens.
inline std::string FreshAddress(const char* prefix)
{
    static std::atomic<int> next{0};
    return std::string(prefix) + "-" + std::to_string(next++);
}

// A session for the length of a test scope.
struct Session
{
    explicit Session(const char* prefix = "client") : address(FreshAddress(prefix))
    {
        EXPECT_TRUE(MQTTProtocol_Parse_Insert(address.c_str()));
    }
    ~Session() { MQTTProtocol_Parse_Delete(address.c_str()); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    bool Send(const Bytes& bytes) const
    {
        return MQTTProtocol_Parse_Send(address.c_str(), AsChars(bytes), static_cast<int>(bytes.size()));
    }
    const char* c_str() const { return address.c_str(); }

    std::string address;
};

// One packet as Recv handed it out (see TakeOut), its block checked to be the mode's size.
inline Taken Take(const char* address, bool checkWholeBlock = false)
{
    Taken taken = TakeOut(address, checkWholeBlock);
    EXPECT_TRUE(taken.blockSized) << "a block of the wrong size";
    return taken;
}

inline int ReadyCount(const std::string& address, int indexCount)
{
    const auto counts = ReadyCounts(indexCount);
    const auto found = counts.find(address);
    return found == counts.end() ? 0 : found->second;
}

// Gives each test a fresh readiness pool and ends it afterwards.
class ReceiveTest : public ::testing::Test
{
public:
    static constexpr int kPoolCount = 2;

protected:
    void SetUp() override { ASSERT_TRUE(MQTTProtocol_Parse_Init(kPoolCount)); }
    void TearDown() override { MQTTProtocol_Parse_Destory(); }
};

}  // namespace mqtttest
