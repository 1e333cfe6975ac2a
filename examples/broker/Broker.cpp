#include "broker/Broker.h"

#include "broker/Delivery.h"
#include "broker/Topics.h"
#include "host/PacketCutter.h"
#include "host/Packets.h"
#include "host/Trace.h"

#include <MQTTProtocol.h>
#include <Hopper_TaskPool.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace broker {

namespace {

using namespace host;

// The largest packet a client may send: well inside the library's 10 MiB block. Announced in CONNACK.
constexpr std::size_t kMaxPacketSize = 8 * 1024 * 1024;
// How many packets may wait in the library at once. Each holds a 10 MiB block and a memory mapping
// until a worker has taken and freed it; past this the network thread stops reading for a while.
constexpr long kMaxPacketsInLibrary = 1024;
// What a connection that does not read may leave unsent before it is dropped.
constexpr std::size_t kMaxUnsent = 64 * 1024 * 1024;
// Fed behind a connection's last packet. The library hands packets out in order, so when a worker
// takes this one it has finished every packet of the connection and may close it. A PINGREQ given as
// an input of its own is queued at once, and also completes a two- or three-byte DISCONNECT that the
// library would otherwise hold until four bytes had come.
constexpr std::string_view kEndMark("\xC0\x00", 2);

constexpr std::uint64_t kListenerId = 0;
constexpr std::uint64_t kSignalsId = 1;
constexpr std::uint64_t kFirstConnectionId = 2;

// Size on the wire of a packet whose body has `bodyLength` bytes.
std::size_t WireSize(std::size_t bodyLength)
{
    std::size_t lengthBytes = 1;
    for (std::size_t rest = bodyLength >> 7; rest > 0; rest >>= 7) {
        lengthBytes++;
    }
    return 1 + lengthBytes + bodyLength;
}

struct Connection
{
    Connection(std::uint64_t id, int fd, std::string address) : id(id), address(std::move(address)), fd(fd) {}

    const std::uint64_t id;
    const std::string address;  // the library's key for the session: "127.0.0.1:54321#fd"

    // The network thread's alone.
    PacketCutter cutter{kMaxPacketSize};
    bool inputEnded = false;

    // Packets handed to the library and taken back out, counted under feedLock, so that a worker
    // knows the end mark when it takes it.
    std::mutex feedLock;
    std::uint64_t fed = 0;
    std::uint64_t taken = 0;
    bool endMarkFed = false;

    // Writing to the socket, from any thread.
    std::mutex writeLock;
    int fd;              // -1 once closed
    std::string unsent;  // what the socket did not take yet; the network thread flushes it

    // The MQTT session, under stateLock (never two connections' at once).
    std::mutex stateLock;
    bool connected = false;
    unsigned maximumPacketSize = 0;
    OutboundFlow outbound;
    InboundQos2 inbound;

    // The name in trace lines: the address, and the client identifier once connected.
    std::mutex labelLock;
    std::string label = address;

    std::string Label()
    {
        std::lock_guard lock(labelLock);
        return label;
    }
};

using ConnectionPtr = std::shared_ptr<Connection>;

class Registry
{
public:
    void Add(const ConnectionPtr& connection)
    {
        std::lock_guard lock(lock_);
        byId_[connection->id] = connection;
        byAddress_[connection->address] = connection;
    }
    void Remove(const Connection& connection)
    {
        std::lock_guard lock(lock_);
        byId_.erase(connection.id);
        byAddress_.erase(connection.address);
    }
    ConnectionPtr Find(std::uint64_t id) const
    {
        std::lock_guard lock(lock_);
        auto found = byId_.find(id);
        return found == byId_.end() ? nullptr : found->second;
    }
    ConnectionPtr Find(const std::string& address) const
    {
        std::lock_guard lock(lock_);
        auto found = byAddress_.find(address);
        return found == byAddress_.end() ? nullptr : found->second;
    }
    std::vector<ConnectionPtr> All() const
    {
        std::lock_guard lock(lock_);
        std::vector<ConnectionPtr> all;
        for (const auto& [id, connection] : byId_) {
            all.push_back(connection);
        }
        return all;
    }

private:
    mutable std::mutex lock_;
    std::unordered_map<std::uint64_t, ConnectionPtr> byId_;
    std::unordered_map<std::string, ConnectionPtr> byAddress_;
};

// Counts the packets fed to the library and not yet taken out.
class Budget
{
public:
    void Add(long packets) { inLibrary_ += packets; }
    void Remove(long packets)
    {
        inLibrary_ -= packets;
        room_.notify_one();
    }
    // Waits a little for room; false when there is none yet.
    bool WaitForRoom()
    {
        std::unique_lock lock(lock_);
        return room_.wait_for(lock, std::chrono::milliseconds(100), [&] { return inLibrary_ < kMaxPacketsInLibrary; });
    }

private:
    std::atomic<long> inLibrary_{0};
    std::mutex lock_;
    std::condition_variable room_;
};

// Sends what the socket takes without blocking; returns the bytes sent, or -1 when the peer is gone.
long SendSome(int fd, std::string_view bytes)
{
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t result = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (result > 0) {
            sent += static_cast<std::size_t>(result);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            break;
        } else if (errno != EINTR) {
            return -1;
        }
    }
    return static_cast<long>(sent);
}

}  // namespace

