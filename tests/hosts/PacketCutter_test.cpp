#include "host/PacketCutter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using host::PacketBoundaries;
using host::PacketCutter;
using Status = PacketBoundaries::Status;

const std::string kPublish("\x30\x07\x00\x03\x61\x2F\x62\x00\x78", 9);  // a/b, no properties, payload x
const std::string kPingreq("\xC0\x00", 2);
const std::string kDisconnect("\xE0\x00", 2);

TEST(PacketBoundaries, EveryCuttingOfAStreamGivesTheSameBoundariesAndPackets)
{
    std::string large("\x30\x84\x01\x00\x01t\x00", 7);  // remaining length 132 in two bytes
    large.append(128, 'p');
    const std::vector<std::string> sent{kPublish, kPingreq, large, kDisconnect};
    std::string stream;
    std::vector<std::size_t> packetEnds;
    for (const auto& packet : sent) {
        stream += packet;
        packetEnds.push_back(stream.size());
    }
    for (std::size_t step = 1; step <= stream.size(); step++) {
        PacketBoundaries boundaries(1024);
        PacketCutter cutter(1024);
        std::vector<std::string> packets;
        for (std::size_t start = 0; start < stream.size(); start += step) {
            const std::string_view piece = std::string_view(stream).substr(start, step);
            std::vector<std::size_t> ignoredEnds;  // the cutter cuts at these: its packets show them
            ASSERT_EQ(boundaries.Follow(piece, ignoredEnds), Status::Open);
            const bool allWhole =
                std::find(packetEnds.begin(), packetEnds.end(), start + piece.size()) != packetEnds.end();
            EXPECT_EQ(boundaries.AtBoundary(), allWhole) << "step " << step << " after byte " << start + piece.size();
            std::vector<std::string_view> cut;
            ASSERT_EQ(cutter.Cut(piece, cut), Status::Open);
            packets.insert(packets.end(), cut.begin(), cut.end());
        }
        EXPECT_EQ(packets, sent) << "step " << step;
    }
}

TEST(PacketBoundaries, RefusesALengthAsSoonAsItShowsThePacketTooLargeOrMalformed)
{
    std::vector<std::size_t> ends;
    PacketBoundaries small(8);
    EXPECT_EQ(small.Follow(kPublish, ends), Status::TooLarge);
    EXPECT_EQ(small.Follow(kPingreq, ends), Status::TooLarge) << "the stream is lost for good";
    EXPECT_TRUE(ends.empty());
    EXPECT_FALSE(small.AtBoundary());

    // The broker's limit: a length of three bytes at most. The third byte of a longer one is enough.
    const std::size_t threeByteLimit = 1 + 3 + 2097151;
    PacketBoundaries largest(threeByteLimit);
    EXPECT_EQ(largest.Follow(std::string("\x30\xFF\xFF\x7F", 4), ends), Status::Open);
    PacketBoundaries fourBytes(threeByteLimit);
    EXPECT_EQ(fourBytes.Follow(std::string("\x30\x80\x80", 3), ends), Status::Open);
    EXPECT_EQ(fourBytes.Follow(std::string("\x80", 1), ends), Status::TooLarge);

    // Five length bytes are malformed under any limit; the packet before them still ends.
    PacketBoundaries fiveBytes(1 << 30);
    EXPECT_EQ(fiveBytes.Follow(kPingreq + std::string("\x30\xFF\xFF", 3), ends), Status::Open);
    EXPECT_EQ(fiveBytes.Follow(std::string("\xFF\xFF\x01", 3), ends), Status::Malformed);
    EXPECT_EQ(ends, std::vector<std::size_t>{2});
}

}  // namespace
