#include "Workload.h"

#include "MQTTWire.h"

#include <algorithm>
#include <map>
#include <utility>

namespace bench {

namespace {

constexpr char kTopic[] = "sensors/room1/temp";
constexpr uint32_t kTopicLength = sizeof(kTopic) - 1;
constexpr uint8_t kFirstQos1 = 0x32;
constexpr uint8_t kFirstQos0 = 0x30;
constexpr uint8_t kFirstPingreq = 0xC0;
constexpr int kSmallPayload = 32;
constexpr int kLargePayload = 4096;
constexpr int kQos0Payload = 16;
// Identifiers run 1 .. 65535 and start again.
constexpr uint32_t kIdentifierCycle = 65535;

void AppendU16(std::vector<char>& out, uint32_t value)
{
    out.push_back(static_cast<char>(value >> 8));
    out.push_back(static_cast<char>(value & 0xFF));
}

// Appends a PUBLISH for packet number `index`: QoS 1 with the given identifier, or QoS 0 when it is
// zero; payload byte j is (index + j) & 0xFF.
void AppendPublish(Workload& workload, uint64_t index, uint32_t identifier, uint32_t payloadLength)
{
    std::vector<char>& out = workload.stream;
    const size_t start = out.size();
    const uint32_t bodyLength = 2 + kTopicLength + (identifier != 0 ? 2 : 0) + 1 + payloadLength;
    out.push_back(static_cast<char>(identifier != 0 ? kFirstQos1 : kFirstQos0));
    mqttwire::AppendRemainingLength(out, bodyLength);
    const auto bodyOffset = static_cast<uint32_t>(out.size() - start);
    AppendU16(out, kTopicLength);
    out.insert(out.end(), kTopic, kTopic + kTopicLength);
    if (identifier != 0) {
        AppendU16(out, identifier);
    }
    out.push_back(0);  // property length
    for (uint32_t j = 0; j < payloadLength; j++) {
        const auto byte = static_cast<uint8_t>((index + j) & 0xFF);
        out.push_back(static_cast<char>(byte));
        workload.expected.payloadBytes += byte;
    }
    workload.packets.push_back({start, static_cast<uint32_t>(out.size() - start), bodyOffset, bodyLength});
    workload.expected.publishes++;
    workload.expected.identifiers += identifier;
    workload.expected.topicLengths += kTopicLength;
}

void AppendPingreq(Workload& workload)
{
    const size_t start = workload.stream.size();
    workload.stream.push_back(static_cast<char>(kFirstPingreq));
    workload.stream.push_back(0);
    workload.packets.push_back({start, 2, 2, 0});
    workload.expected.pingreqs++;
}

uint32_t IdentifierOf(uint64_t index) { return static_cast<uint32_t>(index % kIdentifierCycle) + 1; }

void AppendPacket(Workload& workload, StreamKind kind, uint64_t index)
{
    switch (kind) {
    case StreamKind::SmallQos1:
        AppendPublish(workload, index, IdentifierOf(index), kSmallPayload);
        break;
    case StreamKind::LargeQos1:
        AppendPublish(workload, index, IdentifierOf(index), kLargePayload);
        break;
    case StreamKind::PingAndQos0:
        if (index % 2 == 0) {
            AppendPingreq(workload);
        } else {
            AppendPublish(workload, index, 0, kQos0Payload);
        }
        break;
    }
}

}  // namespace

Checksum& Checksum::operator+=(const Checksum& other)
{
    publishes += other.publishes;
    pingreqs += other.pingreqs;
    identifiers += other.identifiers;
    topicLengths += other.topicLengths;
    payloadBytes += other.payloadBytes;
    return *this;
}

const char* BodyOf(const Workload& workload, size_t packet)
{
    const PacketSpan& span = workload.packets[packet];
    return workload.stream.data() + span.start + span.bodyOffset;
}

size_t LongestBody(const Workload& workload)
{
    uint32_t longest = 0;
    for (const PacketSpan& packet : workload.packets) {
        longest = std::max(longest, packet.bodyLength);
    }
    return longest;
}

double WireBytes(const Workload& workload, size_t count)
{
    double bytes = 0;
    for (size_t i = 0; i < count; i++) {
        bytes += workload.packets[i].wireLength;
    }
    return bytes;
}

std::vector<size_t> CompletedByPiece(const Workload& workload, size_t pieceSize)
{
    std::vector<size_t> completed;
    size_t next = 0;
    for (size_t end = pieceSize;; end += pieceSize) {
        const size_t reached = std::min(end, workload.stream.size());
        while (next < workload.packets.size() &&
               workload.packets[next].start + workload.packets[next].wireLength <= reached) {
            next++;
        }
        completed.push_back(next);
        if (reached == workload.stream.size()) {
            return completed;
        }
    }
}

const Workload& StreamOf(StreamKind kind, int packets)
{
    static std::map<std::pair<StreamKind, int>, Workload> made;
    const auto key = std::make_pair(kind, packets);
    const auto found = made.find(key);
    if (found != made.end()) {
        return found->second;
    }
    Workload& workload = made[key];
    workload.packets.reserve(static_cast<size_t>(packets));
    for (int i = 0; i < packets; i++) {
        AppendPacket(workload, kind, static_cast<uint64_t>(i));
    }
    return workload;
}

Workload OneLargePublish(uint32_t wireLength)
{
    // First byte, four remaining-length bytes, topic, identifier and property length around the payload.
    constexpr uint32_t kAround = 1 + 4 + 2 + kTopicLength + 2 + 1;
    Workload workload;
    AppendPublish(workload, 0, 1, wireLength - kAround);
    return workload;
}

Workload PingreqBurst(int count)
{
    Workload workload;
    for (int i = 0; i < count; i++) {
        AppendPingreq(workload);
    }
    return workload;
}

}  // namespace bench
