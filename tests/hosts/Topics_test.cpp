#include "broker/Topics.h"

#include <gtest/gtest.h>

namespace {

using namespace broker;

TEST(Topics, WildcardsMatchWholeLevels)
{
    struct Case
    {
        const char* filter;
        const char* topic;
        bool matches;
    };
    const Case cases[] = {
        {"a/b", "a/b", true},       {"a/b", "a/b/c", false},     {"a/b", "a/bc", false},   {"a/+", "a/b", true},
        {"a/+", "a/b/c", false},    {"a/+", "a", false},         {"a/+", "a/", true},      {"+/b", "a/b", true},
        {"+/+", "/b", true},        {"a/#", "a", true},          {"a/#", "a/b/c", true},   {"a/#", "ab", false},
        {"#", "a/b", true},         {"#", "$SYS/x", false},      {"+/x", "$SYS/x", false}, {"$SYS/#", "$SYS/x", true},
        {"a/+/c/#", "a/b/c", true}, {"a/+/c/#", "a/b/d", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(TopicMatches(c.filter, c.topic), c.matches) << c.filter << " on " << c.topic;
    }
}

TEST(Topics, ValidNamesAndFilters)
{
    for (const char* good : {"a", "a/+/b", "+", "#", "a/#", "/", "+/+"}) {
        EXPECT_TRUE(IsValidTopicFilter(good)) << good;
    }
    for (const char* bad : {"", "a/#/b", "a+", "a/b#", "##"}) {
        EXPECT_FALSE(IsValidTopicFilter(bad)) << bad;
    }
    EXPECT_FALSE(IsValidTopicName("a/+"));
    EXPECT_FALSE(IsValidTopicName(""));
    EXPECT_FALSE(IsValidTopicName(std::string_view("a\0b", 3)));
}

TEST(SubscriptionTable, EachSubscriberMatchesOnceAtItsHighestQos)
{
    SubscriptionTable table;
    EXPECT_TRUE(table.Add(1, "a/#", {0, false, false}));
    EXPECT_TRUE(table.Add(1, "a/+", {2, false, true}));
    EXPECT_FALSE(table.Add(1, "a/+", {1, false, true})) << "a repeated filter replaces its options";
    EXPECT_TRUE(table.Add(2, "a/b", {1, true, false}));
    EXPECT_TRUE(table.Add(3, "x", {2, false, false}));

    const auto matches = table.Match("a/b", 2);
    ASSERT_EQ(matches.size(), 1U) << "No Local keeps subscriber 2's own message from it";
    EXPECT_EQ(matches[0].subscriber, 1U);
    EXPECT_EQ(matches[0].options.qos, 1);
    EXPECT_TRUE(matches[0].options.retainAsPublished);
    EXPECT_EQ(table.Match("a/b", 9).size(), 2U);

    EXPECT_TRUE(table.Remove(1, "a/+"));
    EXPECT_FALSE(table.Remove(1, "a/+"));
    table.RemoveAll(2);
    const auto after = table.Match("a/b", 9);
    ASSERT_EQ(after.size(), 1U);
    EXPECT_EQ(after[0].options.qos, 0);
}

}  // namespace
