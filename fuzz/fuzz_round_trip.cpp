// Build, then decode: for every packet family whose builder and decoder share a layout, the decoder
// gives back what the builder was given, on the subset both sides agree on with the MQTT standard
// (non-zero identifiers where a reply would drop a zero one, property blocks under 128 bytes with a
// variable-length property only in last place, strings without NUL bytes).
// Input: [family][fields and properties drawn from the rest...]
#include "FuzzSupport.h"
#include "MQTTWire.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

using mqttfuzz::InputReader;
using mqttwire::PropertyList;

constexpr size_t kBlockSize = 0xA00000;
const uint8_t kByteIDs[] = {0x01, 0x17, 0x19, 0x24, 0x25, 0x28, 0x29, 0x2A};
const uint8_t kTwoByteIDs[] = {0x13, 0x21, 0x22, 0x23};
const uint8_t kFourByteIDs[] = {0x02, 0x11, 0x18, 0x27};
const uint8_t kRestOfBlockIDs[] = {0x03, 0x08, 0x09, 0x12, 0x15, 0x16, 0x1A, 0x1C, 0x1F, 0x26};

template <size_t N>
uint8_t Pick(InputReader& in, const uint8_t (&ids)[N])
{
    return ids[in.Byte() % N];
}

// A property list within the standard's block format: fixed-width values, then at most one value
// that takes the rest of the block, the whole block under 128 bytes.
PropertyList DrawProperties(InputReader& in)
{
    PropertyList properties;
    int blockLen = 0;
    const int fixedCount = in.Byte() % 8;
    for (int i = 0; i < fixedCount; i++) {
        switch (in.Byte() % 3) {
        case 0:
            properties.Integer(Pick(in, kByteIDs), 1, in.Byte());
            break;
        case 1:
            properties.Integer(Pick(in, kTwoByteIDs), 2, in.U16());
            break;
        default:
            properties.Integer(Pick(in, kFourByteIDs), 4, static_cast<uint32_t>(in.U16()) << 16 | in.U16());
            break;
        }
        blockLen += 1 + properties.records.back().nPropertyLen;
    }
    // A rest-of-block value of exactly 1, 2 or 4 bytes would be read back as an integer.
    const int restLen = in.Byte() % 64;
    if (restLen != 0 && restLen != 1 && restLen != 2 && restLen != 4 && blockLen + 1 + restLen <= 127) {
        MQTTPROTOCOL_HDRPROPERTY& property = properties.Add(Pick(in, kRestOfBlockIDs), restLen);
        for (int i = 0; i < restLen; i++) property.tszValue[i] = static_cast<char>(in.Byte());
    }
    return properties;
}

std::string Text(InputReader& in, size_t maxLen)
{
    std::string text;
    const size_t length = in.Byte() % (maxLen + 1);
    for (size_t i = 0; i < length; i++) text.push_back(static_cast<char>(in.Byte() | 0x20));  // never NUL
    return text;
}

uint16_t NonZeroIdentifier(InputReader& in)
{
    const uint16_t identifier = in.U16();
    return identifier == 0 ? 1 : identifier;
}

using ReplyBuilder = bool (*)(char*, int*, unsigned short, unsigned char, MQTTPROTOCOL_HDRPROPERTY***, int);
using ReplyDecoder = bool (*)(const char*, int, unsigned char*, unsigned short*, MQTTPROTOCOL_HDRPROPERTY***, int*);

// One family's round trip: builds into `body`, decodes it from the block, checks the fields; the
// caller checks the properties. They are drawn first, after the family.
struct RoundTrip
{
    InputReader& in;
    char* block;
    PropertyList properties = DrawProperties(in);
    const PropertyList expected = properties;  // as it was before the builder swapped it
    std::vector<char> body = std::vector<char>(70000);
    int bodyLen = 0;
    mqttwire::DecodedProperties decoded{};

    // Places the built body at the start of the zeroed block, as delivery hands it out.
    const char* Deliver()
    {
        std::memcpy(block, body.data(), static_cast<size_t>(bodyLen));
        return block;
    }

    void Connect()
    {
        MQTTPROTOCOL_HDRCONNNECT header{};
        header.byConnFlags = in.Byte() & 0xC2;  // user name, password, clean start
        const uint16_t keepAlive = in.U16();
        header.wKeepAlive = static_cast<uint16_t>(keepAlive >> 8 | keepAlive << 8);  // network order
        const std::string clientID = Text(in, 255), user = Text(in, 255), password = Text(in, 255);
        REQUIRE(MQTTProtocol_Packet_REQConnect(body.data(), &bodyLen, &header, clientID.c_str(), properties.Get(),
                                               properties.Count(), user.c_str(), password.c_str()));
        MQTTPROTOCOL_HDRCONNNECT got{};
        MQTTPROTOCOL_USERINFO info{};
        REQUIRE(MQTTProtocol_Parse_Connect(Deliver(), bodyLen, &got, &info, &decoded.list, &decoded.count));
        REQUIRE(got.byVersion == 5 && got.byConnFlags == header.byConnFlags && got.wKeepAlive == keepAlive);
        REQUIRE(clientID == info.tszClientID);
        REQUIRE(std::string(info.tszClientUser) == ((header.byConnFlags & 0x80) ? user : ""));
        REQUIRE(std::string(info.tszClientPass) == ((header.byConnFlags & 0x40) ? password : ""));
    }