struct Broker::State
{
    BrokerOptions options;
    int listener = -1;
    int epoll = -1;
    unsigned short port = 0;
    std::atomic<bool> stopping{false};
    std::uint64_t nextId = kFirstConnectionId;

    Registry registry;
    Budget budget;
    SubscriptionTable subscriptions;
    RetainedMessages retained;
    std::mutex traceLock;

    // ---- Trace ----

    void Trace(const std::string& line)
    {
        if (options.trace) {
            std::lock_guard lock(traceLock);
            std::fprintf(stdout, "%s\n", line.c_str());
            std::fflush(stdout);
        }
    }
    void Trace(Connection& connection, const char* direction, PacketTrace trace)
    {
        if (options.trace) {
            trace.direction = direction;
            trace.client = connection.Label();
            Trace(FormatTrace(trace));
        }
    }
    void TraceIn(Connection& connection, unsigned char type, int bodyLength, PacketTrace trace)
    {
        Trace(connection, "in", trace.Type(type).Size(WireSize(static_cast<std::size_t>(bodyLength))));
    }

    // ---- Writing ----

    void Watch(Connection& connection, bool writes)
    {
        epoll_event event{};
        event.events = writes ? EPOLLIN | EPOLLOUT : EPOLLIN;
        event.data.u64 = connection.id;
        epoll_ctl(epoll, EPOLL_CTL_MOD, connection.fd, &event);
    }

    // Writes a whole packet from any thread; what the socket does not take now is kept in order for
    // the network thread. A peer that is gone is noticed by the network thread when it reads.
    void Write(Connection& connection, std::string_view packet)
    {
        std::lock_guard lock(connection.writeLock);
        if (connection.fd < 0) {
            return;
        }
        if (connection.unsent.empty()) {
            const long sent = SendSome(connection.fd, packet);
            packet.remove_prefix(sent < 0 ? packet.size() : static_cast<std::size_t>(sent));
        }
        if (packet.empty()) {
            return;
        }
        if (connection.unsent.size() + packet.size() > kMaxUnsent) {
            shutdown(connection.fd, SHUT_RDWR);
            return;
        }
        if (connection.unsent.empty()) {
            Watch(connection, true);
        }
        connection.unsent.append(packet);
    }

    void Flush(Connection& connection)
    {
        std::lock_guard lock(connection.writeLock);
        if (connection.fd < 0) {
            return;
        }
        const long sent = SendSome(connection.fd, connection.unsent);
        connection.unsent.erase(0, sent < 0 ? connection.unsent.size() : static_cast<std::size_t>(sent));
        if (connection.unsent.empty()) {
            Watch(connection, false);
        }
    }

    void Reply(Connection& connection, const std::string& packet, PacketTrace trace)
    {
        Trace(connection, "out", trace.Type(static_cast<unsigned char>(static_cast<unsigned char>(packet[0]) >> 4)).Size(packet.size()));
        Write(connection, packet);
    }

    // Ends the connection from the worker's side: its input ends as if the client had closed it.
    void CloseSoon(Connection& connection)
    {
        std::lock_guard lock(connection.writeLock);
        if (connection.fd >= 0) {
            shutdown(connection.fd, SHUT_RDWR);
        }
    }

    void RefuseClient(Connection& connection, unsigned char reason)
    {
        Reply(connection, DisconnectPacket(reason), PacketTrace().Reason(reason));
        CloseSoon(connection);
    }

    // ---- Network thread ----

    bool Feed(Connection& connection, std::string_view bytes, long packets, bool endMark)
    {
        budget.Add(packets);
        std::lock_guard lock(connection.feedLock);
        if (!MQTTProtocol_Parse_Send(connection.address.c_str(), bytes.data(), static_cast<int>(bytes.size()))) {
            budget.Remove(packets);
            return false;
        }
        connection.fed += static_cast<std::uint64_t>(packets);
        connection.endMarkFed = endMark;
        return true;
    }

