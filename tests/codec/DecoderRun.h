// Runs any decoder on a body and keeps everything it produced, so that two runs (the two body modes,
// say) can be compared output for output, or a run with what a test expects. Shared by the unit tests
// and the decoder fuzz harnesses; written on the public header alone.
#pragma once

#include "MQTTWire.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace mqttdecode {

// The nine packet decoders and the property block decoder on its own, numbered as Dispatch runs them.
enum Decoder
{
    kConnect,
    kConnack,
    kPublish,
    kPuback,
    kSubscribe,
    kSuback,
    kUnsubscribe,
    kUnsuback,
    kDisconnect,
    kPropertyBlock,
    kDecoderCount
};
constexpr int kTopicCapacity = 0xFFFF;

// The property identifiers the decoder knows a width for; every other one takes the rest of its block.
constexpr std::pair<uint8_t, int> kFixedWidths[] = {
    {0x01, 1}, {0x17, 1}, {0x19, 1}, {0x24, 1}, {0x25, 1}, {0x28, 1}, {0x29, 1}, {0x2A, 1},
    {0x13, 2}, {0x21, 2}, {0x22, 2}, {0x23, 2}, {0x02, 4}, {0x11, 4}, {0x18, 4}, {0x27, 4},
};

// Values no decoder writes, preset with presetMarkers so that an output a decoder leaves alone shows: a
// user record of kUnsetText bytes (absent fields, missing terminators), the count at kUntouched.
constexpr char kUnsetText = '#';
constexpr unsigned short kUnsetIdentifier = 0xBEEF;
constexpr unsigned char kUnsetByte = 0xEE;  // the reason code, the CONNECT and options records, the payload
constexpr int kUnsetPayloadLen = -7;

inline bool SameBytes(const auto& a, const auto& b) { return std::memcmp(&a, &b, sizeof(a)) == 0; }

inline bool SameRecords(const std::vector<MQTTPROTOCOL_HDRPROPERTY>& a, const std::vector<MQTTPROTOCOL_HDRPROPERTY>& b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](auto& x, auto& y) { return SameBytes(x, y); });
}

struct Run
{
    bool result = false;
    uint64_t code = 0;  // the code of a failed run
    unsigned char reasonCode = 0;
    unsigned short identifier = 0;
    MQTTPROTOCOL_HDRCONNNECT connect{};
    MQTTPROTOCOL_USERINFO user{};
    MQTTPROTOCOL_HDRSUBSCRIBE options{};
    std::vector<char> topic;  // 65,535 bytes for the decoders that copy a topic, empty for the others
    std::vector<char> payload;
    int payloadLen = -1;
    bool listReturned = false;  // the list out was set, whatever the count says
    int propertyCount = 0;
    std::vector<MQTTPROTOCOL_HDRPROPERTY> properties;  // copied out of the decoded list, which is freed

    bool operator==(const Run& other) const
    {
        return result == other.result && code == other.code && reasonCode == other.reasonCode &&
               identifier == other.identifier && SameBytes(connect, other.connect) && SameBytes(user, other.user) &&
               SameBytes(options, other.options) && topic == other.topic && payload == other.payload &&
               payloadLen == other.payloadLen && listReturned == other.listReturned &&
               propertyCount == other.propertyCount && SameRecords(properties, other.properties);
    }
};

// publishFirstByte: the PUBLISH packet's first byte, type and flags, as the receive side hands it out.
inline bool Dispatch(int decoder, uint8_t publishFirstByte, const char* body, int length, Run& out,
                     MQTTPROTOCOL_HDRPROPERTY*** list)
{
    switch (decoder % kDecoderCount) {
    case kConnect:
        return MQTTProtocol_Parse_Connect(body, length, &out.connect, &out.user, list, &out.propertyCount);
    case kConnack:
        return MQTTProtocol_Parse_Connack(body, length, &out.reasonCode, list, &out.propertyCount);
    case kPublish: {
        MQTTPROTOCOL_FIXEDHEADER header{};
        std::memcpy(&header, &publishFirstByte, 1);
        return MQTTProtocol_Parse_Publish(body, length, &header, out.topic.data(), &out.identifier, out.payload.data(),
                                          &out.payloadLen, list, &out.propertyCount);
    }
    case kPuback:
        return MQTTProtocol_Parse_Puback(body, length, &out.reasonCode, &out.identifier, list, &out.propertyCount);
    case kSubscribe:
        return MQTTProtocol_Parse_Subscribe(body, length, &out.identifier, out.topic.data(), &out.options, list,
                                            &out.propertyCount);
    case kSuback:
        return MQTTProtocol_Parse_Suback(body, length, &out.reasonCode, &out.identifier, list, &out.propertyCount);
    case kUnsubscribe:
        return MQTTProtocol_Parse_UNSubcribe(body, length, &out.identifier, out.topic.data(), list, &out.propertyCount);
    case kUnsuback:
        return MQTTProtocol_Parse_UNSuback(body, length, &out.reasonCode, &out.identifier, list, &out.propertyCount);
    case kDisconnect:
        return MQTTProtocol_Parse_Disconnect(body, length, &out.reasonCode, list, &out.propertyCount);
    default:
        return m_Parse.MQTTProtocol_Parse_Property(body, length, list, &out.propertyCount);
    }
}

// A run's outputs before a decoder writes them, for a body of length bytes: zeroed (the payload
// length -1), or preset to the kUnset markers.
inline Run Unwritten(int decoder, int length, bool presetMarkers)
{
    Run out;
    if (presetMarkers) {
        std::memset(&out.user, kUnsetText, sizeof(out.user));
        std::memset(&out.connect, kUnsetByte, sizeof(out.connect));
        std::memset(&out.options, kUnsetByte, sizeof(out.options));
        out.identifier = kUnsetIdentifier;
        out.reasonCode = kUnsetByte;
        out.payloadLen = kUnsetPayloadLen;
        out.propertyCount = mqttwire::DecodedProperties::kUntouched;
    }
    const int kind = decoder % kDecoderCount;
    out.topic.resize(kind == kPublish || kind == kSubscribe || kind == kUnsubscribe ? kTopicCapacity : 0);
    out.payload.resize(length > 0 ? static_cast<size_t>(length) : 0, presetMarkers ? static_cast<char>(kUnsetByte) : 0);
    return out;
}

// Decodes body (length bytes, as Recv handed it out) with one decoder, its outputs as Unwritten gives
// them.
inline Run Decode(int decoder, uint8_t publishFirstByte, const char* body, int length, bool presetMarkers = false)
{
    Run out = Unwritten(decoder, length, presetMarkers);
    MQTTPROTOCOL_HDRPROPERTY** list = nullptr;
    out.result = Dispatch(decoder, publishFirstByte, body, length, out, &list);
    out.code = out.result ? 0 : MQTTProtocol_dwErrorCode;
    out.listReturned = list != nullptr;
    if (list != nullptr) {
        for (int i = 0; i < out.propertyCount; i++) out.properties.push_back(*list[i]);
        Keel_OperatorMemory_Free(reinterpret_cast<void***>(&list), out.propertyCount);
    }
    return out;
}

}  // namespace mqttdecode
