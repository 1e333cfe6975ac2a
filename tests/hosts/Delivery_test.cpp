#include "broker/Delivery.h"

#include <gtest/gtest.h>

#include <optional>

namespace {

using namespace broker;

std::shared_ptr<const Message> Made(const char* topic, const char* payload, std::optional<std::uint32_t> expiry = {})
{
    return std::make_shared<const Message>(topic, payload, 1, true, host::PropertyList(), expiry);
}

Outgoing At(int qos) { return Outgoing{Made("t", ""), qos, false, 0}; }

TEST(OutboundFlow, IdentifiersSkipZeroAndThoseStillInFlight)
{
    OutboundFlow flow;
    const unsigned short first = flow.Offer(At(1))->id;  // stays in flight throughout
    EXPECT_EQ(first, 1);
    for (int sent = 0; sent < 65534; sent++) {
        const unsigned short id = flow.Offer(At(1))->id;
        ASSERT_TRUE(flow.OnPuback(id));
    }
    EXPECT_EQ(flow.Offer(At(1))->id, 2) << "after 65535 comes 1, which is in flight, and never 0";
    EXPECT_EQ(flow.Offer(At(0))->id, 0) << "QoS 0 needs no identifier";
}

TEST(OutboundFlow, ReceiveMaximumHoldsMessagesBackInOrder)
{
    OutboundFlow flow;
    flow.SetReceiveMaximum(2);
    const auto one = flow.Offer(At(1));
    const auto two = flow.Offer(At(2));
    ASSERT_TRUE(one && two);
    auto third = At(1);
    auto fourth = At(2);
    EXPECT_FALSE(flow.Offer(third));
    EXPECT_FALSE(flow.Offer(fourth));
    EXPECT_TRUE(flow.Offer(At(0))) << "QoS 0 is not held back";
    EXPECT_FALSE(flow.NextWaiting());

    ASSERT_TRUE(flow.OnPuback(one->id));
    const auto next = flow.NextWaiting();
    ASSERT_TRUE(next);
    EXPECT_EQ(next->message, third.message);
    EXPECT_FALSE(flow.NextWaiting());

    EXPECT_EQ(flow.OnPubrec(two->id, 0x00), OutboundFlow::PubrecAction::SendPubrel);
    EXPECT_EQ(flow.OnPubrec(two->id, 0x00), OutboundFlow::PubrecAction::Unknown) << "it now waits for PUBCOMP";
    EXPECT_FALSE(flow.NextWaiting()) << "a message waiting for PUBCOMP still counts";
    EXPECT_TRUE(flow.OnPubcomp(two->id));
    EXPECT_EQ(flow.NextWaiting()->message, fourth.message);
}

TEST(OutboundFlow, AcknowledgementsMustMatchTheStage)
{
    OutboundFlow flow;
    const auto qos1 = flow.Offer(At(1));
    const auto qos2 = flow.Offer(At(2));
    EXPECT_FALSE(flow.OnPubcomp(qos1->id));
    EXPECT_EQ(flow.OnPubrec(qos1->id, 0), OutboundFlow::PubrecAction::Unknown);
    EXPECT_FALSE(flow.OnPuback(qos2->id));
    EXPECT_EQ(flow.OnPubrec(qos2->id, 0x80), OutboundFlow::PubrecAction::Ended);
    EXPECT_FALSE(flow.OnPubcomp(qos2->id));
    EXPECT_TRUE(flow.OnPuback(qos1->id));
}

TEST(InboundQos2, ARepeatedPublishIsNotRoutedTwice)
{
    InboundQos2 inbound;
    EXPECT_TRUE(inbound.Begin(7));
    EXPECT_FALSE(inbound.Begin(7));
    EXPECT_TRUE(inbound.Release(7));
    EXPECT_FALSE(inbound.Release(7));
    EXPECT_TRUE(inbound.Begin(7));
}

TEST(Message, GoesOutWithEachSubscribersIdentifierFlagsAndRemainingExpiry)
{
    const auto now = Clock::now();
    std::string out;
    ASSERT_TRUE(Made("t/x", "hi")->AppendPacket(out, 1, 0x0102, true, now));
    EXPECT_EQ(out, std::string("\x33\x0A\x00\x03t/x\x01\x02\x00hi", 12));
    EXPECT_EQ(Made("t/x", "hi")->PacketSize(1), out.size());
    out.clear();
    ASSERT_TRUE(Made("t/x", "hi")->AppendPacket(out, 0, 0, false, now));
    EXPECT_EQ(out, std::string("\x30\x08\x00\x03t/x\x00hi", 10));
    out.clear();
    const auto expiring = Made("t", "p", 60);
    ASSERT_TRUE(expiring->AppendPacket(out, 0, 0, false, now + std::chrono::seconds(20)));
    EXPECT_EQ(out, std::string("\x30\x0A\x00\x01t\x05\x02\x00\x00\x00\x28p", 12)) << "40 s are left";
    EXPECT_EQ(expiring->PacketSize(0), out.size());
    EXPECT_FALSE(expiring->AppendPacket(out, 0, 0, false, now + std::chrono::seconds(61)));
}

}  // namespace
