#include "broker/Delivery.h"

#include "broker/Topics.h"
#include "host/PacketCutter.h"
#include "host/Packets.h"

#include <algorithm>

namespace broker {

Message::Message(std::string topic, std::string payload, int qos, bool retain, host::PropertyList properties,
                 std::optional<std::uint32_t> expirySeconds)
    : topic(std::move(topic)), payload(std::move(payload)), qos(qos), retain(retain), properties(std::move(properties)),
      expiresAt(expirySeconds ? std::optional(Clock::now() + std::chrono::seconds(*expirySeconds)) : std::nullopt)
{
}

std::size_t Message::PacketSize(int qos) const
{
    // Topic, identifier, the property block with its length byte (and the expiry, 5 bytes), payload.
    const std::size_t expiry = expiresAt ? 5 : 0;
    return host::WireSize(2 + topic.size() + (qos > 0 ? 2 : 0) + 1 + properties.BlockSize() + expiry + payload.size());
}

const std::string& Message::Wire(bool withId) const
{
    std::lock_guard lock(wireLock_);
    if (wire_[withId].empty()) {
        // Identifier 1 stands in for the one each subscriber gets: it lies behind the topic.
        wire_[withId] = host::PublishPacket(topic, payload, withId ? 1 : 0, withId ? 1 : 0, false, properties);
        if (withId) {
            std::size_t lastLengthByte = 1;
            while (static_cast<unsigned char>(wire_[withId][lastLengthByte]) & 0x80) {
                lastLengthByte++;
            }
            idOffset_ = lastLengthByte + 1 + 2 + topic.size();
        }
    }
    return wire_[withId];
}

bool Message::AppendPacket(std::string& out, int qos, unsigned short id, bool retain, Clock::time_point now) const
{
    if (expiresAt) {
        if (now >= *expiresAt) {
            return false;
        }
        host::PropertyList withExpiry = properties;
        // Whole seconds left, at least one while it has not expired.
        const auto left = std::chrono::duration_cast<std::chrono::seconds>(*expiresAt - now).count();
        withExpiry.AddU32(host::kMessageExpiryInterval, static_cast<std::uint32_t>(std::max<long>(left, 1)));
        out += host::PublishPacket(topic, payload, qos, id, retain, withExpiry);
        return true;
    }
    const std::string& wire = Wire(qos > 0);
    const std::size_t at = out.size();
    out += wire;
    out[at] = static_cast<char>(host::kPublish << 4 | qos << 1 | (retain ? 1 : 0));
    if (qos > 0) {
        out[at + idOffset_] = static_cast<char>(id >> 8);
        out[at + idOffset_ + 1] = static_cast<char>(id & 0xFF);
    }
    return true;
}

unsigned short OutboundFlow::NewId()
{
    do {
        lastId_ = static_cast<unsigned short>(lastId_ == 65535 ? 1 : lastId_ + 1);
    } while (inFlight_.contains(lastId_));
    return lastId_;
}

std::optional<Outgoing> OutboundFlow::Offer(Outgoing item)
{
    if (item.qos == 0) {
        return item;
    }
    waitingBytes_ += item.message->Size();
    waiting_.push_back(std::move(item));
    return NextWaiting();
}

std::optional<Outgoing> OutboundFlow::NextWaiting()
{
    if (waiting_.empty() || inFlight_.size() >= receiveMaximum_) {
        return std::nullopt;
    }
    Outgoing next = std::move(waiting_.front());
    waiting_.pop_front();
    waitingBytes_ -= next.message->Size();
    next.id = NewId();
    inFlight_[next.id] = next.qos == 1 ? Stage::AwaitPuback : Stage::AwaitPubrec;
    return next;
}

bool OutboundFlow::Ends(unsigned short id, Stage stage)
{
    auto found = inFlight_.find(id);
    if (found == inFlight_.end() || found->second != stage) {
        return false;
    }
    inFlight_.erase(found);
    return true;
}

bool OutboundFlow::OnPuback(unsigned short id) { return Ends(id, Stage::AwaitPuback); }

OutboundFlow::PubrecAction OutboundFlow::OnPubrec(unsigned short id, unsigned char reason)
{
    auto found = inFlight_.find(id);
    if (found == inFlight_.end() || found->second != Stage::AwaitPubrec) {
        return PubrecAction::Unknown;
    }
    // A reason code of 0x80 or more ends the message at PUBREC.
    if (reason >= 0x80) {
        inFlight_.erase(found);
        return PubrecAction::Ended;
    }
    found->second = Stage::AwaitPubcomp;
    return PubrecAction::SendPubrel;
}

bool OutboundFlow::OnPubcomp(unsigned short id) { return Ends(id, Stage::AwaitPubcomp); }

void RetainedMessages::Erase(std::map<std::string, std::shared_ptr<const Message>>::iterator at)
{
    bytes_ -= at->second->Size();
    byTopic_.erase(at);
}

bool RetainedMessages::Store(const std::shared_ptr<const Message>& message)
{
    std::lock_guard lock(lock_);
    const auto found = byTopic_.find(message->topic);
    const std::size_t replaced = found == byTopic_.end() ? 0 : found->second->Size();
    if (message->payload.empty()) {
        if (found != byTopic_.end()) {
            Erase(found);
        }
        return true;
    }
    const std::size_t count = byTopic_.size() + (found == byTopic_.end() ? 1 : 0);
    if (count > maxMessages_ || bytes_ - replaced + message->Size() > maxBytes_) {
        return false;
    }
    bytes_ = bytes_ - replaced + message->Size();
    byTopic_[message->topic] = message;
    return true;
}

std::vector<std::shared_ptr<const Message>> RetainedMessages::Matching(const std::string& filter)
{
    std::lock_guard lock(lock_);
    const auto now = Clock::now();
    std::vector<std::shared_ptr<const Message>> matching;
    for (auto at = byTopic_.begin(); at != byTopic_.end();) {
        const auto next = std::next(at);
        if (at->second->Expired(now)) {
            Erase(at);
        } else if (TopicMatches(filter, at->first)) {
            matching.push_back(at->second);
        }
        at = next;
    }
    return matching;
}

bool MemoryCap::TryCharge(std::size_t bytes)
{
    std::size_t used = used_.load(std::memory_order_relaxed);
    do {
        if (used + bytes > cap_) {
            return false;
        }
    } while (!used_.compare_exchange_weak(used, used + bytes, std::memory_order_relaxed));
    return true;
}

}  // namespace broker
