// A small blocking MQTT v5 client on the library.
//
// It frames what it reads itself (host::PacketCutter) and decodes each body with the library's
// decoders; the library's receive side, with its pool and worker threads, is the broker's business.
// One thread drives it: every call reads and answers incoming packets while it waits for its own
// acknowledgement, and hands each message that arrives to the callback.
#pragma once

#include "host/PacketCutter.h"
#include "host/Packets.h"
#include "host/Trace.h"

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

namespace client {

class Client
{
public:
    using MessageHandler = std::function<void(const host::Publish&)>;

    explicit Client(MessageHandler onMessage) : onMessage_(std::move(onMessage)) {}
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Each returns false when the broker refuses, the connection fails or `timeout` runs out; Error()
    // then says why.
    bool Connect(const std::string& host, unsigned short port, const std::string& clientId);
    bool Ping();
    bool Subscribe(const std::string& filter, int qos);
    // Returns once the message's QoS flow is complete (at once for QoS 0).
    bool Publish(const std::string& topic, std::string_view payload, int qos, bool retain = false);
    // Waits until `count` messages have arrived since the connection was made.
    bool WaitForMessages(std::size_t count);
    // Handles messages without a time limit until `count` have arrived (0: until interrupted by a
    // signal, which the caller lets interrupt system calls); false when the connection ends first.
    bool Listen(std::size_t count);
    void Disconnect();

    std::size_t MessagesReceived() const { return received_; }
    const std::string& Error() const { return error_; }
    void SetTimeout(std::chrono::milliseconds timeout) { timeout_ = timeout; }

private:
    // Reads and handles packets until `done` holds; false on time-out or a lost connection.
    bool PumpUntil(const std::function<bool()>& done);
    bool Handle(std::string_view packet);
    bool OnPublish(const host::Frame& frame);
    bool Write(const std::string& packet);
    bool Fail(std::string error);
    // Waits for the acknowledgement of `type` for `id` and returns its reason code in `reason`.
    bool AwaitAck(unsigned char type, unsigned short id, unsigned char& reason);
    unsigned short NextId();

    MessageHandler onMessage_;
    int fd_ = -1;
    host::PacketCutter cutter_{256 * 1024 * 1024};
    std::chrono::milliseconds timeout_{10000};
    unsigned short lastId_ = 0;
    std::map<std::pair<unsigned char, unsigned short>, unsigned char> acks_;  // (type, id) -> reason
    std::set<unsigned short> inboundQos2_;  // QoS 2 messages received, until their PUBREL
    std::size_t received_ = 0;
    bool listening_ = false;  // PumpUntil waits without a time limit
    std::string error_;
};

}  // namespace client
