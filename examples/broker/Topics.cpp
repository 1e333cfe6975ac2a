#include "broker/Topics.h"

#include <mutex>

namespace broker {

namespace {

// The level of `text` that starts at `start`, and where the next one starts (npos after the last).
std::string_view Level(std::string_view text, std::size_t& start)
{
    const std::size_t end = text.find('/', start);
    const std::string_view level = text.substr(start, end == std::string_view::npos ? end : end - start);
    start = end == std::string_view::npos ? end : end + 1;
    return level;
}

}  // namespace

bool IsValidTopicName(std::string_view topic)
{
    return !topic.empty() && topic.find_first_of(std::string_view("+#\0", 3)) == std::string_view::npos;
}

bool IsValidTopicFilter(std::string_view filter)
{
    if (filter.empty() || filter.find('\0') != std::string_view::npos) {
        return false;
    }
    for (std::size_t start = 0; start != std::string_view::npos;) {
        const std::string_view level = Level(filter, start);
        const bool hasWildcard = level.find_first_of("+#") != std::string_view::npos;
        if (hasWildcard && level.size() != 1) {
            return false;
        }
        if (level == "#" && start != std::string_view::npos) {
            return false;
        }
    }
    return true;
}

bool TopicMatches(std::string_view filter, std::string_view topic)
{
    if (topic.starts_with('$') && (filter.starts_with('+') || filter.starts_with('#'))) {
        return false;
    }
    std::size_t filterStart = 0;
    std::size_t topicStart = 0;
    while (filterStart != std::string_view::npos) {
        const std::string_view wanted = Level(filter, filterStart);
        if (wanted == "#") {
            return true;
        }
        if (topicStart == std::string_view::npos) {
            return false;
        }
        const std::string_view level = Level(topic, topicStart);
        if (wanted != "+" && wanted != level) {
            return false;
        }
    }
    return topicStart == std::string_view::npos;
}

bool SubscriptionTable::Add(std::uint64_t subscriber, const std::string& filter, SubscriptionOptions options)
{
    std::unique_lock lock(lock_);
    auto [entry, added] = filters_[subscriber].insert_or_assign(filter, options);
    return added;
}

bool SubscriptionTable::Remove(std::uint64_t subscriber, const std::string& filter)
{
    std::unique_lock lock(lock_);
    auto found = filters_.find(subscriber);
    return found != filters_.end() && found->second.erase(filter) > 0;
}

void SubscriptionTable::RemoveAll(std::uint64_t subscriber)
{
    std::unique_lock lock(lock_);
    filters_.erase(subscriber);
}

std::vector<SubscriberMatch> SubscriptionTable::Match(std::string_view topic, std::uint64_t publisher) const
{
    std::shared_lock lock(lock_);
    std::vector<SubscriberMatch> matches;
    for (const auto& [subscriber, filters] : filters_) {
        SubscriberMatch best{subscriber, {-1, false, false}};
        for (const auto& [filter, options] : filters) {
            const bool ownMessage = options.noLocal && subscriber == publisher;
            if (!ownMessage && options.qos > best.options.qos && TopicMatches(filter, topic)) {
                best.options = options;
            }
        }
        if (best.options.qos >= 0) {
            matches.push_back(best);
        }
    }
    return matches;
}

}  // namespace broker