    // Nothing more is read from the connection; its last packet, if it has one, goes to the library
    // together with the end mark, and the worker that takes the mark closes the connection.
    void EndInput(Connection& connection, std::string_view lastPacket = {})
    {
        if (connection.inputEnded) {
            return;
        }
        connection.inputEnded = true;
        epoll_ctl(epoll, EPOLL_CTL_DEL, connection.fd, nullptr);
        const std::string bytes = std::string(lastPacket) + std::string(kEndMark);
        if (!Feed(connection, bytes, lastPacket.empty() ? 1 : 2, true)) {
            Close(connection);
        }
    }

    // Hands one whole packet to the library: its result then tells for sure whether the library took
    // it. A packet of two or three bytes other than a PINGREQ would wait in the library until four
    // bytes had come; from a client only DISCONNECT is that short, and it ends the input.
    void FeedPacket(Connection& connection, std::string_view packet)
    {
        const auto type = static_cast<unsigned char>(static_cast<unsigned char>(packet[0]) >> 4);
        const bool lonePingreq = packet.size() == 2 && type == kPingreq && packet[1] == 0;
        if (type == kDisconnect) {
            EndInput(connection, packet);
        } else if (packet.size() < 4 && !lonePingreq) {
            RefuseClient(connection, 0x81);
            EndInput(connection);
        } else if (!Feed(connection, packet, 1, false)) {
            // The library refused the packet: a SUBSCRIBE or UNSUBSCRIBE whose flags are not 2.
            RefuseClient(connection, 0x81);
            EndInput(connection);
        }
    }

    void OnReadable(Connection& connection)
    {
        if (connection.inputEnded || !budget.WaitForRoom()) {
            return;  // epoll reports the socket again
        }
        char buffer[64 * 1024];
        const ssize_t received = read(connection.fd, buffer, sizeof(buffer));
        if (received < 0 && (errno == EAGAIN || errno == EINTR)) {
            return;
        }
        if (received <= 0) {
            EndInput(connection);
            return;
        }
        std::vector<std::string_view> packets;
        const auto status = connection.cutter.Cut(std::string_view(buffer, static_cast<std::size_t>(received)), packets);
        Trace("net " + connection.Label() + " read " + std::to_string(received) + "B: " +
              std::to_string(packets.size()) + " whole packet(s) to the library");
        for (const auto& packet : packets) {
            if (connection.inputEnded) {
                return;
            }
            FeedPacket(connection, packet);
        }
        if (status != PacketCutter::Status::Open && !connection.inputEnded) {
            RefuseClient(connection, status == PacketCutter::Status::TooLarge ? 0x95 : 0x81);
            EndInput(connection);
        }
    }

