// The network thread: accepts connections, reads them, hands what they send to the library, and
// enforces the time limits (CONNECT deadline, keep-alive).
//
// How a connection's input ends. Every read goes to the library, and the library cuts the packets;
// the network thread follows the packet boundaries of each stream (PacketBoundaries) alongside. When
// the input ends at a boundary, the library holds at most one whole short packet, and the network
// thread feeds it the end mark as a piece of its own: a PINGREQ that is queued at once, or completes
// the held packet and is then cut as a lone PINGREQ behind it. Packets come out in order, so the
// worker that takes the mark has handled every packet of the connection. Its four flag bits tell it
// from a client's PINGREQ, whose flags the boundary check requires to be 0. When the input ends inside
// a packet, or the stream is malformed, no end mark could come out: the network thread closes the
// connection at once, dropping what the library holds. So it does once the workers are done with a
// client (Ending): what it sent after that is not handled anyway.
#include "broker/BrokerState.h"

#include "host/Reasons.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace broker {

using namespace host;

namespace {

// How often the time limits are checked, and how long listening pauses when no descriptor is left.
constexpr auto kTimerTick = std::chrono::milliseconds(100);
constexpr auto kListenerPause = std::chrono::seconds(1);

// Hands bytes of a connection to the library's receive side; false when the library refused a packet
// of them, dropping it and the rest of the bytes. The boundary check has refused malformed streams
// before they reach the library, so what is left is memory running out.
// Send reports such a refusal by its result only for the first packet of the bytes; a later one leaves
// MQTTProtocol_IsErrorOccur set under a true result, with one of the framing's own codes. The error
// globals are shared by all threads without a lock, but only the network thread drives the framing,
// and nothing the workers call sets these codes: a set flag with one of them after Send is this Send's
// (a worker's call in between can clear it, and such a refusal then goes unseen).
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

bool Broker::State::FeedLocked(Connection& connection, std::string_view bytes, std::size_t packets)
{
    budget.Add(static_cast<long>(packets));
    connection.fed += packets;
    return SendToLibrary(connection.address, bytes);
}

// The end mark goes in only behind a whole packet, and only while the workers still handle the
// client's packets.
bool Broker::State::FeedEndMark(Connection& connection)
{
    if (!connection.boundaries.AtBoundary()) {
        return false;
    }
    std::lock_guard lock(connection.lock);
    if (connection.phase != Phase::AwaitingConnect && connection.phase != Phase::Connected) {
        return false;
    }
    connection.endMarkFed = FeedLocked(connection, kEndMark, 1);
    return connection.endMarkFed;
}

void Broker::State::EndInput(Connection& connection)
{
    if (connection.inputEnded) {
        return;
    }
    connection.inputEnded = true;
    epoll_ctl(epoll, EPOLL_CTL_DEL, connection.fd, nullptr);
    const bool marked = FeedEndMark(connection);
    if (Tracing()) {
        Trace("net " + *connection.label.load() +
              (marked ? " input ended at a packet boundary: end mark fed" : " input ended: closing at once"));
    }
    if (!marked) {
        Close(connection);
    }
}

void Broker::State::OnRead(Connection& connection, std::string_view bytes)
{
    std::vector<std::size_t> ends;
    const auto followed = connection.boundaries.Follow(bytes, ends);
    // A malformed stream goes to the library only up to the end of its last whole packet: the library
    // would cut whatever follows into packets of its own.
    const std::size_t fed =
        followed == PacketBoundaries::Status::Open ? bytes.size() : (ends.empty() ? 0 : ends.back());
    if (Tracing()) {
        Trace("net " + *connection.label.load() + " read " + std::to_string(bytes.size()) + "B, " +
              std::to_string(fed) + "B to the library: " + std::to_string(ends.size()) + " packet(s) end in it");
    }
    if (followed != PacketBoundaries::Status::Open) {
        RefuseClient(connection, followed == PacketBoundaries::Status::TooLarge ? kPacketTooLarge : kMalformedPacket);
    }
    bool taken = true;
    if (fed > 0) {
        std::lock_guard lock(connection.lock);
        taken = FeedLocked(connection, bytes.substr(0, fed), ends.size());
    }
    if (!taken) {
        if (Tracing()) {
            Trace("net " + *connection.label.load() + " the library refused a packet and dropped the rest of the read");
        }
        RefuseClient(connection, kMalformedPacket);
    }
    if (!taken || followed != PacketBoundaries::Status::Open) {
        EndInput(connection);
    }
}

void Broker::State::OnReadable(Connection& connection)
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
    connection.lastHeard = Clock::now();
    OnRead(connection, std::string_view(buffer, static_cast<std::size_t>(received)));
}

