#include "host/PacketCutter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using host::PacketCutter;

const std::string kPublish("\x30\x07\x00\x03\x61\x2F\x62\x00\x78", 9);  // a/b, no properties, payload x
const std::string kPingreq("\xC0\x00", 2);
const std::string kDisconnect("\xE0\x00", 2);

// Feeds the stream in pieces of `step` bytes and collects every packet handed out.
std::vector<std::string> CutInSteps(PacketCutter& cutter, const std::string& stream, std::size_t step)
{
    std::vector<std::string> packets;
    for (std::size_t start = 0; start < stream.size(); start += step) {
        std::vector<std::string_view> cut;
        EXPECT_EQ(cutter.Cut(std::string_view(stream).substr(start, step), cut), PacketCutter::Status::Open);
        packets.insert(packets.end(), cut.begin(), cut.end());
    }
    return packets;
}

TEST(PacketCutter, EveryCuttingOfAStreamGivesTheSameWholePackets)
{
    std::string large("\x30\x84\x01\x00\x01t\x00", 7);  // remaining length 132 in two bytes
    large.append(128, 'p');
    const std::string stream = kPublish + kPingreq + large + kDisconnect;
    for (std::size_t step = 1; step <= stream.size(); step++) {
        PacketCutter cutter(1024);
        const auto packets = CutInSteps(cutter, stream, step);
        ASSERT_EQ(packets, (std::vector<std::string>{kPublish, kPingreq, large, kDisconnect})) << "step " << step;
        EXPECT_TRUE(cutter.AtBoundary());
    }
}

TEST(PacketCutter, KeepsAnUnfinishedPacketUntilItsLastByte)
{
    PacketCutter cutter(1024);
    std::vector<std::string_view> packets;
    cutter.Cut(kPublish.substr(0, 8), packets);
    EXPECT_TRUE(packets.empty());
    EXPECT_FALSE(cutter.AtBoundary());
    cutter.Cut(kPublish.substr(8) + kPingreq.substr(0, 1), packets);
    ASSERT_EQ(packets.size(), 1U);
    EXPECT_EQ(packets[0], kPublish);
    EXPECT_FALSE(cutter.AtBoundary());
}

TEST(PacketCutter, RefusesPacketsLargerThanItsLimitAndLengthsOfFiveBytes)
{
    std::vector<std::string_view> packets;
    PacketCutter small(8);
    EXPECT_EQ(small.Cut(kPublish, packets), PacketCutter::Status::TooLarge);
    EXPECT_EQ(small.Cut(kPingreq, packets), PacketCutter::Status::TooLarge) << "the stream is lost for good";
    PacketCutter cutter(1 << 30);
    EXPECT_EQ(cutter.Cut(std::string("\x30\xFF\xFF", 3), packets), PacketCutter::Status::Open);
    EXPECT_EQ(cutter.Cut(std::string("\xFF\xFF\x01", 3), packets), PacketCutter::Status::Malformed);
    EXPECT_TRUE(packets.empty());
}

}  // namespace