    void Accept()
    {
        for (;;) {
            sockaddr_in peer{};
            socklen_t peerSize = sizeof(peer);
            const int fd = accept4(listener, reinterpret_cast<sockaddr*>(&peer), &peerSize, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) {
                return;
            }
            const int on = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
            char ip[INET_ADDRSTRLEN] = {};
            inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof(ip));
            auto connection = std::make_shared<Connection>(
                nextId++, fd, std::string(ip) + ":" + std::to_string(ntohs(peer.sin_port)) + "#" + std::to_string(fd));
            if (!MQTTProtocol_Parse_Insert(connection->address.c_str())) {
                close(fd);
                continue;
            }
            registry.Add(connection);
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.u64 = connection->id;
            epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
            Trace("net " + connection->address + " connected");
        }
    }

    void NetworkLoop(int signals)
    {
        epoll_event events[64];
        while (!stopping) {
            const int count = epoll_wait(epoll, events, 64, -1);
            for (int index = 0; index < count; index++) {
                const std::uint64_t id = events[index].data.u64;
                if (id == kListenerId) {
                    Accept();
                } else if (id == kSignalsId) {
                    signalfd_siginfo info;
                    stopping = read(signals, &info, sizeof(info)) == sizeof(info);
                } else if (auto connection = registry.Find(id)) {
                    if (events[index].events & EPOLLOUT) {
                        Flush(*connection);
                    }
                    if (events[index].events & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
                        OnReadable(*connection);
                    }
                }
            }
        }
    }

    // ---- Workers ----

    void Close(Connection& connection)
    {
        MQTTProtocol_Parse_Delete(connection.address.c_str());
        subscriptions.RemoveAll(connection.id);
        registry.Remove(connection);
        std::lock_guard lock(connection.writeLock);
        if (connection.fd >= 0) {
            close(connection.fd);
            connection.fd = -1;
        }
        Trace("net " + connection.Label() + " closed");
    }

    void SendPublish(Connection& subscriber, const Outgoing& outgoing)
    {
        const Message& message = *outgoing.message;
        PacketTrace trace = PacketTrace().Topic(message.topic).Qos(outgoing.qos).Payload(message.payload.size());
        if (outgoing.qos > 0) {
            trace.Id(outgoing.id);
        }
        Reply(subscriber,
              PublishPacket(message.topic, message.payload, outgoing.qos, outgoing.id, outgoing.retain, message.properties),
              std::move(trace));
    }

    void SendWaiting(Connection& subscriber)
    {
        while (auto next = subscriber.outbound.NextWaiting()) {
            SendPublish(subscriber, *next);
        }
    }

    void Deliver(Connection& subscriber, Outgoing outgoing)
    {
        const Message& message = *outgoing.message;
        const std::size_t body = 2 + message.topic.size() + (outgoing.qos > 0 ? 2 : 0) + 1 +
                                 static_cast<std::size_t>(message.properties.BlockSize()) + message.payload.size();
        std::lock_guard lock(subscriber.stateLock);
        // A message larger than the subscriber takes is not sent to it.
        if (!subscriber.connected || (subscriber.maximumPacketSize && WireSize(body) > subscriber.maximumPacketSize)) {
            return;
        }
        if (auto ready = subscriber.outbound.Offer(std::move(outgoing))) {
            SendPublish(subscriber, *ready);
        }
    }

    // Sends the message to every matching subscription at the lower of the two QoS levels; returns
    // how many subscribers it went to.
    std::size_t Route(const Connection& publisher, const std::shared_ptr<const Message>& message)
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

    void OnConnect(Connection& connection, const char* body, int length)
    {
        Connect connect;
        const unsigned char refusal = DecodeConnect(body, length, connect);
        TraceIn(connection, kConnect, length, PacketTrace());
        if (refusal != 0x00) {
            Reply(connection, ConnackPacket(refusal, {}), PacketTrace().Reason(refusal));
            CloseSoon(connection);
            return;
        }
        PropertyList properties;
        properties.AddU32(kMaximumPacketSize, kMaxPacketSize);
        properties.AddByte(kSubscriptionIdsAvailable, 0);
        properties.AddByte(kSharedSubscriptionAvailable, 0);
        if (connect.clientId.empty()) {
            connect.clientId = "ostrel-" + std::to_string(connection.id);
            properties.AddString(kAssignedClientId, connect.clientId);  // last: a string takes the rest of a block
        }
        {
            std::lock_guard lock(connection.stateLock);
            connection.connected = true;
            connection.maximumPacketSize = connect.maximumPacketSize;
            connection.outbound.SetReceiveMaximum(connect.receiveMaximum);
        }
        {
            std::lock_guard lock(connection.labelLock);
            connection.label = connection.address + " " + connect.clientId;
        }
        Reply(connection, ConnackPacket(0x00, properties), PacketTrace().Reason(0x00));
    }

    void OnPublish(Connection& connection, MQTTPROTOCOL_FIXEDHEADER header, const char* body, int length)
    {
        Publish publish;
        if (!DecodePublish(header, body, length, publish)) {
            RefuseClient(connection, 0x81);
            return;
        }
        PacketTrace trace = PacketTrace().Topic(publish.topic).Qos(publish.qos).Payload(publish.payload.size());
        if (publish.qos > 0) {
            trace.Id(publish.id);
        }
        TraceIn(connection, kPublish, length, std::move(trace));
        if (!IsValidTopicName(publish.topic)) {
            RefuseClient(connection, 0x90);
            return;
        }
        bool isNew = true;
        if (publish.qos == 2) {
            std::lock_guard lock(connection.stateLock);
            isNew = connection.inbound.Begin(publish.id);
        }
        unsigned char reason = 0x00;
        if (isNew) {
            auto message = std::make_shared<Message>(
                Message{publish.topic, publish.payload, publish.qos, publish.retain, publish.properties});
            if (message->retain) {
                retained.Store(message);
            }
            reason = Route(connection, message) == 0 ? 0x10 : 0x00;  // 0x10: no matching subscribers
        }
        if (publish.qos > 0) {
            Reply(connection, AckPacket(publish.qos == 1 ? kPuback : kPubrec, publish.id, reason),
                  PacketTrace().Id(publish.id).Reason(reason));
        }
    }

    void OnAcknowledgement(Connection& connection, unsigned char type, const char* body, int length)
    {
        Ack ack;
        if (!DecodeAck(body, length, ack)) {
            RefuseClient(connection, 0x81);
            return;
        }
        TraceIn(connection, type, length, PacketTrace().Id(ack.id).Reason(ack.reason));
        std::lock_guard lock(connection.stateLock);
        switch (type) {
        case kPuback:
            connection.outbound.OnPuback(ack.id);
            break;
        case kPubrec:
            switch (connection.outbound.OnPubrec(ack.id, ack.reason)) {
            case OutboundFlow::PubrecAction::SendPubrel:
                Reply(connection, AckPacket(kPubrel, ack.id, 0x00), PacketTrace().Id(ack.id).Reason(0x00));
                return;
            case OutboundFlow::PubrecAction::Unknown:
                Reply(connection, AckPacket(kPubrel, ack.id, 0x92), PacketTrace().Id(ack.id).Reason(0x92));
                return;
            case OutboundFlow::PubrecAction::Ended:
                break;
            }
            break;
        case kPubrel: {
            const unsigned char reason = connection.inbound.Release(ack.id) ? 0x00 : 0x92;
            Reply(connection, AckPacket(kPubcomp, ack.id, reason), PacketTrace().Id(ack.id).Reason(reason));
            return;
        }
        default:  // PUBCOMP
            connection.outbound.OnPubcomp(ack.id);
            break;
        }
        SendWaiting(connection);
    }

    // Only one filter per SUBSCRIBE or UNSUBSCRIBE: the library reads the first filter and its
    // acknowledgements carry one reason code. A packet with several (mosquitto_sub -t a -t b) is
    // refused whole with reason 0x83, so that no client believes the other filters were taken.
    static constexpr unsigned char kSeveralFilters = 0x83;

    void OnSubscribe(Connection& connection, const char* body, int length)
    {
        Subscription subscription;
        if (!DecodeSubscribe(body, length, subscription) || subscription.options.byMaxQos == 3) {
            RefuseClient(connection, 0x81);
            return;
        }
        const int qos = subscription.options.byMaxQos;
        TraceIn(connection, kSubscribe, length, PacketTrace().Id(subscription.id).Topic(subscription.filter).Qos(qos));
        unsigned char reason = static_cast<unsigned char>(qos);
        bool isNew = false;
        if (subscription.filterCount > 1) {
            reason = kSeveralFilters;
        } else if (!IsValidTopicFilter(subscription.filter)) {
            reason = 0x8F;
        } else if (subscription.filter.starts_with("$share/")) {
            reason = 0x9E;  // shared subscriptions are not supported
        } else {
            isNew = subscriptions.Add(connection.id, subscription.filter,
                                      {qos, subscription.options.byNoLocal != 0, subscription.options.byRetainAsPublished != 0});
        }
        Reply(connection, SubscriptionAckPacket(kSuback, subscription.id, reason), PacketTrace().Id(subscription.id).Reason(reason));
        const unsigned handling = subscription.options.byRetainHandling;
        if (reason < 0x80 && (handling == 0 || (handling == 1 && isNew))) {
            for (const auto& message : retained.Matching(subscription.filter)) {
                Deliver(connection, {message, std::min(message->qos, qos), true, 0});
            }
        }
    }

    void OnUnsubscribe(Connection& connection, const char* body, int length)
    {
        Subscription subscription;
        if (!DecodeUnsubscribe(body, length, subscription)) {
            RefuseClient(connection, 0x81);
            return;
        }
        TraceIn(connection, kUnsubscribe, length, PacketTrace().Id(subscription.id).Topic(subscription.filter));
        unsigned char reason = kSeveralFilters;
        if (subscription.filterCount == 1) {
            reason = subscriptions.Remove(connection.id, subscription.filter) ? 0x00 : 0x11;  // 0x11: no such subscription
        }
        Reply(connection, SubscriptionAckPacket(kUnsuback, subscription.id, reason), PacketTrace().Id(subscription.id).Reason(reason));
    }

    void Handle(Connection& connection, MQTTPROTOCOL_FIXEDHEADER header, const char* body, int length)
    {
        const unsigned char type = header.byMsgType;
        bool connected = false;
        {
            std::lock_guard lock(connection.stateLock);
            connected = connection.connected;
        }
        if (connected == (type == kConnect)) {
            RefuseClient(connection, 0x82);  // CONNECT must come first, and only once
            return;
        }
        switch (type) {
        case kConnect: OnConnect(connection, body, length); break;
        case kPublish: OnPublish(connection, header, body, length); break;
        case kPuback:
        case kPubrec:
        case kPubrel:
        case kPubcomp: OnAcknowledgement(connection, type, body, length); break;
        case kSubscribe: OnSubscribe(connection, body, length); break;
        case kUnsubscribe: OnUnsubscribe(connection, body, length); break;
        case kPingreq:
            TraceIn(connection, kPingreq, length, PacketTrace());
            Reply(connection, BarePacket(kPingresp), PacketTrace());
            break;
        case kDisconnect:
            // Nothing to do: the end mark follows it, and the connection closes when it is taken.
            TraceIn(connection, kDisconnect, length, PacketTrace().Reason(DecodeDisconnect(body, length)));
            break;
        default: RefuseClient(connection, 0x82); break;
        }
    }

    void TakePacket(const ConnectionPtr& connection)
    {
        MQTTPROTOCOL_FIXEDHEADER header{};
        char* body = nullptr;
        int length = 0;
        bool endMark = false;
        {
            std::lock_guard lock(connection->feedLock);
            if (!MQTTProtocol_Parse_Recv(connection->address.c_str(), &header, &body, &length)) {
                return;
            }
            connection->taken++;
            endMark = connection->endMarkFed && connection->taken == connection->fed;
        }
        budget.Remove(1);
        std::unique_ptr<char, decltype(&std::free)> owned(body, &std::free);
        if (endMark) {
            Close(*connection);
        } else {
            Handle(*connection, header, body, length);
        }
    }

    void Work(int index)
    {
        while (!stopping) {
            if (!MQTTProtocol_Parse_WaitEvent(index, -1)) {
                continue;
            }
            TAVRIN_HOPPER_TASKEVENT** ready = nullptr;
            int count = 0;
            if (!MQTTProtocol_Parse_GetPool(index, &ready, &count)) {
                continue;
            }
            for (int entry = 0; entry < count && !stopping; entry++) {
                if (auto connection = registry.Find(std::string(ready[entry]->tszClientAddr))) {
                    for (int packet = 0; packet < ready[entry]->nPktCount; packet++) {
                        TakePacket(connection);
                    }
                }
            }
            Keel_OperatorMemory_Free(reinterpret_cast<void***>(&ready), count);
        }
    }
};

