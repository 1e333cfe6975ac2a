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

// The largest packet a client may send, announced in CONNACK: the largest whose remaining length
// takes three bytes. The library decodes a packet's fixed header from the first four bytes it is
// given of it; when those are all there is and they hold a four-byte length, it takes the length as
// cut off, queues the first byte as a packet of its own and goes on at the next byte, misreading the
// rest of the stream. PacketBoundaries reports a length that needs a fourth byte as soon as its third
// shows it, and the client is refused before a worker could act on what the library misreads.
constexpr std::size_t kMaxPacketSize = 1 + 3 + 2097151;
// How many packets may wait in the library at once. Each holds a 10 MiB block and a memory mapping
// until a worker has taken and freed it; past this the network thread stops reading for a while.
constexpr long kMaxPacketsInLibrary = 1024;
// What a connection that does not read may leave unsent before it is dropped.
constexpr std::size_t kMaxUnsent = 64 * 1024 * 1024;

// How a connection ends. Every read goes to the library as it came, and the library cuts the
// packets; it holds a two- or three-byte packet other than a lone PINGREQ (a DISCONNECT E0 00, say)
// until four bytes have come. So when a connection's input ends, its session cannot simply be
// deleted: a worker may not have handled every packet yet, and the library may hold a short one that
// no further byte will complete.
// The network thread follows the packet boundaries of each stream (PacketBoundaries). When the input
// ends at a boundary, the library holds at most one whole short packet, and the network thread feeds
// it the end mark as a piece of its own: a PINGREQ that is queued at once, or completes the held
// packet and is then cut as a lone PINGREQ behind it. Packets come out in order, so the worker that
// takes the mark has handled every packet of the connection: it deletes the session and closes the
// socket. Its four flag bits tell it from a client's PINGREQ, whose flags are 0 (one with others is
// refused as malformed, or taken for the mark once the input has ended), whatever became of the
// packets before it: a count of them would be thrown off by one that the library refused unseen.
// When the input ends inside a packet, or the stream was refused, no end mark could come out: the
// network thread deletes the session and closes the socket at once, dropping what the library holds.
// So it does once the workers are done with a client (refused, or it said DISCONNECT): what it sent
// after that is not handled anyway. A worker still busy with such a connection finds Recv failing
// (0x070B1006) and its writes dropped.
constexpr std::string_view kEndMark("\xCF\x00", 2);
constexpr unsigned char kEndMarkFlags = 0x0F;

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
    PacketBoundaries boundaries{kMaxPacketSize};
    bool inputEnded = false;

    // What went to the library and came back out (for the budget), and how the connection ends, under
    // feedLock.
    std::mutex feedLock;
    std::uint64_t fed = 0;    // packets that end in the bytes handed to the library, the end mark included
    std::uint64_t taken = 0;  // packets taken out
    bool endMarkFed = false;  // the input has ended and the end mark follows its last packet
    bool ended = false;       // the workers are done with the client: what it sent later is dropped
    bool deleted = false;     // the session is deleted and the socket closed

    // Writing to the socket, from any thread.
    std::mutex writeLock;
    int fd;              // -1 once closed
    std::string unsent;  // what the socket did not take yet; the network thread flushes it

    // The MQTT session, under stateLock (never two connections' at once).
    std::mutex stateLock;
    bool connected = false;
    bool closed = false;  // set by Close: nothing connects or subscribes after it
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

