#include "Receive.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

namespace {

constexpr int kTypePublish = 3;
constexpr int kTypePingreq = 12;
// What the decoder's topic out must be able to hold.
constexpr size_t kTopicCapacity = 65535;
// The topic out is cleared this far before each decode, so the topic's length is where its bytes end.
constexpr size_t kTopicProbe = 32;

// Sums bytes in chunks small enough for a 32-bit total, which the compiler vectorizes.
uint64_t SumOfBytes(const char* data, size_t count)
{
    constexpr size_t kChunk = 1 << 16;
    uint64_t total = 0;
    for (size_t at = 0; at < count; at += kChunk) {
        const size_t end = std::min(at + kChunk, count);
        uint32_t chunk = 0;
        for (size_t j = at; j < end; j++) {
            chunk += static_cast<uint8_t>(data[j]);
        }
        total += chunk;
    }
    return total;
}

std::string NextAddress()
{
    static std::atomic<int> next{0};
    // As long as a typical "host:port" name, too long for the strings' inline storage.
    char address[32];
    std::snprintf(address, sizeof(address), "bench-client-%06d", next++);
    return address;
}

}  // namespace

Client::Client() : m_Address(NextAddress()), m_Inserted(MQTTProtocol_Parse_Insert(m_Address.c_str())) {}

Client::~Client() { MQTTProtocol_Parse_Delete(m_Address.c_str()); }

Receiver::Receiver(size_t maxBody) : m_Topic(kTopicCapacity), m_Payload(std::max<size_t>(maxBody, 1)) {}

bool Receiver::TakeOne(const char* address)
{
    MQTTPROTOCOL_FIXEDHEADER header{};
    char* body = nullptr;
    int length = 0;
    if (!MQTTProtocol_Parse_Recv(address, &header, &body, &length)) {
        return false;
    }
    Decode(header, body, length);
    std::free(body);
    return true;
}

void Receiver::TakeReady(const char* address)
{
    while (TakeOne(address)) {
    }
}

Checksum Receiver::TakeSum()
{
    const Checksum sum = m_Sum;
    m_Sum = Checksum{};
    return sum;
}

void Receiver::Decode(MQTTPROTOCOL_FIXEDHEADER header, const char* body, int length)
{
    if (header.byMsgType == kTypePingreq) {
        m_Sum.pingreqs++;
        return;
    }
    if (header.byMsgType != kTypePublish) {
        return;  // the workloads send nothing else: a stray packet shows as a checksum mismatch
    }
    std::memset(m_Topic.data(), 0, kTopicProbe);
    unsigned short identifier = 0;
    int payloadLength = 0;
    MQTTPROTOCOL_HDRPROPERTY** properties = nullptr;
    int propertyCount = 0;
    MQTTProtocol_Parse_Publish(body, length, &header, m_Topic.data(), &identifier, m_Payload.data(), &payloadLength,
                               &properties, &propertyCount);
    Keel_OperatorMemory_Free(reinterpret_cast<void***>(&properties), propertyCount);
    Tally(identifier, payloadLength);
}

void Receiver::Tally(unsigned short identifier, int payloadLength)
{
    m_Sum.publishes++;
    m_Sum.identifiers += identifier;
    m_Sum.topicLengths += strnlen(m_Topic.data(), kTopicProbe);
    m_Sum.payloadBytes += SumOfBytes(m_Payload.data(), static_cast<size_t>(payloadLength));
}

bool FeedPieces(const char* address, const std::vector<char>& stream, size_t begin, size_t end, size_t pieceSize,
                Receiver& receiver)
{
    for (size_t at = begin; at < end; at += pieceSize) {
        const size_t size = std::min(pieceSize, end - at);
        if (!MQTTProtocol_Parse_Send(address, stream.data() + at, static_cast<int>(size))) {
            return false;
        }
        receiver.TakeReady(address);
    }
    return true;
}

}  // namespace bench