    // CONNACK (its builder takes the acknowledge flags too) or DISCONNECT: a reason code.
    void ReasonOnly(bool connack)
    {
        const uint8_t reason = in.Byte();
        uint8_t got = 0;
        if (connack) {
            REQUIRE(MQTTProtocol_Packet_REPConnect(body.data(), &bodyLen, in.Byte() & 1, reason, properties.Get(),
                                                   properties.Count()));
            REQUIRE(MQTTProtocol_Parse_Connack(Deliver(), bodyLen, &got, &decoded.list, &decoded.count));
        } else {
            REQUIRE(
                MQTTProtocol_Packet_DisConnect(body.data(), &bodyLen, reason, properties.Get(), properties.Count()));
            REQUIRE(MQTTProtocol_Parse_Disconnect(Deliver(), bodyLen, &got, &decoded.list, &decoded.count));
        }
        REQUIRE(got == reason);
    }

    void Publish()
    {
        const std::string topic = Text(in, 255);
        const uint8_t qos = in.Byte() % 3;
        const uint16_t identifier = qos == 0 ? 0 : NonZeroIdentifier(in);
        std::vector<char> payload(in.Byte() * 16u);
        for (auto& byte : payload) byte = static_cast<char>(in.Byte());
        REQUIRE(MQTTProtocol_Packet_REQPublish(body.data(), &bodyLen, topic.c_str(), payload.data(),
                                               static_cast<int>(payload.size()), identifier, properties.Get(),
                                               properties.Count()));
        MQTTPROTOCOL_FIXEDHEADER header{};
        header.byMsgType = 3;
        header.byMsgFlag = static_cast<unsigned char>(qos << 1);
        std::vector<char> gotTopic(0x10000), gotPayload(payload.size() + 1);
        uint16_t gotIdentifier = 0;
        int gotPayloadLen = 0;
        REQUIRE(MQTTProtocol_Parse_Publish(Deliver(), bodyLen, &header, gotTopic.data(), &gotIdentifier,
                                           gotPayload.data(), &gotPayloadLen, &decoded.list, &decoded.count));
        REQUIRE(topic == gotTopic.data() && gotIdentifier == identifier);
        REQUIRE(gotPayloadLen == static_cast<int>(payload.size()));
        REQUIRE(payload.empty() || std::memcmp(gotPayload.data(), payload.data(), payload.size()) == 0);
    }

    // PUBACK and its kin, or UNSUBACK: an identifier and a reason code.
    void Reply(ReplyBuilder build, ReplyDecoder decode)
    {
        const uint16_t identifier = NonZeroIdentifier(in);
        const uint8_t reason = in.Byte();
        REQUIRE(build(body.data(), &bodyLen, identifier, reason, properties.Get(), properties.Count()));
        uint8_t gotReason = 0;
        uint16_t gotIdentifier = 0;
        REQUIRE(decode(Deliver(), bodyLen, &gotReason, &gotIdentifier, &decoded.list, &decoded.count));
        REQUIRE(gotReason == reason && gotIdentifier == identifier);
    }

    void Subscribe(bool withOptions)
    {
        const uint16_t identifier = in.U16();
        const std::string filter = Text(in, 255);
        const uint8_t optionsByte = in.Byte();
        MQTTPROTOCOL_HDRSUBSCRIBE options;
        std::memcpy(&options, &optionsByte, 1);
        std::vector<char> gotFilter(0x10000);
        uint16_t gotIdentifier = 0;
        if (withOptions) {
            REQUIRE(MQTTProtocol_Packet_REQSubscribe(body.data(), &bodyLen, identifier, filter.c_str(), &options,
                                                     properties.Get(), properties.Count()));
            MQTTPROTOCOL_HDRSUBSCRIBE gotOptions{};
            REQUIRE(MQTTProtocol_Parse_Subscribe(Deliver(), bodyLen, &gotIdentifier, gotFilter.data(), &gotOptions,
                                                 &decoded.list, &decoded.count));
            REQUIRE(std::memcmp(&gotOptions, &optionsByte, 1) == 0);
        } else {
            REQUIRE(MQTTProtocol_Packet_REQUNSubscribe(body.data(), &bodyLen, identifier, filter.c_str(),
                                                       properties.Get(), properties.Count()));
            REQUIRE(MQTTProtocol_Parse_UNSubcribe(Deliver(), bodyLen, &gotIdentifier, gotFilter.data(), &decoded.list,
                                                  &decoded.count));
        }
        REQUIRE(gotIdentifier == identifier && filter == gotFilter.data());
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static char* block = static_cast<char*>(std::calloc(1, kBlockSize));
    InputReader in(data, size);
    const int family = in.Byte() % 8;
    RoundTrip trip{in, block};
    switch (family) {
    case 0:
        trip.Connect();
        break;
    case 1:
        trip.ReasonOnly(true);
        break;
    case 2:
        trip.ReasonOnly(false);
        break;
    case 3:
        trip.Publish();
        break;
    case 4:
        trip.Reply(MQTTProtocol_Packet_REPPublish, MQTTProtocol_Parse_Puback);
        break;
    case 5:
        trip.Subscribe(true);
        break;
    case 6:
        trip.Subscribe(false);
        break;
    default:
        trip.Reply(MQTTProtocol_Packet_REPComm, MQTTProtocol_Parse_UNSuback);
        break;
    }
    REQUIRE(trip.decoded.Holds(trip.expected));
    std::memset(block, 0, static_cast<size_t>(trip.bodyLen));
    return 0;
}
