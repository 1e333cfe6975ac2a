#include "broker/BrokerState.h"

#include "host/Reasons.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace broker {

using namespace host;

namespace {

// A worker collects the connections it wrote to while handling a batch of packets, and flushes each
// once at the end of the batch: one system call for many packets. Other threads flush at once.
thread_local std::vector<ConnectionPtr>* workerFlushList = nullptr;

}  // namespace

// ---- Registry and budget ----

void Registry::Add(const ConnectionPtr& connection)
{
    std::lock_guard lock(lock_);
    byId_[connection->id] = connection;
    byAddress_[connection->address] = connection;
}

void Registry::Remove(const Connection& connection, const std::string& clientId)
{
    std::lock_guard lock(lock_);
    byId_.erase(connection.id);
    byAddress_.erase(connection.address);
    if (const auto holder = byClientId_.find(clientId);
        holder != byClientId_.end() && holder->second.get() == &connection) {
        byClientId_.erase(holder);
    }
}

ConnectionPtr Registry::Find(std::uint64_t id) const
{
    std::lock_guard lock(lock_);
    auto found = byId_.find(id);
    return found == byId_.end() ? nullptr : found->second;
}

ConnectionPtr Registry::Find(const std::string& address) const
{
    std::lock_guard lock(lock_);
    auto found = byAddress_.find(address);
    return found == byAddress_.end() ? nullptr : found->second;
}

std::vector<ConnectionPtr> Registry::All() const
{
    std::lock_guard lock(lock_);
    std::vector<ConnectionPtr> all;
    for (const auto& [id, connection] : byId_) {
        all.push_back(connection);
    }
    return all;
}

ConnectionPtr Registry::Claim(const std::string& clientId, const ConnectionPtr& connection)
{
    std::lock_guard lock(lock_);
    ConnectionPtr& holder = byClientId_[clientId];
    ConnectionPtr previous = holder == connection ? nullptr : holder;
    holder = connection;
    return previous;
}

void Budget::Remove(long packets)
{
    inLibrary_ -= packets;
    room_.notify_one();
}

bool Budget::WaitForRoom()
{
    std::unique_lock lock(lock_);
    return room_.wait_for(lock, std::chrono::milliseconds(100), [&] { return inLibrary_ < limit_; });
}

// ---- Trace ----

void Broker::State::Trace(const std::string& line)
{
    std::lock_guard lock(traceLock);
    std::fprintf(stdout, "%s\n", line.c_str());
    std::fflush(stdout);
}

void Broker::State::Trace(Connection& connection, const char* direction, PacketTrace trace)
{
    if (Tracing()) {
        trace.direction = direction;
        trace.client = *connection.label.load();
        Trace(FormatTrace(trace));
    }
}

void Broker::State::TraceIn(Connection& connection, unsigned char type, int bodyLength, PacketTrace trace)
{
    Trace(connection, "in", trace.Type(type).Size(WireSize(static_cast<std::size_t>(bodyLength))));
}

// ---- Output ----

void Broker::State::Watch(Connection& connection, bool writes)
{
    if (connection.watchingWrites == writes) {
        return;
    }
    connection.watchingWrites = writes;
    epoll_event event{};
    event.events = writes ? EPOLLIN | EPOLLOUT : EPOLLIN;
    event.data.u64 = connection.id;
    epoll_ctl(epoll, EPOLL_CTL_MOD, connection.fd, &event);
}

void Broker::State::WriteLocked(Connection& connection, std::string_view packet, PacketTrace trace)
{
    if (connection.fd < 0 || packet.empty()) {
        return;
    }
    if (Tracing()) {
        Trace(connection, "out", trace.Type(static_cast<unsigned char>(packet[0]) >> 4).Size(packet.size()));
    }
    const std::size_t before = connection.unsent.size();
    connection.unsent.append(packet);
    Charged(connection, before);
}

void Broker::State::Charged(Connection& connection, std::size_t before)
{
    memory.Charge(connection.unsent.size() - before);
    ScheduleFlushLocked(connection);
}

void Broker::State::ScheduleFlushLocked(Connection& connection)
{
    if (workerFlushList == nullptr) {
        FlushLocked(connection);
    } else if (!connection.flushQueued) {
        connection.flushQueued = true;
        workerFlushList->push_back(connection.shared_from_this());
    }
}