Broker::Broker(const BrokerOptions& options) : state_(std::make_unique<State>())
{
    state_->options = options;
}

Broker::~Broker()
{
    if (state_->listener >= 0) {
        close(state_->listener);
    }
    if (state_->epoll >= 0) {
        close(state_->epoll);
    }
}

unsigned short Broker::Port() const
{
    return state_->port;
}

bool Broker::Start()
{
    State& state = *state_;
    state.listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(state.listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(state.options.port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (bind(state.listener, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(state.listener, 512) != 0 ||
        getsockname(state.listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        std::fprintf(stderr, "cannot listen on 127.0.0.1:%u: %s\n", state.options.port, std::strerror(errno));
        return false;
    }
    state.port = ntohs(address.sin_port);
    if (!MQTTProtocol_Parse_Init(state.options.pools)) {
        std::fprintf(stderr, "the receive side did not start: error 0x%llx\n",
                     static_cast<unsigned long long>(MQTTProtocol_GetLastError(nullptr)));
        return false;
    }
    state.epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kListenerId;
    epoll_ctl(state.epoll, EPOLL_CTL_ADD, state.listener, &event);
    return true;
}

void Broker::Run(const sigset_t& stopSignals)
{
    State& state = *state_;
    const int signals = signalfd(-1, &stopSignals, SFD_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kSignalsId;
    epoll_ctl(state.epoll, EPOLL_CTL_ADD, signals, &event);

    std::vector<std::thread> workers;
    for (int index = 0; index < state.options.pools; index++) {
        workers.emplace_back([&state, index] { state.Work(index); });
    }
    state.NetworkLoop(signals);

    for (int index = 0; index < state.options.pools; index++) {
        MQTTProtocol_Parse_ActiveEvent(index);
    }
    for (auto& worker : workers) {
        worker.join();
    }
    for (const auto& connection : state.registry.All()) {
        state.Close(*connection);
    }
    MQTTProtocol_Parse_Destory();
    close(signals);
}

}  // namespace broker
