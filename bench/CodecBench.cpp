// Every builder and every decoder on a typical packet, in ns per packet, beside a memcpy of as many
// bytes as the packet's body, with the allocations each makes.
#include "Runs.h"
#include "Settings.h"
#include "Table.h"

#include <MQTTProtocol.h>

#include <cmath>
#include <cstring>
#include <set>
#include <vector>

namespace bench {

namespace {

const std::string kGroup = "codec";
constexpr char kTopic[] = "sensors/room1/temp";
constexpr char kFilter[] = "sensors/+/temp";
constexpr char kPayload[] = "0123456789abcdef0123456789abcdef";
constexpr int kPayloadLength = sizeof(kPayload) - 1;  // W1's 32 bytes
constexpr unsigned short kIdentifier = 1;
constexpr int kOutCapacity = 65536;
// Decoders may read a few bytes past a body: each body is followed by this many zeros.
constexpr size_t kBodySlack = 64;
constexpr double kPublishLimitNs = 50;

// The properties a typical CONNECT or CONNACK carries: Session Expiry Interval and Receive Maximum.
// Builders swap values in place, so every use restores them first.
MQTTPROTOCOL_HDRPROPERTY*** TypicalProperties()
{
    static MQTTPROTOCOL_HDRPROPERTY expiry{};
    static MQTTPROTOCOL_HDRPROPERTY receiveMaximum{};
    static MQTTPROTOCOL_HDRPROPERTY* records[] = {&expiry, &receiveMaximum};
    static MQTTPROTOCOL_HDRPROPERTY** list = records;
    expiry.byPropertyID = 0x11;
    expiry.nPropertyLen = 4;
    expiry.dwValue = 3600;
    receiveMaximum.byPropertyID = 0x21;
    receiveMaximum.nPropertyLen = 2;
    receiveMaximum.wValue = 20;
    return &list;
}
constexpr int kTypicalPropertyCount = 2;

// Outputs big enough for any body or field: slot 0 for bodies and topics, slot 1 for payloads.
char* OutBuffer(int slot = 0)
{
    static std::vector<char> out(2 * kOutCapacity);
    return out.data() + slot * kOutCapacity;
}

template <typename Op>
void RunCodec(benchmark::State& state, int bytes, Op& op)
{
    const Meter meter;
    for (auto _ : state) {
        op();
        benchmark::ClobberMemory();
    }
    const auto iterations = static_cast<double>(state.iterations());
    meter.Account(state, iterations, iterations * bytes);
}

// The hidden row of a memcpy of `bytes` bytes, registered once per size; returns its key.
std::string MemcpyRow(int bytes, const Settings& settings)
{
    static std::set<int> registered;
    const std::string label = "memcpy of the same " + std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    if (registered.insert(bytes).second) {
        AddRow({kGroup, label, false},
               [bytes](benchmark::State& state) { RunMemcpy(state, static_cast<size_t>(bytes)); })
            ->MinTime(settings.codecMinSeconds)
            ->UseRealTime();
    }
    return KeyOf(kGroup, label);
}

template <typename Op>
void AddCodecRow(const std::string& label, int bytes, std::vector<Target> targets, const Settings& settings, Op op)
{
    const std::string memcpyKey = MemcpyRow(bytes, settings);
    Row row(kGroup, label);
    row.comparisons = {{memcpyKey}};
    row.targets = std::move(targets);
    AddRow(row, [bytes, op](benchmark::State& state) mutable { RunCodec(state, bytes, op); })
        ->MinTime(settings.codecMinSeconds)
        ->UseRealTime();
}

// Allocations per packet as the table shows them, to two decimals: the benchmark library's own
// allocation or two in a run of millions must not count against a row.
Target AllocationsTarget(double expected, const std::string& text)
{
    return {text, [expected](const Measured& self, const Results&) {
                return std::fabs(self.allocationsPerPacket - expected) < 0.005;
            }};
}

Target FasterThanTarget(double limitNs, const std::string& text)
{
    return {text, [limitNs](const Measured& self, const Results&) { return self.nsPerPacket < limitNs; }};
}

// build(out, &length) writes one body; the row's byte count is that body's length.
template <typename Build>
void AddBuilderRow(const std::string& label, const Settings& settings, Build build, std::vector<Target> targets = {})
{
    std::vector<char> probe(kOutCapacity);
    int bytes = 0;
    build(probe.data(), &bytes);
    targets.push_back(AllocationsTarget(0, "no allocation"));
    AddCodecRow(label, bytes, std::move(targets), settings, [build] {
        int length = 0;
        build(OutBuffer(), &length);
        benchmark::DoNotOptimize(length);
    });
}

// decode(body, length, &list, &count) reads one body; a list it returns is freed as a host would.
template <typename Decode>
void AddDecoderRow(const std::string& label, const Settings& settings, std::vector<char> body, bool returnsList,
                   Decode decode, std::vector<Target> targets = {})
{
    const int bytes = static_cast<int>(body.size());
    body.resize(body.size() + kBodySlack, 0);
    targets.push_back(returnsList ? AllocationsTarget(1, "one allocation per property list")
                                  : AllocationsTarget(0, "no allocation"));
    AddCodecRow(label, bytes, std::move(targets), settings, [body, bytes, decode] {
        MQTTPROTOCOL_HDRPROPERTY** list = nullptr;
        int count = 0;
        decode(body.data(), bytes, &list, &count);
        Keel_OperatorMemory_Free(reinterpret_cast<void***>(&list), count);
    });
}

// The body a builder writes, for its decoder.
template <typename Build>
std::vector<char> BodyOf(Build build)
{
    std::vector<char> out(kOutCapacity);
    int length = 0;
    build(out.data(), &length);
    out.resize(static_cast<size_t>(length));
    return out;
}

bool BuildConnect(char* out, int* length)
{
    MQTTPROTOCOL_HDRCONNNECT header{};
    header.byConnFlags = 0xC2;   // user name, password, clean start
    header.wKeepAlive = 0x3C00;  // 60 seconds, network order
    return MQTTProtocol_Packet_REQConnect(out, length, &header, "sensor-0001", TypicalProperties(),
                                          kTypicalPropertyCount, "user", "secret");
}

bool BuildConnack(char* out, int* length)
{
    return MQTTProtocol_Packet_REPConnect(out, length, 0, 0, TypicalProperties(), kTypicalPropertyCount);
}

bool BuildDisconnect(char* out, int* length) { return MQTTProtocol_Packet_DisConnect(out, length, 0, nullptr, 0); }

bool BuildPublish(char* out, int* length)
{
    return MQTTProtocol_Packet_REQPublish(out, length, kTopic, kPayload, kPayloadLength, kIdentifier, nullptr, 0);
}

bool BuildPuback(char* out, int* length)
{
    return MQTTProtocol_Packet_REPPublish(out, length, kIdentifier, 0, nullptr, -1);
}

bool BuildSubscribe(char* out, int* length)
{
    MQTTPROTOCOL_HDRSUBSCRIBE options{};
    options.byMaxQos = 1;
    return MQTTProtocol_Packet_REQSubscribe(out, length, kIdentifier, kFilter, &options, nullptr, 0);
}

bool BuildSuback(char* out, int* length)
{
    return MQTTProtocol_Packet_REPComm(out, length, kIdentifier, 1, nullptr, 0);
}

bool BuildUnsubscribe(char* out, int* length)
{
    return MQTTProtocol_Packet_REQUNSubscribe(out, length, kIdentifier, kFilter, nullptr, 0);
}

bool BuildPropertyBlock(char* out, int* length)
{
    *length = 0;
    return m_Packet.MQTTProtocol_Packet_Property(out, length, TypicalProperties(), kTypicalPropertyCount);
}

void RegisterBuilders(const Settings& settings)
{
    const std::vector<char> publishBody = BodyOf(BuildPublish);
    AddBuilderRow("fixed header around a W1 body", settings, [publishBody](char* out, int* length) {
        return MQTTProtocol_Packet_Header(out, length, 3, publishBody.data(), static_cast<int>(publishBody.size()), 2);
    });
    AddBuilderRow("remaining length 55 encoded", settings, [](char* out, int* length) {
        unsigned char count = 0;
        m_Packet.MQTTProtocol_Packet_Length(55, reinterpret_cast<unsigned char*>(out), &count);
        *length = count;
        return true;
    });
    AddBuilderRow("property block built (2 properties)", settings, BuildPropertyBlock);
    AddBuilderRow("CONNECT built (2 properties, user, password)", settings, BuildConnect);
    AddBuilderRow("CONNACK built (2 properties)", settings, BuildConnack);
    AddBuilderRow("DISCONNECT built", settings, BuildDisconnect);
    AddBuilderRow("PUBLISH built (W1 packet)", settings, BuildPublish,
                  {FasterThanTarget(kPublishLimitNs, "under 50 ns")});
    AddBuilderRow("PUBACK built (short form)", settings, BuildPuback);
    AddBuilderRow("SUBSCRIBE built", settings, BuildSubscribe);
    AddBuilderRow("SUBACK / UNSUBACK built", settings, BuildSuback);
    AddBuilderRow("UNSUBSCRIBE built", settings, BuildUnsubscribe);
}

// The decoders of an acknowledgement share one signature: reason code, then identifier.
template <auto Decode>
void AcknowledgementDecoder(const char* body, int length, MQTTPROTOCOL_HDRPROPERTY*** list, int* count)
{
    unsigned char reason = 0;
    unsigned short identifier = 0;
    Decode(body, length, &reason, &identifier, list, count);
    benchmark::DoNotOptimize(identifier);
}

// The remaining length and the property block, which every packet decoder uses.
void RegisterFieldDecoders(const Settings& settings)
{
    AddDecoderRow("remaining length 55 decoded", settings, {0x37}, false, [](const char* body, int length, auto, auto) {
        int value = 0;
        int headerSize = 1;
        m_Parse.MQTTProtocol_Parse_Length(body, length, &value, &headerSize);
        benchmark::DoNotOptimize(value);
    });
    const std::vector<char> block = BodyOf(BuildPropertyBlock);
    AddDecoderRow("property block decoded (2 properties)", settings, {block.begin() + 1, block.end()}, true,
                  [](const char* body, int length, auto list, auto count) {
                      m_Parse.MQTTProtocol_Parse_Property(body, length, list, count);
                  });
}

void RegisterConnectionDecoders(const Settings& settings)
{
    AddDecoderRow("CONNECT decoded (2 properties, user, password)", settings, BodyOf(BuildConnect), true,
                  [](const char* body, int length, auto list, auto count) {
                      // Zeroed once: clearing 780 bytes each time would be the host's cost, not the decoder's.
                      static MQTTPROTOCOL_USERINFO user{};
                      MQTTPROTOCOL_HDRCONNNECT header{};
                      MQTTProtocol_Parse_Connect(body, length, &header, &user, list, count);
                      benchmark::DoNotOptimize(user);
                  });
    AddDecoderRow("CONNACK decoded (2 properties)", settings, BodyOf(BuildConnack), true,
                  [](const char* body, int length, auto list, auto count) {
                      unsigned char reason = 0;
                      MQTTProtocol_Parse_Connack(body, length, &reason, list, count);
                      benchmark::DoNotOptimize(reason);
                  });
    AddDecoderRow("DISCONNECT decoded", settings, BodyOf(BuildDisconnect), false,
                  [](const char* body, int length, auto list, auto count) {
                      unsigned char reason = 0;
                      MQTTProtocol_Parse_Disconnect(body, length, &reason, list, count);
                      benchmark::DoNotOptimize(reason);
                  });
}

void RegisterPublishDecoders(const Settings& settings)
{
    AddDecoderRow("PUBLISH decoded (W1 packet)", settings, BodyOf(BuildPublish), false,
                  [](const char* body, int length, auto list, auto count) {
                      MQTTPROTOCOL_FIXEDHEADER header{};
                      header.byMsgType = 3;
                      header.byMsgFlag = 2;
                      unsigned short identifier = 0;
                      int payloadLength = 0;
                      MQTTProtocol_Parse_Publish(body, length, &header, OutBuffer(0), &identifier, OutBuffer(1),
                                                 &payloadLength, list, count);
                      benchmark::DoNotOptimize(identifier);
                      benchmark::DoNotOptimize(payloadLength);
                  },
                  {FasterThanTarget(kPublishLimitNs, "under 50 ns")});
    AddDecoderRow("PUBACK decoded", settings, BodyOf(BuildPuback), false,
                  AcknowledgementDecoder<MQTTProtocol_Parse_Puback>);
}

void RegisterSubscriptionDecoders(const Settings& settings)
{
    AddDecoderRow("SUBSCRIBE decoded", settings, BodyOf(BuildSubscribe), false,
                  [](const char* body, int length, auto list, auto count) {
                      unsigned short identifier = 0;
                      MQTTPROTOCOL_HDRSUBSCRIBE options{};
                      MQTTProtocol_Parse_Subscribe(body, length, &identifier, OutBuffer(), &options, list, count);
                      benchmark::DoNotOptimize(identifier);
                  });
    AddDecoderRow("SUBACK decoded", settings, BodyOf(BuildSuback), false,
                  AcknowledgementDecoder<MQTTProtocol_Parse_Suback>);
    AddDecoderRow("UNSUBSCRIBE decoded", settings, BodyOf(BuildUnsubscribe), false,
                  [](const char* body, int length, auto list, auto count) {
                      unsigned short identifier = 0;
                      MQTTProtocol_Parse_UNSubcribe(body, length, &identifier, OutBuffer(), list, count);
                      benchmark::DoNotOptimize(identifier);
                  });
    AddDecoderRow("UNSUBACK decoded", settings, BodyOf(BuildSuback), false,
                  AcknowledgementDecoder<MQTTProtocol_Parse_UNSuback>);
}

}  // namespace

void RegisterCodec(const Settings& settings)
{
    RegisterBuilders(settings);
    RegisterFieldDecoders(settings);
    RegisterConnectionDecoders(settings);
    RegisterPublishDecoders(settings);
    RegisterSubscriptionDecoders(settings);
}

}  // namespace bench
