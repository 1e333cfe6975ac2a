// Helpers of the unit tests on top of the shared packet helpers (support/MQTTWire.h): bodies as
// builders write them and as the receive side hands them out, and seeded random choices.
#pragma once

#include "MQTTWire.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

namespace mqtttest {

using namespace mqttwire;

// Runs a builder into a buffer of 0xEE bytes and returns the body it reports, checking that it
// succeeded and wrote nothing behind that body.
template <typename Builder>
Bytes Built(Builder build)
{
    std::vector<char> out(0x30000, static_cast<char>(0xEE));
    int length = -1;
    EXPECT_TRUE(build(out.data(), &length));
    EXPECT_FALSE(MQTTProtocol_IsErrorOccur);
    if (length < 0 || static_cast<size_t>(length) >= out.size()) {
        ADD_FAILURE() << "implausible body length " << length;
        return {};
    }
    EXPECT_EQ(static_cast<uint8_t>(out[static_cast<size_t>(length)]), 0xEE) << "written behind the body";
    return ToBytes(out.data(), length);
}

// A body as the receive side hands it out: at the start of a zero-filled block of 0xA00000 bytes, so
// a decoder that reads past a short body reads zeros.
class ReceivedBody
{
public:
    explicit ReceivedBody(const Bytes& body)
        : m_Block(static_cast<char*>(std::calloc(MQTTPROTOCOL_PACKET_BLOCK_SIZE, 1)))
    {
        std::memcpy(m_Block, body.data(), body.size());
    }
    ~ReceivedBody() { std::free(m_Block); }
    ReceivedBody(const ReceivedBody&) = delete;
    ReceivedBody& operator=(const ReceivedBody&) = delete;

    const char* Data() const { return m_Block; }

private:
    char* m_Block;
};

// Seeded random choices for generated streams and bodies: a failing seed replays.
class SeededRandom
{
public:
    explicit SeededRandom(uint32_t seed) : m_Random(seed) {}
    int Between(int low, int high) { return std::uniform_int_distribution<int>(low, high)(m_Random); }
    bool Chance(int percent) { return Between(1, 100) <= percent; }
    Bytes Some(int count)
    {
        Bytes bytes(static_cast<size_t>(count));
        for (auto& byte : bytes) byte = static_cast<uint8_t>(m_Random());
        return bytes;
    }

private:
    std::mt19937 m_Random;
};

}  // namespace mqtttest
