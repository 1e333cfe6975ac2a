// Messages and where they wait: the broker's side of the QoS flows towards one subscriber, the QoS 2
// messages it has received and not yet released, the retained messages, and the memory cap over all
// clients. None of the per-client classes locks: the broker holds the connection's lock around them.
#pragma once

#include "host/Properties.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace broker {

using Clock = std::chrono::steady_clock;

// One published message, shared by every subscriber it goes to.
class Message
{
public:
    Message(std::string topic, std::string payload, int qos, bool retain, host::PropertyList properties,
            std::optional<std::uint32_t> expirySeconds);

    const std::string topic;
    const std::string payload;
    const int qos;
    const bool retain;
    const host::PropertyList properties;  // as published, less Topic Alias and Message Expiry Interval
    const std::optional<Clock::time_point> expiresAt;

    // What the message weighs in a queue: about its size on the wire.
    std::size_t Size() const { return topic.size() + payload.size() + properties.BlockSize() + 16; }
    // Its PUBLISH on the wire at `qos`, the expiry interval included.
    std::size_t PacketSize(int qos) const;
    bool Expired(Clock::time_point now) const { return expiresAt && now >= *expiresAt; }
    // Appends the PUBLISH as it goes to one subscriber; false, appending nothing, once it has expired.
    // A message with an expiry interval goes out with what is left of it.
    bool AppendPacket(std::string& out, int qos, unsigned short id, bool retain, Clock::time_point now) const;

private:
    // The packet without expiry, at QoS 0 and with an identifier to patch, each built once. (A mutex,
    // not std::call_once: glibc's once wakes possible waiters with a system call every time.)
    const std::string& Wire(bool withId) const;

    mutable std::mutex wireLock_;
    mutable std::string wire_[2];
    mutable std::size_t idOffset_ = 0;  // where the identifier lies in wire_[1]
};

struct Outgoing
{
    std::shared_ptr<const Message> message;
    int qos = 0;            // the lower of the message's and the subscription's
    bool retain = false;    // the RETAIN flag it goes out with
    unsigned short id = 0;  // given when it may go, for QoS 1 and 2
};

// Messages on their way to one subscriber: at most its receive maximum of QoS 1 and 2 messages wait
// for their acknowledgements at once; more wait here, in order, until one is acknowledged.
class OutboundFlow
{
public:
    enum class PubrecAction
    {
        Unknown,
        SendPubrel,
        Ended
    };

    void SetReceiveMaximum(unsigned maximum) { receiveMaximum_ = maximum; }

    // The message with its identifier when it may go now, otherwise nothing (it waits).
    std::optional<Outgoing> Offer(Outgoing item);
    // The next waiting message, with its identifier, if the window has room for it now.
    std::optional<Outgoing> NextWaiting();
    std::size_t WaitingCount() const { return waiting_.size(); }
    std::size_t WaitingBytes() const { return waitingBytes_; }

    // Each returns false for an identifier that does not wait for that packet.
    bool OnPuback(unsigned short id);
    PubrecAction OnPubrec(unsigned short id, unsigned char reason);
    bool OnPubcomp(unsigned short id);
    // Gives up a message in flight that can no longer go out (it expired while it waited).
    void Abandon(unsigned short id) { inFlight_.erase(id); }

private:
    enum class Stage
    {
        AwaitPuback,
        AwaitPubrec,
        AwaitPubcomp
    };
    bool Ends(unsigned short id, Stage stage);
    // Never 0: the library's acknowledgement builders leave a zero identifier out.
    unsigned short NewId();

    unsigned receiveMaximum_ = 65535;
    unsigned short lastId_ = 0;
    std::map<unsigned short, Stage> inFlight_;
    std::deque<Outgoing> waiting_;
    std::size_t waitingBytes_ = 0;
};

// QoS 2 messages received and acknowledged with PUBREC, until their PUBREL.
class InboundQos2
{
public:
    // True for a new identifier; false for a repeat, which must not be routed again.
    bool Begin(unsigned short id) { return pending_.insert(id).second; }
    // True when the identifier was pending.
    bool Release(unsigned short id) { return pending_.erase(id) > 0; }

private:
    std::set<unsigned short> pending_;
};

// The last retained message of each topic, within a count and a byte limit; a message whose expiry
// interval has passed is forgotten. Safe to use from several threads.
class RetainedMessages
{
public:
    RetainedMessages(std::size_t maxMessages, std::size_t maxBytes) : maxMessages_(maxMessages), maxBytes_(maxBytes) {}

    // Keeps the message for its topic; an empty payload removes the topic's message. False when the
    // message would overrun a limit (the topic's earlier message then stays).
    bool Store(const std::shared_ptr<const Message>& message);
    std::vector<std::shared_ptr<const Message>> Matching(const std::string& filter);

private:
    void Erase(std::map<std::string, std::shared_ptr<const Message>>::iterator at);

    const std::size_t maxMessages_;
    const std::size_t maxBytes_;
    std::mutex lock_;
    std::map<std::string, std::shared_ptr<const Message>> byTopic_;
    std::size_t bytes_ = 0;
};

// The bytes waiting for all clients together (queued messages and unsent packets), within a cap.
class MemoryCap
{
public:
    explicit MemoryCap(std::size_t cap) : cap_(cap) {}
    // Counts bytes of a message in; false, counting nothing, when they would pass the cap.
    bool TryCharge(std::size_t bytes);
    // Counts bytes that must go out whatever the cap (acknowledgements, a DISCONNECT).
    void Charge(std::size_t bytes) { used_ += bytes; }
    void Release(std::size_t bytes) { used_ -= bytes; }

private:
    const std::size_t cap_;
    std::atomic<std::size_t> used_{0};
};

}  // namespace broker