void Broker::State::FlushLocked(Connection& connection)
{
    connection.flushQueued = false;
    std::size_t sent = 0;
    bool gone = connection.fd < 0;
    while (!gone && sent < connection.UnsentBytes()) {
        const ssize_t result = send(connection.fd, connection.unsent.data() + connection.unsentOffset + sent,
                                    connection.UnsentBytes() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (result > 0) {
            sent += static_cast<std::size_t>(result);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            break;
        } else if (errno != EINTR) {
            gone = true;  // the network thread notices when it reads
        }
    }
    // A peer that is gone takes nothing more: what waited for it is dropped.
    const std::size_t dropped = gone ? connection.UnsentBytes() - sent : 0;
    memory.Release(sent + dropped);
    connection.unsentOffset += sent + dropped;
    if (connection.UnsentBytes() == 0) {
        connection.unsent.clear();
        connection.unsentOffset = 0;
    } else if (connection.unsentOffset > connection.UnsentBytes()) {
        connection.unsent.erase(0, connection.unsentOffset);
        connection.unsentOffset = 0;
    }
    if (!gone) {
        Watch(connection, connection.UnsentBytes() > 0);
    }
}

// ---- The end of a connection ----
//
// The library holds a two- or three-byte packet other than a lone PINGREQ (a DISCONNECT E0 00, say)
// until four bytes have come, so when a connection's input ends, its session cannot simply be deleted:
// a worker may not have handled every packet yet. When the input ends at a packet boundary the network
// thread feeds the end mark behind the last packet (Network.cpp); the worker that takes it has handled
// every packet before it and closes the connection. A client the workers are done with (Ending) is
// closed at once if its end mark is fed already; otherwise its socket is shut down, the network thread
// reads the end of its input and, the client being Ending, closes it at once.

void Broker::State::Refuse(Connection& connection, const std::string& packet, PacketTrace trace)
{
    bool inputEnded = false;
    {
        std::lock_guard lock(connection.lock);
        if (!connection.Enter(Phase::Ending)) {
            return;
        }
        WriteLocked(connection, packet, std::move(trace));
        FlushLocked(connection);
        inputEnded = connection.endMarkFed;
        if (!inputEnded && connection.fd >= 0) {
            shutdown(connection.fd, SHUT_RDWR);
        }
    }
    if (inputEnded) {
        Close(connection);
    }
}

void Broker::State::RefuseClient(Connection& connection, unsigned char reason)
{
    Refuse(connection, DisconnectPacket(reason), PacketTrace().Reason(reason));
}

void Broker::State::Close(Connection& connection)
{
    std::string clientId;
    {
        std::lock_guard lock(connection.lock);
        if (!connection.Enter(Phase::Closed)) {
            return;
        }
        // The library drops what it still holds of the client; those packets leave the budget.
        MQTTProtocol_Parse_Delete(connection.address.c_str());
        budget.Remove(connection.fed > connection.taken ? static_cast<long>(connection.fed - connection.taken) : 0);
        memory.Release(connection.UnsentBytes() + connection.outbound.WaitingBytes());
        connection.unsent.clear();
        connection.unsentOffset = 0;
        close(connection.fd);
        connection.fd = -1;
        clientId = connection.clientId;
    }
    subscriptions.RemoveAll(connection.id);
    registry.Remove(connection, clientId);
    if (Tracing()) {
        Trace("net " + *connection.label.load() + " closed");
    }
}

// ---- Workers ----

void Broker::State::TakePacket(const ConnectionPtr& connection)
{
    MQTTPROTOCOL_FIXEDHEADER header{};
    char* body = nullptr;
    int length = 0;
    bool counted = false;
    bool inputEnded = false;
    bool handled = false;
    {
        std::lock_guard lock(connection->lock);
        // Fails when another worker took the packet first, or the session has been deleted.
        if (!MQTTProtocol_Parse_Recv(connection->address.c_str(), &header, &body, &length)) {
            return;
        }
        counted = ++connection->taken <= connection->fed;
        inputEnded = connection->endMarkFed;
        handled = connection->phase == Phase::AwaitingConnect || connection->phase == Phase::Connected;
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

void Broker::State::Work(int index)
{
    std::vector<ConnectionPtr> toFlush;
    workerFlushList = &toFlush;
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
        for (const auto& connection : toFlush) {
            std::lock_guard lock(connection->lock);
            FlushLocked(*connection);
        }
        toFlush.clear();
    }
    workerFlushList = nullptr;
}

// ---- Start and stop ----

Broker::Broker(const BrokerOptions& options) : state_(std::make_unique<State>(options)) {}

Broker::~Broker()
{
    for (const int fd : {state_->listener, state_->epoll, state_->reserveFd}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

unsigned short Broker::Port() const { return state_->port; }

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
    const int bodyMode =
        state.options.bodyMode == BodyMode::Compact ? MQTTPROTOCOL_BODY_COMPACT : MQTTPROTOCOL_BODY_BLOCK;
    if (!MQTTProtocol_Parse_BodyMode(bodyMode) || !MQTTProtocol_Parse_Init(state.options.pools)) {
        std::fprintf(stderr, "the receive side did not start: error 0x%llx\n",
                     static_cast<unsigned long long>(MQTTProtocol_GetLastError(nullptr)));
        return false;
    }
    state.reserveFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
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
