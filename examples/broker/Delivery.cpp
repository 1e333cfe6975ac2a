#include "broker/Delivery.h"

#include "broker/Topics.h"

namespace broker {

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

bool OutboundFlow::OnPuback(unsigned short id)
{
    return Ends(id, Stage::AwaitPuback);
}

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

bool OutboundFlow::OnPubcomp(unsigned short id)
{
    return Ends(id, Stage::AwaitPubcomp);
}

void RetainedMessages::Store(const std::shared_ptr<const Message>& message)
{
    std::lock_guard lock(lock_);
    if (message->payload.empty()) {
        byTopic_.erase(message->topic);
    } else {
        byTopic_[message->topic] = message;
    }
}

std::vector<std::shared_ptr<const Message>> RetainedMessages::Matching(const std::string& filter) const
{
    std::lock_guard lock(lock_);
    std::vector<std::shared_ptr<const Message>> matching;
    for (const auto& [topic, message] : byTopic_) {
        if (TopicMatches(filter, topic)) {
            matching.push_back(message);
        }
    }
    return matching;
}

}  // namespace broker
