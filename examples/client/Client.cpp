#include "client/Client.h"

#include "host/Reasons.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace client {

using namespace host;

namespace {

// CONNACK and PINGRESP have no identifier; their acknowledgements are kept under identifier 0.
constexpr unsigned short kNoId = 0;

}  // namespace

Client::~Client()
{
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool Client::Fail(std::string error)
{
    if (error_.empty()) {
        error_ = std::move(error);
    }
    return false;
}

unsigned short Client::NextId()
{
    // Never 0: the library's acknowledgement builders leave a zero identifier out.
    lastId_ = static_cast<unsigned short>(lastId_ == 65535 ? 1 : lastId_ + 1);
    return lastId_;
}

bool Client::Write(const std::string& packet)
{
    for (std::size_t sent = 0; sent < packet.size();) {
        const ssize_t result = send(fd_, packet.data() + sent, packet.size() - sent, MSG_NOSIGNAL);
        if (result < 0 && errno != EINTR) {
            return Fail(std::string("send: ") + std::strerror(errno));
        }
        sent += result > 0 ? static_cast<std::size_t>(result) : 0;
    }
    return true;
}

bool Client::Connect(const std::string& host, unsigned short port, const std::string& clientId)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
        return Fail("cannot resolve " + host);
    }
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool connected = connect(fd_, found->ai_addr, found->ai_addrlen) == 0;
    freeaddrinfo(found);
    if (!connected) {
        return Fail("connect: " + std::string(std::strerror(errno)));
    }
    const int on = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    unsigned char reason = 0;
    if (!Write(ConnectPacket(clientId, 60)) || !AwaitAck(kConnack, kNoId, reason)) {
        return false;
    }
    return reason == kSuccess || Fail("the broker refused the connection: CONNACK " + ReasonText(reason));
}

bool Client::Ping()
{
    unsigned char ignored = 0;
    return Write(BarePacket(kPingreq)) && AwaitAck(kPingresp, kNoId, ignored);
}

bool Client::Subscribe(const std::string& filter, int qos)
{
    const unsigned short id = NextId();
    unsigned char reason = 0;
    if (!Write(SubscribePacket(id, filter, qos)) || !AwaitAck(kSuback, id, reason)) {
        return false;
    }
    return reason < 0x80 || Fail("the broker refused the subscription to " + filter + ": SUBACK " + ReasonText(reason));
}

bool Client::Publish(const std::string& topic, std::string_view payload, int qos, bool retain)
{
    const unsigned short id = qos > 0 ? NextId() : 0;
    if (!Write(PublishPacket(topic, payload, qos, id, retain, {}))) {
        return false;
    }
    unsigned char reason = 0;
    if (qos == 1) {
        return AwaitAck(kPuback, id, reason) &&
               (reason < 0x80 || Fail("the broker refused the message: PUBACK " + ReasonText(reason)));
    }
    if (qos == 2) {
        if (!AwaitAck(kPubrec, id, reason)) {
            return false;
        }
        if (reason >= 0x80) {
            return Fail("the broker refused the message: PUBREC " + ReasonText(reason));
        }
        return Write(AckPacket(kPubrel, id, 0x00)) && AwaitAck(kPubcomp, id, reason);
    }
    return true;
}

bool Client::WaitForMessages(std::size_t count)
{
    return PumpUntil([&] { return received_ >= count; }) ||
           Fail("received " + std::to_string(received_) + " of " + std::to_string(count) + " messages");
}

bool Client::Listen(std::size_t count)
{
    listening_ = true;
    const bool ok = PumpUntil([&] { return count > 0 && received_ >= count; });
    listening_ = false;
    return ok;
}

void Client::Disconnect()
{
    Write(DisconnectPacket(0x00));
    close(fd_);
    fd_ = -1;
}

bool Client::AwaitAck(unsigned char type, unsigned short id, unsigned char& reason)
{
    const auto key = std::make_pair(type, id);
    if (!PumpUntil([&] { return acks_.contains(key); })) {
        return Fail(std::string("no ") + PacketTypeName(type) + " for identifier " + std::to_string(id));
    }
    reason = acks_[key];
    acks_.erase(key);
    return true;
}

bool Client::PumpUntil(const std::function<bool()>& done)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout_;
    std::vector<char> buffer(64 * 1024);
    while (!done()) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd readable{fd_, POLLIN, 0};
        const int ready = poll(&readable, 1, listening_ ? -1 : static_cast<int>(std::max<long>(left.count(), 0)));
        if (ready < 0) {
            return Fail(errno == EINTR ? "interrupted" : std::strerror(errno));
        }
        if (ready == 0) {
            return false;
        }
        const ssize_t count = recv(fd_, buffer.data(), buffer.size(), 0);
        if (count <= 0) {
            return Fail(count == 0 ? "the broker closed the connection" : std::strerror(errno));
        }
        std::vector<std::string_view> packets;
        if (cutter_.Cut(std::string_view(buffer.data(), static_cast<std::size_t>(count)), packets) !=
            PacketCutter::Status::Open) {
            return Fail("malformed stream from the broker");
        }
        for (const auto& packet : packets) {
            if (!Handle(packet)) {
                return false;
            }
        }
    }
    return true;
}

bool Client::Handle(std::string_view packet)
{
    const Frame frame = SplitPacket(packet);
    const unsigned char type = frame.header.byMsgType;
    Ack ack;
    unsigned char reason = 0;
    switch (type) {
    case kConnack:
        if (!DecodeConnack(frame.body.data(), frame.length, reason)) {
            return Fail("malformed CONNACK");
        }
        acks_[{kConnack, kNoId}] = reason;
        return true;
    case kPingresp:
        acks_[{kPingresp, kNoId}] = 0;
        return true;
    case kPublish:
        return OnPublish(frame);
    case kSuback:
    case kUnsuback:
        if (!DecodeSubscriptionAck(frame.body.data(), frame.length, ack)) {
            return Fail("malformed acknowledgement");
        }
        acks_[{type, ack.id}] = ack.reason;
        return true;
    case kPuback:
    case kPubrec:
    case kPubrel:
    case kPubcomp:
        if (!DecodeAck(frame.body.data(), frame.length, ack)) {
            return Fail("malformed acknowledgement");
        }
        if (type == kPubrel) {
            inboundQos2_.erase(ack.id);
            return Write(AckPacket(kPubcomp, ack.id, 0x00));
        }
        acks_[{type, ack.id}] = ack.reason;
        return true;
    case kDisconnect:
        return Fail("the broker disconnected: " + ReasonText(DecodeDisconnect(frame.body.data(), frame.length)));
    default:
        return Fail(std::string("unexpected ") + PacketTypeName(type));
    }
}

bool Client::OnPublish(const Frame& frame)
{
    host::Publish publish;
    if (!DecodePublish(frame.header, frame.body.data(), frame.length, publish)) {
        return Fail("malformed PUBLISH");
    }
    // A QoS 2 message is handed on once, however often it is resent before its PUBREL.
    const bool isNew = publish.qos < 2 || inboundQos2_.insert(publish.id).second;
    if (isNew) {
        received_++;
        onMessage_(publish);
    }
    if (publish.qos == 1) {
        return Write(AckPacket(kPuback, publish.id, 0x00));
    }
    return publish.qos < 2 || Write(AckPacket(kPubrec, publish.id, 0x00));
}

}  // namespace client
