// What the broker's threads share: its connections, subscriptions, retained messages and limits, and
// the steps of its three parts, each in a file of its own: the network thread (Network.cpp), the
// packet handlers (Handlers.cpp), and the workers with the output and the end of each connection
// (Broker.cpp).
#pragma once

#include "broker/Broker.h"
#include "broker/Connection.h"
#include "broker/Delivery.h"
#include "broker/Topics.h"
#include "host/Packets.h"
#include "host/Trace.h"

#include <MQTTProtocol.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace broker {

// The connections by the broker's id, by the library's address and by client identifier.
class Registry
{
public:
    void Add(const ConnectionPtr& connection);
    // Forgets the connection, and its client identifier if it still holds it.
    void Remove(const Connection& connection, const std::string& clientId);
    ConnectionPtr Find(std::uint64_t id) const;
    ConnectionPtr Find(const std::string& address) const;
    std::vector<ConnectionPtr> All() const;
    // Makes the connection the one that holds the client identifier; returns the one that held it.
    ConnectionPtr Claim(const std::string& clientId, const ConnectionPtr& connection);

private:
    mutable std::mutex lock_;
    std::unordered_map<std::uint64_t, ConnectionPtr> byId_;
    std::unordered_map<std::string, ConnectionPtr> byAddress_;
    std::unordered_map<std::string, ConnectionPtr> byClientId_;
};

// Counts the packets fed to the library and not yet taken out.
class Budget
{
public:
    explicit Budget(long limit) : limit_(limit) {}
    void Add(long packets) { inLibrary_ += packets; }
    void Remove(long packets);
    // Waits a little for room; false when there is none yet.
    bool WaitForRoom();

private:
    const long limit_;
    std::atomic<long> inLibrary_{0};
    std::mutex lock_;
    std::condition_variable room_;
};

struct Broker::State
{
    explicit State(const BrokerOptions& options)
        : options(options), budget(options.maxWaitingPackets),
          retained(options.maxRetainedMessages, options.maxRetainedBytes), memory(options.maxMemory)
    {
    }

    const BrokerOptions options;
    int listener = -1;
    int epoll = -1;
    int reserveFd = -1;  // given up to accept, and close, a connection when descriptors run out
    Clock::time_point listenerPausedUntil{};
    unsigned short port = 0;
    std::atomic<bool> stopping{false};
    std::uint64_t nextId = 0;

    Registry registry;
    Budget budget;
    SubscriptionTable subscriptions;
    RetainedMessages retained;
    MemoryCap memory;
    std::mutex traceLock;

    // ---- Trace and output (Broker.cpp) ----
    bool Tracing() const { return options.trace; }
    void Trace(const std::string& line);
    void Trace(Connection& connection, const char* direction, host::PacketTrace trace);
    void TraceIn(Connection& connection, unsigned char type, int bodyLength, host::PacketTrace trace);
    // Each with the connection's lock held: queues bytes for the socket and has them flushed, by a
    // worker at the end of its batch of packets, or at once by any other thread.
    void WriteLocked(Connection& connection, std::string_view packet, host::PacketTrace trace);
    void Charged(Connection& connection, std::size_t before);
    void ScheduleFlushLocked(Connection& connection);
    void FlushLocked(Connection& connection);
    void Watch(Connection& connection, bool writes);

    // ---- The end of a connection (Broker.cpp) ----
    // Answers a client the broker serves no longer with `packet` (a DISCONNECT, a refusing CONNACK,
    // or nothing), once, and closes its connection.
    void Refuse(Connection& connection, const std::string& packet, host::PacketTrace trace);
    void RefuseClient(Connection& connection, unsigned char reason);
    // Deletes the session and closes the socket, once, from whichever thread ends the connection.
    void Close(Connection& connection);

    // ---- Workers (Broker.cpp) ----
    void TakePacket(const ConnectionPtr& connection);
    void Work(int index);

    // ---- Packet handlers (Handlers.cpp) ----
    void Handle(Connection& connection, MQTTPROTOCOL_FIXEDHEADER header, const char* body, int length);
    void OnConnect(Connection& connection, const char* body, int length);
    void OnPublish(Connection& connection, MQTTPROTOCOL_FIXEDHEADER header, const char* body, int length);
    void OnAcknowledgement(Connection& connection, unsigned char type, const char* body, int length);
    void OnSubscribe(Connection& connection, const char* body, int length);
    void OnUnsubscribe(Connection& connection, const char* body, int length);
    std::size_t Route(const Connection& publisher, const std::shared_ptr<const Message>& message);
    void Deliver(Connection& subscriber, Outgoing outgoing);
    void SendPublishLocked(Connection& subscriber, const Outgoing& outgoing);
    void SendWaitingLocked(Connection& subscriber);

    // ---- Network thread (Network.cpp) ----
    bool FeedLocked(Connection& connection, std::string_view bytes, std::size_t packets);
    bool FeedEndMark(Connection& connection);
    void EndInput(Connection& connection);
    void OnRead(Connection& connection, std::string_view bytes);
    void OnReadable(Connection& connection);
    void Accept();
    void RefuseAcceptWithoutDescriptors();
    void CheckTimeouts();
    void NetworkLoop(int signals);
};

// epoll's tags for the two descriptors that are not connections (those are tagged with their id).
constexpr std::uint64_t kListenerId = ~std::uint64_t{0};
constexpr std::uint64_t kSignalsId = kListenerId - 1;

// The end mark: a PINGREQ with flags no client may send, fed behind a connection's last packet (see
// Network.cpp).
constexpr std::string_view kEndMark("\xCF\x00", 2);
constexpr unsigned char kEndMarkFlags = 0x0F;

}  // namespace broker
