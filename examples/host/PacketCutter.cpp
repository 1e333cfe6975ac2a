#include "host/PacketCutter.h"

#include <algorithm>

namespace host {

PacketCutter::Status PacketCutter::MeasurePacket(std::string_view bytes, std::size_t& size) const
{
    // The remaining length: 7 bits per byte, least significant first, at most four bytes.
    std::size_t remaining = 0;
    for (std::size_t index = 1, shift = 0; index <= 4; index++, shift += 7) {
        if (index >= bytes.size()) {
            size = 0;
            return Status::Open;
        }
        const auto lengthByte = static_cast<unsigned char>(bytes[index]);
        remaining |= static_cast<std::size_t>(lengthByte & 0x7F) << shift;
        if ((lengthByte & 0x80) == 0) {
            size = 1 + index + remaining;
            return size > maxPacketSize_ ? Status::TooLarge : Status::Open;
        }
    }
    return Status::Malformed;
}

std::size_t PacketCutter::CompletePending(std::string_view bytes, std::vector<std::string_view>& packets)
{
    std::size_t taken = 0;
    std::size_t size = 0;
    // A fixed header split between reads is completed one byte at a time (it has at most five).
    while ((status_ = MeasurePacket(pending_, size)) == Status::Open && size == 0) {
        if (taken == bytes.size()) {
            return taken;
        }
        pending_.push_back(bytes[taken++]);
    }
    if (status_ != Status::Open) {
        return taken;
    }
    const std::size_t wanted = std::min(size - pending_.size(), bytes.size() - taken);
    pending_.append(bytes.substr(taken, wanted));
    taken += wanted;
    if (pending_.size() == size) {
        completed_.swap(pending_);
        pending_.clear();
        packets.push_back(completed_);
    }
    return taken;
}

PacketCutter::Status PacketCutter::Cut(std::string_view bytes, std::vector<std::string_view>& packets)
{
    if (status_ != Status::Open) {
        return status_;
    }
    if (!pending_.empty()) {
        bytes.remove_prefix(CompletePending(bytes, packets));
        if (status_ != Status::Open || !pending_.empty()) {
            return status_;
        }
    }
    while (!bytes.empty()) {
        std::size_t size = 0;
        if ((status_ = MeasurePacket(bytes, size)) != Status::Open) {
            return status_;
        }
        if (size == 0 || size > bytes.size()) {
            pending_.assign(bytes);
            return status_;
        }
        packets.push_back(bytes.substr(0, size));
        bytes.remove_prefix(size);
    }
    return status_;
}

}  // namespace host