// Hands bytes of a connection to the library's receive side; false when the library refused a packet
// of them, dropping it and the rest of the bytes (a SUBSCRIBE or UNSUBSCRIBE whose flags are not 2, a
// length beyond its block, memory running out).
// Send reports such a refusal by its result only for the first packet of the bytes; a later one leaves
// MQTTProtocol_IsErrorOccur set under a true result, with one of the framing's own codes. The error
// globals are shared by all threads without a lock, but only the network thread drives the framing
// (and Insert), and nothing the workers call sets these codes (Recv, WaitEvent, GetPool and the
// decoders set others; Recv and Delete set MALLOC only when memory runs out): a set flag with one of
// them after Send is this Send's. A worker's call in between can clear the flag, so such a refusal can
// go unseen. The library then goes on at the next read as if it began a packet: if the dropped bytes
// ended inside one, the stream is misaligned and the broker's validating decoders refuse what follows,
// which closes the connection anyway; if not, the refused packet is simply lost. (A worker failing
// sets the flag a moment before its own code: read in that instant, an older refusal's code would
// close a sound connection, a rare and safe mistake.)
bool SendToLibrary(const std::string& address, std::string_view bytes)
{
    if (!MQTTProtocol_Parse_Send(address.c_str(), bytes.data(), static_cast<int>(bytes.size()))) {
        return false;
    }
    // Read as the library writes it, relaxed-atomically, so that racing with the workers is well-defined.
    if (!std::atomic_ref<bool>(MQTTProtocol_IsErrorOccur).load(std::memory_order_relaxed)) {
        return true;
    }
    const std::uint64_t code = MQTTProtocol_GetLastError(nullptr);
    return code != MQTTPROTOCOL_ERR_PARSE_HDRFLAGS && code != MQTTPROTOCOL_ERR_PARSE_LENGTH &&
           code != MQTTPROTOCOL_ERR_PARSE_MALLOC;
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

    // ---- Ending a connection ----

    // Ends the connection's input from a worker's side: the network thread reads its end as if the
    // client had closed it.
    void CloseSoon(Connection& connection)
    {
        std::lock_guard lock(connection.writeLock);
        if (connection.fd >= 0) {
            shutdown(connection.fd, SHUT_RDWR);
        }
    }

    // From now on the client's packets are dropped unhandled. False when that was so already.
    static bool StopHandling(Connection& connection)
    {
        std::lock_guard lock(connection.feedLock);
        return !std::exchange(connection.ended, true);
    }

    // Closes the connection of a client the workers are done with. Once its end mark is fed, at once:
    // nothing it sent needs handling any more, and the mark may never come out of a stream the library
    // misread. Before, the socket is shut down: the network thread, which alone closes a socket it may
    // still read, then reads the end of the input and closes the connection at once.
    void CloseAfterInput(Connection& connection)
    {
        bool inputEnded = false;
        {
            std::lock_guard lock(connection.feedLock);
            inputEnded = connection.endMarkFed;
        }
        if (inputEnded) {
            Close(connection);
        } else {
            CloseSoon(connection);
        }
    }

    // Answers a client the broker serves no longer with `packet` (a DISCONNECT, or a CONNACK that
    // refuses it), once, and closes its connection.
    void Refuse(Connection& connection, const std::string& packet, PacketTrace trace)
    {
        if (StopHandling(connection)) {
            Reply(connection, packet, std::move(trace));
            CloseAfterInput(connection);
        }
    }

    void RefuseClient(Connection& connection, unsigned char reason)
    {
        Refuse(connection, DisconnectPacket(reason), PacketTrace().Reason(reason));
    }

    // Deletes the session and closes the socket, once, from whichever thread ends the connection (see
    // kEndMark). The library drops what it still holds of the client; the packets that go with it leave
    // the budget.
    void Close(Connection& connection)
    {
        {
            std::lock_guard lock(connection.feedLock);
            if (connection.deleted) {
                return;
            }
            connection.deleted = connection.ended = true;
            MQTTProtocol_Parse_Delete(connection.address.c_str());
            budget.Remove(connection.fed > connection.taken ? static_cast<long>(connection.fed - connection.taken) : 0);
        }
        {
            std::lock_guard lock(connection.stateLock);
            connection.connected = false;
            connection.closed = true;
            subscriptions.RemoveAll(connection.id);
        }
        registry.Remove(connection);
        {
            std::lock_guard lock(connection.writeLock);
            if (connection.fd >= 0) {
                close(connection.fd);
                connection.fd = -1;
            }
        }
        Trace("net " + connection.Label() + " closed");
    }

    // ---- Network thread ----

    // Hands bytes to the library, `packets` being how many end in them; feedLock held.
    bool FeedLocked(Connection& connection, std::string_view bytes, std::size_t packets)
    {
        budget.Add(static_cast<long>(packets));
        connection.fed += packets;
        return SendToLibrary(connection.address, bytes);
    }

    // The end mark goes in only behind a whole packet, and only while the workers still handle the
    // client's packets.
    bool FeedEndMark(Connection& connection)
    {
        if (!connection.boundaries.AtBoundary()) {
            return false;
        }
        std::lock_guard lock(connection.feedLock);
        if (connection.ended) {
            return false;
        }
        connection.endMarkFed = FeedLocked(connection, kEndMark, 1);
        return connection.endMarkFed;
    }

    // Nothing more is read from the connection: the end mark follows its last packet, or it closes now.
    void EndInput(Connection& connection)
    {
        if (connection.inputEnded) {
            return;
        }
        connection.inputEnded = true;
        epoll_ctl(epoll, EPOLL_CTL_DEL, connection.fd, nullptr);
        if (FeedEndMark(connection)) {
            Trace("net " + connection.Label() + " input ended at a packet boundary: end mark fed");
        } else {
            Trace("net " + connection.Label() + " input ended: closing at once");
            Close(connection);
        }
    }

    // Hands the read to the library just as it came; the library cuts it into packets.
    void OnRead(Connection& connection, std::string_view bytes)
    {
        std::vector<std::size_t> ends;
        const auto followed = connection.boundaries.Follow(bytes, ends);
        Trace("net " + connection.Label() + " read " + std::to_string(bytes.size()) + "B to the library: " +
              std::to_string(ends.size()) + " packet(s) end in it");
        // Refused first, so that no worker acts on what the library cuts from a stream it cannot follow.
        if (followed != PacketBoundaries::Status::Open) {
            RefuseClient(connection, followed == PacketBoundaries::Status::TooLarge ? 0x95 : 0x81);
        }
        bool taken = false;
        {
            std::lock_guard lock(connection.feedLock);
            taken = FeedLocked(connection, bytes, ends.size());
        }
        if (!taken) {
            Trace("net " + connection.Label() + " the library refused a packet and dropped the rest of the read");
            RefuseClient(connection, 0x81);
        }
        if (!taken || followed != PacketBoundaries::Status::Open) {
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
        OnRead(connection, std::string_view(buffer, static_cast<std::size_t>(received)));
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
            Refuse(connection, ConnackPacket(refusal, {}), PacketTrace().Reason(refusal));
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
            connection.connected = !connection.closed;
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
            std::lock_guard lock(connection.stateLock);  // not after Close has removed the connection's filters
            isNew = connection.connected &&
                    subscriptions.Add(connection.id, subscription.filter,
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
            if (header.byMsgFlag != 0) {
                RefuseClient(connection, 0x81);  // flags other than 0 are the end mark's
                break;
            }
            Reply(connection, BarePacket(kPingresp), PacketTrace());
            break;
        case kDisconnect:
            TraceIn(connection, kDisconnect, length, PacketTrace().Reason(DecodeDisconnect(body, length)));
            if (StopHandling(connection)) {
                CloseAfterInput(connection);
            }
            break;
        default: RefuseClient(connection, 0x82); break;
        }
    }

    void TakePacket(const ConnectionPtr& connection)
    {
        MQTTPROTOCOL_FIXEDHEADER header{};
        char* body = nullptr;
        int length = 0;
        bool counted = false;
        bool inputEnded = false;
        bool handled = false;
        {
            std::lock_guard lock(connection->feedLock);
            // Fails when another worker took the packet first, or the session has been deleted.
            if (!MQTTProtocol_Parse_Recv(connection->address.c_str(), &header, &body, &length)) {
                return;
            }
            // A stream the library misread may give more packets than were counted in.
            counted = ++connection->taken <= connection->fed;
            inputEnded = connection->endMarkFed;
            handled = !connection->ended;
        }
        if (counted) {
            budget.Remove(1);
        }
        std::unique_ptr<char, decltype(&std::free)> owned(body, &std::free);
        if (inputEnded && header.byMsgType == kPingreq && header.byMsgFlag == kEndMarkFlags) {
            Close(*connection);  // the end mark: every packet before it is handled
        } else if (handled) {
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
