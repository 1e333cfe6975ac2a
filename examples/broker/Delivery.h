// The broker's side of the QoS flows towards one subscriber, the QoS 2 messages it has received and
// not yet released, and the retained messages. None of these classes locks: the broker holds the
// connection's lock around its flows.
#pragma once

#include "host/Packets.h"

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace broker {

// One published message, shared by every subscriber it goes to.
struct Message
{
    std::string topic;
    std::string payload;
    int qos = 0;
    bool retain = false;
    host::PropertyList properties;
};

struct Outgoing
{
    std::shared_ptr<const Message> message;
    int qos = 0;             // the lower of the message's and the subscription's
    bool retain = false;     // the RETAIN flag it goes out with
    unsigned short id = 0;   // given when it may go, for QoS 1 and 2
};

// Messages on their way to one subscriber: at most its receive maximum of QoS 1 and 2 messages wait
// for their acknowledgements at once; more wait here, in order, until one is acknowledged.
class OutboundFlow
{
public:
    enum class PubrecAction { Unknown, SendPubrel, Ended };

    void SetReceiveMaximum(unsigned maximum) { receiveMaximum_ = maximum; }

    // The message with its identifier when it may go now, otherwise nothing (it waits).
    std::optional<Outgoing> Offer(Outgoing item);
    // The next waiting message, with its identifier, if the window has room for it now.
    std::optional<Outgoing> NextWaiting();

    // Each returns false for an identifier that does not wait for that packet.
    bool OnPuback(unsigned short id);
    PubrecAction OnPubrec(unsigned short id, unsigned char reason);
    bool OnPubcomp(unsigned short id);

private:
    enum class Stage { AwaitPuback, AwaitPubrec, AwaitPubcomp };
    bool Ends(unsigned short id, Stage stage);
    // Never 0: the library's acknowledgement builders leave a zero identifier out.
    unsigned short NewId();

    unsigned receiveMaximum_ = 65535;
    unsigned short lastId_ = 0;
    std::map<unsigned short, Stage> inFlight_;
    std::deque<Outgoing> waiting_;
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

// The last retained message of each topic. Safe to use from several threads.
class RetainedMessages
{
public:
    // Keeps the message for its topic; an empty payload removes the topic's message.
    void Store(const std::shared_ptr<const Message>& message);
    std::vector<std::shared_ptr<const Message>> Matching(const std::string& filter) const;

private:
    mutable std::mutex lock_;
    std::map<std::string, std::shared_ptr<const Message>> byTopic_;
};

}  // namespace broker