// Out of descriptors, a pending connection keeps the listener readable: left there, the loop would
// spin. The reserve descriptor is given up to accept the connection and close it at once; without
// one, listening pauses for a while. The connections there are go on being served either way.
void Broker::State::RefuseAcceptWithoutDescriptors()
{
    if (reserveFd >= 0) {
        close(reserveFd);
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            close(fd);
        }
        reserveFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    if (reserveFd < 0) {
        epoll_ctl(epoll, EPOLL_CTL_DEL, listener, nullptr);
        listenerPausedUntil = Clock::now() + kListenerPause;
    }
    if (Tracing()) {
        Trace("net refused a connection: out of descriptors");
    }
}

void Broker::State::Accept()
{
    for (;;) {
        sockaddr_in peer{};
        socklen_t peerSize = sizeof(peer);
        const int fd = accept4(listener, reinterpret_cast<sockaddr*>(&peer), &peerSize, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EMFILE || errno == ENFILE) {
                RefuseAcceptWithoutDescriptors();
            }
            return;
        }
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        char ip[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof(ip));
        auto connection = std::make_shared<Connection>(
            nextId++, fd, std::string(ip) + ":" + std::to_string(ntohs(peer.sin_port)) + "#" + std::to_string(fd),
            options.maxPacketSize);
        if (!MQTTProtocol_Parse_Insert(connection->address.c_str())) {
            close(fd);
            continue;
        }
        registry.Add(connection);
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = connection->id;
        epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
        if (Tracing()) {
            Trace("net " + connection->address + " connected");
        }
    }
}

// Closes connections without a CONNECT in time, and disconnects clients silent for 1.5 times their
// keep-alive; resumes listening after a pause.
void Broker::State::CheckTimeouts()
{
    const auto now = Clock::now();
    if (listenerPausedUntil != Clock::time_point{} && now >= listenerPausedUntil) {
        listenerPausedUntil = {};
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = kListenerId;
        epoll_ctl(epoll, EPOLL_CTL_ADD, listener, &event);
    }
    for (const auto& connection : registry.All()) {
        if (connection->inputEnded) {
            continue;
        }
        const long keepAliveMs = connection->keepAliveMs.load();
        const auto silent = std::chrono::duration_cast<std::chrono::milliseconds>(now - connection->lastHeard).count();
        Phase phase = Phase::Closed;
        {
            std::lock_guard lock(connection->lock);
            phase = connection->phase;
        }
        if (phase == Phase::AwaitingConnect &&
            now - connection->accepted >= std::chrono::milliseconds(options.connectTimeoutMs)) {
            Refuse(*connection, {}, PacketTrace());
        } else if (phase == Phase::Connected && keepAliveMs > 0 && silent * 2 >= keepAliveMs * 3) {
            RefuseClient(*connection, kKeepAliveTimeout);
        }
    }
}

void Broker::State::NetworkLoop(int signals)
{
    epoll_event events[64];
    auto nextCheck = Clock::now() + kTimerTick;
    while (!stopping) {
        const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(nextCheck - Clock::now()).count();
        const int count = epoll_wait(epoll, events, 64, static_cast<int>(std::max<long>(wait, 0)));
        for (int index = 0; index < count; index++) {
            const std::uint64_t id = events[index].data.u64;
            if (id == kListenerId) {
                Accept();
            } else if (id == kSignalsId) {
                signalfd_siginfo info;
                stopping = read(signals, &info, sizeof(info)) == sizeof(info);
            } else if (auto connection = registry.Find(id)) {
                if (events[index].events & EPOLLOUT) {
                    std::lock_guard lock(connection->lock);
                    FlushLocked(*connection);
                }
                if (events[index].events & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
                    OnReadable(*connection);
                }
            }
        }
        if (Clock::now() >= nextCheck) {
            CheckTimeouts();
            nextCheck = Clock::now() + kTimerTick;
        }
    }
}

}  // namespace broker
