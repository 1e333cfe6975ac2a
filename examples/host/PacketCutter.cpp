#include "host/PacketCutter.h"

#include <algorithm>

namespace host {

namespace {

// The first byte of a packet a peer may send: a type, and the flags the type allows (any but QoS 3
// for PUBLISH, 2 for PUBREL, SUBSCRIBE and UNSUBSCRIBE, 0 for the others).
bool IsValidFirstByte(unsigned char first)
{
    const unsigned type = first >> 4;
    const unsigned flags = first & 0x0F;
    switch (type) {
    case 0:
        return false;
    case kPublish:
        return (flags & 0x06) != 0x06;
    case kPubrel:
    case kSubscribe:
    case kUnsubscribe:
        return flags == 2;
    default:
        return flags == 0;
    }
}

}  // namespace

PacketBoundaries::Status PacketBoundaries::MeasureHeader()
{
    // The remaining length: 7 bits per byte, least significant first, at most four bytes.
    const std::size_t lengthBytes = header_.size() - 1;
    std::size_t remaining = 0;
    for (std::size_t index = 1; index < header_.size(); index++) {
        remaining |= static_cast<std::size_t>(static_cast<unsigned char>(header_[index]) & 0x7F) << (7 * (index - 1));
    }
    if (lengthBytes == 0) {
        return IsValidFirstByte(static_cast<unsigned char>(header_[0])) ? Status::Open : Status::Malformed;
    }
    if ((static_cast<unsigned char>(header_.back()) & 0x80) == 0) {
        headerWhole_ = true;
        bodyLeft_ = remaining;
        return header_.size() + remaining > maxPacketSize_ ? Status::TooLarge : Status::Open;
    }
    if (lengthBytes == 4) {
        return Status::Malformed;
    }
    // In the shortest encoding, which MQTT requires, a length takes one byte more only from 128 to
    // the power of the bytes it has so far.
    const std::size_t smallestSize = header_.size() + 1 + (std::size_t{1} << (7 * lengthBytes));
    return smallestSize > maxPacketSize_ ? Status::TooLarge : Status::Open;
}

PacketBoundaries::Status PacketBoundaries::Follow(std::string_view bytes, std::vector<std::size_t>& ends)
{
    std::size_t at = 0;
    while (status_ == Status::Open && at < bytes.size()) {
        if (!headerWhole_) {
            header_.push_back(bytes[at++]);
            status_ = MeasureHeader();
        } else {
            const std::size_t taken = std::min(bodyLeft_, bytes.size() - at);
            bodyLeft_ -= taken;
            at += taken;
        }
        if (status_ == Status::Open && headerWhole_ && bodyLeft_ == 0) {
            ends.push_back(at);
            header_.clear();
            headerWhole_ = false;
        }
    }
    return status_;
}

PacketCutter::Status PacketCutter::Cut(std::string_view bytes, std::vector<std::string_view>& packets)
{
    ends_.clear();
    const Status status = boundaries_.Follow(bytes, ends_);
    std::size_t start = 0;
    for (const std::size_t end : ends_) {
        std::string_view packet = bytes.substr(start, end - start);
        if (!pending_.empty()) {
            // Only the first packet of a read can have begun in an earlier one.
            completed_.swap(pending_);
            completed_.append(packet);
            pending_.clear();
            packet = completed_;
        }
        packets.push_back(packet);
        start = end;
    }
    if (status == Status::Open) {
        pending_.append(bytes.substr(start));
    }
    return status;
}

}  // namespace host
