// Topic names, topic filters with the + and # wildcards, and the broker's table of subscriptions.
#pragma once

#include <cstdint>
#include <map>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

namespace broker {

// A name to publish to: not empty, no wildcard, no NUL.
bool IsValidTopicName(std::string_view topic);
// A filter: not empty, no NUL; + stands alone in its level; # stands alone in the last level.
bool IsValidTopicFilter(std::string_view filter);
// + matches exactly one level, # the parent level and every level below it. A wildcard in the first
// level does not match a topic that begins with $.
bool TopicMatches(std::string_view filter, std::string_view topic);

struct SubscriptionOptions
{
    int qos = 0;
    bool noLocal = false;            // not sent back to the client that published it
    bool retainAsPublished = false;  // forwarded with the RETAIN flag it was published with
};

struct SubscriberMatch
{
    std::uint64_t subscriber = 0;
    SubscriptionOptions options;  // of the matching filter with the highest QoS
};

// Every connection's filters. Safe to use from several threads.
class SubscriptionTable
{
public:
    // Returns true when the filter is new for the subscriber; a repeated filter replaces its options.
    bool Add(std::uint64_t subscriber, const std::string& filter, SubscriptionOptions options);
    // Returns true when the subscriber had the filter.
    bool Remove(std::uint64_t subscriber, const std::string& filter);
    void RemoveAll(std::uint64_t subscriber);
    // Each subscriber with a filter that matches the topic, once. A filter with No Local set does not
    // match the publisher's own messages.
    std::vector<SubscriberMatch> Match(std::string_view topic, std::uint64_t publisher) const;

private:
    mutable std::shared_mutex lock_;
    std::map<std::uint64_t, std::map<std::string, SubscriptionOptions>> filters_;
};

}  // namespace broker
