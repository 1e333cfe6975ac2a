// Cuts one connection's byte stream into whole MQTT packets, from their fixed headers alone.
//
// Both example hosts use it. The broker hands the library's receive side one whole packet per
// MQTTProtocol_Parse_Send, because that is the one input whose fate Send's result reports for sure:
// the library reports a packet it refuses after the first one of an input only through the error flag,
// and that flag is shared by every thread (a worker's wait overwrites it at any moment). Whole packets
// also keep the library from holding a two- or three-byte packet until four bytes have come.
// The client decodes the packets it cuts here directly.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace host {

class PacketCutter
{
public:
    enum class Status { Open, Malformed, TooLarge };

    explicit PacketCutter(std::size_t maxPacketSize) : maxPacketSize_(maxPacketSize) {}

    // Adds the bytes of one read and appends every packet they complete to `packets`, each as its
    // whole bytes (fixed header included). The views stay valid until the next call. Bytes of a packet
    // not yet whole are kept. Once the status is not Open the stream cannot be followed any more.
    Status Cut(std::string_view bytes, std::vector<std::string_view>& packets);

    // True when no bytes of an unfinished packet are kept.
    bool AtBoundary() const { return pending_.empty(); }

private:
    // Size of the packet whose bytes start `bytes` (0 while its fixed header is incomplete).
    Status MeasurePacket(std::string_view bytes, std::size_t& size) const;
    // Completes the kept packet from the front of `bytes`; returns how many bytes it took.
    std::size_t CompletePending(std::string_view bytes, std::vector<std::string_view>& packets);

    std::size_t maxPacketSize_;
    std::string pending_;    // bytes of the packet still arriving
    std::string completed_;  // the last packet that was assembled across reads
    Status status_ = Status::Open;
};

// The packet types both hosts name.
enum PacketType : unsigned char {
    kConnect = 1, kConnack, kPublish, kPuback, kPubrec, kPubrel, kPubcomp, kSubscribe, kSuback,
    kUnsubscribe, kUnsuback, kPingreq, kPingresp, kDisconnect, kAuth
};

}  // namespace host
