// Build, then decode: for every packet family whose builder and decoder share a layout, the decoder
// gives back what the builder was given, on the subset both sides agree on with the MQTT standard
// (non-zero identifiers where a reply would drop a zero one, property blocks under 128 bytes with a
// variable-length property only in last place, strings without NUL bytes). The decoder's outputs are
// compared whole with the ones expected, so a stray write into any of them shows too.
// Input: [family][properties][fields...]
#include "FuzzSupport.h"
#include "MQTTWire.h"
#include "codec/DecoderRun.h"

#include <cstring>
#include <iterator>
#include <string>
#include <vector>

namespace {

using mqttfuzz::InputReader;
using mqttwire::PropertyList;

// The standard's identifiers whose value takes the rest of a block (strings, binary data and the like).
const uint8_t kRestOfBlockIDs[] = {0x03, 0x08, 0x09, 0x12, 0x15, 0x16, 0x1A, 0x1C, 0x1F, 0x26};

// Fixed-width values, then at most one value that takes the rest of the block, the whole block under
// 128 bytes. A rest-of-block value of exactly 1, 2 or 4 bytes would be read back as an integer.
PropertyList DrawProperties(InputReader& in)
{
    PropertyList properties;
    int blockLen = 0;
    for (int count = in.Byte() % 8; count > 0; count--) {
        const auto [id, width] = mqttdecode::kFixedWidths[in.Byte() % std::size(mqttdecode::kFixedWidths)];
        properties.Integer(id, width,
                           width == 1   ? in.Byte()
                           : width == 2 ? in.U16()
                                        : static_cast<uint32_t>(in.U16()) << 16 | in.U16());
        blockLen += 1 + width;
    }
    const int restLen = in.Byte() % 64;
    if (restLen != 0 && restLen != 1 && restLen != 2 && restLen != 4 && blockLen + 1 + restLen <= 127) {
        MQTTPROTOCOL_HDRPROPERTY& property =
            properties.Add(kRestOfBlockIDs[in.Byte() % std::size(kRestOfBlockIDs)], restLen);
        in.CopyOut(property.tszValue, static_cast<size_t>(restLen));
    }
    return properties;
}

// Text without NUL bytes, copied into a zeroed output as the decoders leave it.
std::string Text(InputReader& in, char* expectedOut = nullptr)
{
    std::string text;
    for (size_t length = in.Byte(); length > 0; length--) text.push_back(static_cast<char>(in.Byte() | 0x20));
    if (expectedOut != nullptr) std::memcpy(expectedOut, text.data(), text.size());
    return text;
}

uint16_t NonZeroIdentifier(InputReader& in)
{
    const uint16_t identifier = in.U16();
    return identifier == 0 ? 1 : identifier;
}

// Builds one family's body from the input and fills in what its decoder must hand out; returns that
// decoder.
int Build(int family, InputReader& in, PropertyList& properties, std::vector<char>& body, int& bodyLen,
          mqttdecode::Run& want, uint8_t& publishFlags)
{
    const auto out = body.data();
    const auto props = properties.Get();
    const int count = properties.Count();
    switch (family) {
    case 0: {
        MQTTPROTOCOL_HDRCONNNECT header{};
        header.byConnFlags = in.Byte() & 0xC2;  // user name, password, clean start
        want.connect = {0, 4, {'M', 'Q', 'T', 'T'}, 5, header.byConnFlags, in.U16()};
        header.wKeepAlive = static_cast<uint16_t>(want.connect.wKeepAlive >> 8 | want.connect.wKeepAlive << 8);
        const std::string id = Text(in, want.user.tszClientID);
        const std::string user = Text(in, (header.byConnFlags & 0x80) ? want.user.tszClientUser : nullptr);
        const std::string pass = Text(in, (header.byConnFlags & 0x40) ? want.user.tszClientPass : nullptr);
        REQUIRE(MQTTProtocol_Packet_REQConnect(out, &bodyLen, &header, id.c_str(), props, count, user.c_str(),
                                               pass.c_str()));
        return mqttdecode::kConnect;
    }
    case 1:  // the acknowledge flags go out and are dropped by the decoder
        want.reasonCode = in.Byte();
        REQUIRE(MQTTProtocol_Packet_REPConnect(out, &bodyLen, in.Byte() & 1, want.reasonCode, props, count));
        return mqttdecode::kConnack;
    case 2:
        want.reasonCode = in.Byte();
        REQUIRE(MQTTProtocol_Packet_DisConnect(out, &bodyLen, want.reasonCode, props, count));
        return mqttdecode::kDisconnect;
    case 3: {
        want.topic.resize(mqttdecode::kTopicCapacity);
        const std::string topic = Text(in, want.topic.data());
        publishFlags = static_cast<uint8_t>((in.Byte() % 3) << 1);
        want.identifier = publishFlags == 0 ? 0 : NonZeroIdentifier(in);
        std::vector<char> payload(in.Byte() * 16u);
        if (!payload.empty()) in.CopyOut(payload.data(), payload.size());
        REQUIRE(MQTTProtocol_Packet_REQPublish(out, &bodyLen, topic.c_str(), payload.data(),
                                               static_cast<int>(payload.size()), want.identifier, props, count));
        want.payload = payload;
        want.payloadLen = payload.empty() ? -1 : static_cast<int>(payload.size());
        return mqttdecode::kPublish;
    }
    case 4:
    case 7:
        want.identifier = NonZeroIdentifier(in);
        want.reasonCode = in.Byte();
        REQUIRE((family == 4 ? MQTTProtocol_Packet_REPPublish : MQTTProtocol_Packet_REPComm)(
            out, &bodyLen, want.identifier, want.reasonCode, props, count));
        return family == 4 ? mqttdecode::kPuback : mqttdecode::kUnsuback;  // the latter reads the wire layout
    default: {                                                             // SUBSCRIBE (5) or UNSUBSCRIBE (6)
        want.identifier = in.U16();
        want.topic.resize(mqttdecode::kTopicCapacity);
        const std::string filter = Text(in, want.topic.data());
        if (family == 6) {
            REQUIRE(MQTTProtocol_Packet_REQUNSubscribe(out, &bodyLen, want.identifier, filter.c_str(), props, count));
            return mqttdecode::kUnsubscribe;
        }
        const uint8_t options = in.Byte();
        std::memcpy(&want.options, &options, 1);
        REQUIRE(MQTTProtocol_Packet_REQSubscribe(out, &bodyLen, want.identifier, filter.c_str(), &want.options, props,
                                                 count));
        return mqttdecode::kSubscribe;
    }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static char* block = static_cast<char*>(std::calloc(1, MQTTPROTOCOL_PACKET_BLOCK_SIZE));
    InputReader in(data, size);
    const int family = in.Byte() % 8;
    PropertyList properties = DrawProperties(in);
    const PropertyList sent = properties;  // as it was before the builder swapped it
    std::vector<char> body(70000);
    int bodyLen = 0;
    mqttdecode::Run want;
    uint8_t publishFlags = 0;
    const int decoder = Build(family, in, properties, body, bodyLen, want, publishFlags);

    // Decoded at the start of a zeroed block, as delivery hands a body out.
    std::memcpy(block, body.data(), static_cast<size_t>(bodyLen));
    const mqttdecode::Run got = mqttdecode::Decode(decoder, static_cast<uint8_t>(0x30 | publishFlags), block, bodyLen);
    want.result = true;
    want.payload.resize(static_cast<size_t>(bodyLen));
    want.listReturned = sent.Count() > 0;
    want.propertyCount = sent.Count();
    want.properties = sent.records;
    REQUIRE(got == want);
    std::memset(block, 0, static_cast<size_t>(bodyLen));
    return 0;
}
