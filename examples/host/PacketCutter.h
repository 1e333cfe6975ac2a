// Following one connection's byte stream packet by packet, from the fixed headers alone.
//
// The broker hands every read to the library's receive side just as it came, and lets the library
// cut the stream into packets: PacketBoundaries only tells it where the packets begin and end, so
// that it knows whether a connection's input ended at a packet boundary (see Broker.cpp for why that
// matters). The client has no library receive side: PacketCutter, built on the same boundaries,
// gives it whole packets, which it decodes directly.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace host {

class PacketBoundaries
{
public:
    enum class Status
    {
        Open,
        Malformed,
        TooLarge
    };

    explicit PacketBoundaries(std::size_t maxPacketSize) : maxPacketSize_(maxPacketSize) {}

    // Follows the bytes of one read and appends to `ends` the offset, within `bytes`, just after each
    // packet that ends in them. A first byte with a type or flags no packet has, or a length of five
    // bytes, is Malformed; a packet larger than the limit is
    // TooLarge as soon as the length bytes so far show it. Once the status is not Open the stream
    // cannot be followed any more, and nothing further is followed.
    Status Follow(std::string_view bytes, std::vector<std::size_t>& ends);

    // True while the stream can be followed and no packet is part-way.
    bool AtBoundary() const { return status_ == Status::Open && header_.empty(); }

private:
    // Decodes the fixed header as far as it has come; once it is whole, sets bodyLeft_.
    Status MeasureHeader();

    std::size_t maxPacketSize_;
    std::string header_;  // the fixed header of the packet under way, as far as it came
    bool headerWhole_ = false;
    std::size_t bodyLeft_ = 0;  // once the header is whole: bytes of the packet still to come
    Status status_ = Status::Open;
};

class PacketCutter
{
public:
    using Status = PacketBoundaries::Status;

    explicit PacketCutter(std::size_t maxPacketSize) : boundaries_(maxPacketSize) {}

    // Adds the bytes of one read and appends every packet they complete to `packets`, each as its
    // whole bytes (fixed header included): views into `bytes`, or into the cutter for a packet begun in
    // an earlier read, valid until the next call while `bytes` lives. Bytes of a packet not yet whole
    // are kept. The status is that of PacketBoundaries::Follow.
    Status Cut(std::string_view bytes, std::vector<std::string_view>& packets);

private:
    PacketBoundaries boundaries_;
    std::vector<std::size_t> ends_;
    std::string pending_;    // bytes of the packet still arriving
    std::string completed_;  // the last packet that was assembled across reads
};

// The packet types both hosts name.
enum PacketType : unsigned char
{
    kConnect = 1,
    kConnack,
    kPublish,
    kPuback,
    kPubrec,
    kPubrel,
    kPubcomp,
    kSubscribe,
    kSuback,
    kUnsubscribe,
    kUnsuback,
    kPingreq,
    kPingresp,
    kDisconnect,
    kAuth
};

}  // namespace host
