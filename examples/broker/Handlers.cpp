// The packet handlers: what the broker does with each packet a worker takes, and how a message goes
// from its publisher to every subscriber.
#include "broker/BrokerState.h"

#include "host/Reasons.h"

#include <algorithm>

namespace broker {

using namespace host;

namespace {

// Only one filter per SUBSCRIBE or UNSUBSCRIBE: the library reads the first filter and its
// acknowledgements carry one reason code. A packet with several (mosquitto_sub -t a -t b) is refused
// whole, so that no client believes the other filters were taken.
constexpr unsigned char kSeveralFilters = kImplementationSpecificError;

}  // namespace

void Broker::State::SendPublishLocked(Connection& subscriber, const Outgoing& outgoing)
{
    const Message& message = *outgoing.message;
    const std::size_t before = subscriber.unsent.size();
    if (!message.AppendPacket(subscriber.unsent, outgoing.qos, outgoing.id, outgoing.retain, Clock::now())) {
        subscriber.outbound.Abandon(outgoing.id);  // it expired while it waited
        return;
    }
    if (Tracing()) {
        PacketTrace trace =
            PacketTrace().Type(kPublish).Topic(message.topic).Qos(outgoing.qos).Payload(message.payload.size());
        if (outgoing.qos > 0) {
            trace.Id(outgoing.id);
        }
        Trace(subscriber, "out", trace.Size(subscriber.unsent.size() - before));
    }
    Charged(subscriber, before);
}

void Broker::State::SendWaitingLocked(Connection& subscriber)
{
    while (auto next = subscriber.outbound.NextWaiting()) {
        memory.Release(next->message->Size());
        SendPublishLocked(subscriber, *next);
    }
}

// Hands the message to the subscriber's flow. Beyond the subscriber's limits (its maximum packet
// size, its queue, the memory cap) a QoS 0 message is dropped; a QoS 1 or 2 message, which the
// subscriber was promised, ends the subscriber's connection with 0x97 instead.
void Broker::State::Deliver(Connection& subscriber, Outgoing outgoing)
{
    const std::size_t size = outgoing.message->Size();
    bool overrun = false;
    {
        std::lock_guard lock(subscriber.lock);
        if (subscriber.phase != Phase::Connected ||
            (subscriber.maximumPacketSize &&
             outgoing.message->PacketSize(outgoing.qos) > subscriber.maximumPacketSize)) {
            return;
        }
        const bool queueFull =
            subscriber.UnsentBytes() + subscriber.outbound.WaitingBytes() + size > options.maxQueuedBytes ||
            (outgoing.qos > 0 && subscriber.outbound.WaitingCount() >= options.maxQueuedMessages);
        if (queueFull || !memory.TryCharge(size)) {
            overrun = outgoing.qos > 0;
        } else if (auto ready = subscriber.outbound.Offer(std::move(outgoing))) {
            memory.Release(size);
            SendPublishLocked(subscriber, *ready);
        }
    }
    if (overrun) {
        RefuseClient(subscriber, kQuotaExceeded);
    }
}

std::size_t Broker::State::Route(const Connection& publisher, const std::shared_ptr<const Message>& message)
{
    const auto matches = subscriptions.Match(message->topic, publisher.id);
    for (const auto& match : matches) {
        if (auto subscriber = registry.Find(match.subscriber)) {
            const bool retain = match.options.retainAsPublished && message->retain;
            Deliver(*subscriber, {message, std::min(message->qos, match.options.qos), retain, 0});
        }
    }
    return matches.size();
}

void Broker::State::OnConnect(Connection& connection, const char* body, int length)
{
    Connect connect;
    const unsigned char refusal = DecodeConnect(body, length, connect);
    TraceIn(connection, kConnect, length, PacketTrace());
    if (refusal != kSuccess) {
        Refuse(connection, ConnackPacket(refusal, {}), PacketTrace().Reason(refusal));
        return;
    }
    PropertyList properties;
    properties.AddU32(kMaximumPacketSize, static_cast<unsigned>(options.maxPacketSize));
    properties.AddByte(kSubscriptionIdsAvailable, 0);
    properties.AddByte(kSharedSubscriptionAvailable, 0);
    if (connect.clientId.empty()) {
        connect.clientId = "ostrel-" + std::to_string(connection.id);
        properties.AddString(kAssignedClientId, connect.clientId);
    }
    connection.label.store(std::make_shared<const std::string>(connection.address + " " + connect.clientId));
    {
        std::lock_guard lock(connection.lock);
        if (!connection.Enter(Phase::Connected)) {
            return;
        }
        connection.clientId = connect.clientId;
        connection.maximumPacketSize = connect.maximumPacketSize;
        connection.outbound.SetReceiveMaximum(connect.receiveMaximum);
        connection.keepAliveMs = static_cast<long>(connect.keepAlive) * 1000;
        WriteLocked(connection, ConnackPacket(kSuccess, properties), PacketTrace().Reason(kSuccess));
    }
    // A second connection with the client identifier takes the session over from the first.
    if (const auto previous = registry.Claim(connect.clientId, connection.shared_from_this())) {
        RefuseClient(*previous, kSessionTakenOver);
    }
}

void Broker::State::OnPublish(Connection& connection, MQTTPROTOCOL_FIXEDHEADER header, const char* body, int length)
{
    Publish publish;
    if (!DecodePublish(header, body, length, publish)) {
        RefuseClient(connection, kMalformedPacket);
        return;
    }
    if (Tracing()) {
        PacketTrace trace = PacketTrace().Topic(publish.topic).Qos(publish.qos).Payload(publish.payload.size());
        if (publish.qos > 0) {
            trace.Id(publish.id);
        }
        TraceIn(connection, kPublish, length, std::move(trace));
    }
    if (!IsValidTopicName(publish.topic)) {
        RefuseClient(connection, kTopicNameInvalid);
        return;
    }
    if (publish.hasTopicAlias) {
        RefuseClient(connection, kTopicAliasInvalid);  // the broker announces no Topic Alias Maximum
        return;
    }
    bool isNew = true;
    if (publish.qos == 2) {
        std::lock_guard lock(connection.lock);
        isNew = connection.inbound.Begin(publish.id);
    }
    unsigned char reason = kSuccess;
    if (isNew) {
        auto message =
            std::make_shared<const Message>(std::move(publish.topic), std::move(publish.payload), publish.qos,
                                            publish.retain, std::move(publish.properties), publish.messageExpiry);
        if (message->retain) {
            retained.Store(message);
        }
        reason = Route(connection, message) == 0 ? kNoMatchingSubscribers : kSuccess;
    }
    if (publish.qos > 0) {
        std::lock_guard lock(connection.lock);
        WriteLocked(connection, AckPacket(publish.qos == 1 ? kPuback : kPubrec, publish.id, reason),
                    PacketTrace().Id(publish.id).Reason(reason));
    }
}

void Broker::State::OnAcknowledgement(Connection& connection, unsigned char type, const char* body, int length)
{
    Ack ack;
    if (!DecodeAck(body, length, ack)) {
        RefuseClient(connection, kMalformedPacket);
        return;
    }
    TraceIn(connection, type, length, PacketTrace().Id(ack.id).Reason(ack.reason));
    std::lock_guard lock(connection.lock);
    auto reply = [&](unsigned char replyType, unsigned char reason) {
        WriteLocked(connection, AckPacket(replyType, ack.id, reason), PacketTrace().Id(ack.id).Reason(reason));
    };
    switch (type) {
    case kPuback:
        connection.outbound.OnPuback(ack.id);
        break;
    case kPubrec:
        switch (connection.outbound.OnPubrec(ack.id, ack.reason)) {
        case OutboundFlow::PubrecAction::SendPubrel:
            reply(kPubrel, kSuccess);
            return;
        case OutboundFlow::PubrecAction::Unknown:
            reply(kPubrel, kPacketIdNotFound);
            return;
        case OutboundFlow::PubrecAction::Ended:
            break;
        }
        break;
    case kPubrel:
        reply(kPubcomp, connection.inbound.Release(ack.id) ? kSuccess : kPacketIdNotFound);
        return;
    default:  // PUBCOMP
        connection.outbound.OnPubcomp(ack.id);
        break;
    }
    SendWaitingLocked(connection);
}

void Broker::State::OnSubscribe(Connection& connection, const char* body, int length)
{
    Subscription subscription;
    if (!DecodeSubscribe(body, length, subscription) || subscription.options.byMaxQos == 3) {
        RefuseClient(connection, kMalformedPacket);
        return;
    }
    const int qos = subscription.options.byMaxQos;
    const unsigned handling = subscription.options.byRetainHandling;
    TraceIn(connection, kSubscribe, length, PacketTrace().Id(subscription.id).Topic(subscription.filter).Qos(qos));
    if (handling == 3) {
        RefuseClient(connection, kProtocolError);
        return;
    }
    unsigned char reason = static_cast<unsigned char>(qos);
    bool isNew = false;
    if (subscription.filterCount > 1) {
        reason = kSeveralFilters;
    } else if (!IsValidTopicFilter(subscription.filter)) {
        reason = kTopicFilterInvalid;
    } else if (subscription.filter.starts_with("$share/")) {
        reason = kSharedSubscriptionsNotSupported;
    }
    {
        std::lock_guard lock(connection.lock);  // not after Close has removed the connection's filters
        if (reason < 0x80) {
            isNew = connection.phase == Phase::Connected &&
                    subscriptions.Add(
                        connection.id, subscription.filter,
                        {qos, subscription.options.byNoLocal != 0, subscription.options.byRetainAsPublished != 0});
        }
        WriteLocked(connection, SubscriptionAckPacket(kSuback, subscription.id, reason),
                    PacketTrace().Id(subscription.id).Reason(reason));
    }
    if (reason < 0x80 && (handling == 0 || (handling == 1 && isNew))) {
        for (const auto& message : retained.Matching(subscription.filter)) {
            Deliver(connection, {message, std::min(message->qos, qos), true, 0});
        }
    }
}

void Broker::State::OnUnsubscribe(Connection& connection, const char* body, int length)
{
    Subscription subscription;
    if (!DecodeUnsubscribe(body, length, subscription)) {
        RefuseClient(connection, kMalformedPacket);
        return;
    }
    TraceIn(connection, kUnsubscribe, length, PacketTrace().Id(subscription.id).Topic(subscription.filter));
    unsigned char reason = kSeveralFilters;
    if (subscription.filterCount == 1) {
        reason = subscriptions.Remove(connection.id, subscription.filter) ? kSuccess : kNoSubscriptionExisted;
    }
    std::lock_guard lock(connection.lock);
    WriteLocked(connection, SubscriptionAckPacket(kUnsuback, subscription.id, reason),
                PacketTrace().Id(subscription.id).Reason(reason));
}

void Broker::State::Handle(Connection& connection, MQTTPROTOCOL_FIXEDHEADER header, const char* body, int length)
{
    const unsigned char type = header.byMsgType;
    Phase phase = Phase::Closed;
    {
        std::lock_guard lock(connection.lock);
        phase = connection.phase;
    }
    if ((phase == Phase::Connected) == (type == kConnect)) {
        RefuseClient(connection, kProtocolError);  // CONNECT must come first, and only once
        return;
    }
    switch (type) {
    case kConnect:
        OnConnect(connection, body, length);
        break;
    case kPublish:
        OnPublish(connection, header, body, length);
        break;
    case kPuback:
    case kPubrec:
    case kPubrel:
    case kPubcomp:
        OnAcknowledgement(connection, type, body, length);
        break;
    case kSubscribe:
        OnSubscribe(connection, body, length);
        break;
    case kUnsubscribe:
        OnUnsubscribe(connection, body, length);
        break;
    case kPingreq: {
        TraceIn(connection, kPingreq, length, PacketTrace());
        std::lock_guard lock(connection.lock);
        WriteLocked(connection, BarePacket(kPingresp), PacketTrace());
        break;
    }
    case kDisconnect:
        TraceIn(connection, kDisconnect, length, PacketTrace().Reason(DecodeDisconnect(body, length)));
        Refuse(connection, {}, PacketTrace());
        break;
    default:
        RefuseClient(connection, kProtocolError);
        break;
    }
}

}  // namespace broker
