// Runs any decoder on a body and keeps everything it produced, so that two runs (the two body modes,
// say) can be compared output for output. Shared by the unit tests and the decoder fuzz harness;
// written on the public header alone.
#pragma once

#include "MQTTProtocol.h"

#include <cstdint>
#include <cstring>
#include <vector>

namespace mqttdecode {

// The nine packet decoders and the property block decoder on its own.
constexpr int kDecoderCount = 10;
constexpr int kTopicCapacity = 0xFFFF;

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
    int propertyCount = 0;
    std::vector<MQTTPROTOCOL_HDRPROPERTY> properties;  // copied out of the decoded list, which is freed

    bool operator==(const Run& other) const
    {
        auto same = [](const auto& a, const auto& b) { return std::memcmp(&a, &b, sizeof(a)) == 0; };
        bool equal = result == other.result && code == other.code && reasonCode == other.reasonCode &&
                     identifier == other.identifier && same(connect, other.connect) && same(user, other.user) &&
                     same(options, other.options) && topic == other.topic && payload == other.payload &&
                     payloadLen == other.payloadLen && propertyCount == other.propertyCount &&
                     properties.size() == other.properties.size();
        for (size_t i = 0; equal && i < properties.size(); i++) equal = same(properties[i], other.properties[i]);
        return equal;
    }
};

inline bool Dispatch(int decoder, uint8_t publishFlags, const char* body, int length, Run& out,
                     MQTTPROTOCOL_HDRPROPERTY*** list)
{
    switch (decoder % kDecoderCount) {
    case 0:
        return MQTTProtocol_Parse_Connect(body, length, &out.connect, &out.user, list, &out.propertyCount);
    case 1:
        return MQTTProtocol_Parse_Connack(body, length, &out.reasonCode, list, &out.propertyCount);
    case 2: {
        MQTTPROTOCOL_FIXEDHEADER header{};
        header.byMsgType = 3;
        header.byMsgFlag = publishFlags & 0x0F;
        return MQTTProtocol_Parse_Publish(body, length, &header, out.topic.data(), &out.identifier, out.payload.data(),
                                          &out.payloadLen, list, &out.propertyCount);
    }
    case 3:
        return MQTTProtocol_Parse_Puback(body, length, &out.reasonCode, &out.identifier, list, &out.propertyCount);
    case 4:
        return MQTTProtocol_Parse_Subscribe(body, length, &out.identifier, out.topic.data(), &out.options, list,
                                            &out.propertyCount);
    case 5:
        return MQTTProtocol_Parse_Suback(body, length, &out.reasonCode, &out.identifier, list, &out.propertyCount);
    case 6:
        return MQTTProtocol_Parse_UNSubcribe(body, length, &out.identifier, out.topic.data(), list, &out.propertyCount);
    case 7:
        return MQTTProtocol_Parse_UNSuback(body, length, &out.reasonCode, &out.identifier, list, &out.propertyCount);
    case 8:
        return MQTTProtocol_Parse_Disconnect(body, length, &out.reasonCode, list, &out.propertyCount);
    default:
        return m_Parse.MQTTProtocol_Parse_Property(body, length, list, &out.propertyCount);
    }
}

// Decodes body (length bytes, as Recv handed it out) with one decoder, outputs zeroed first.
inline Run Decode(int decoder, uint8_t publishFlags, const char* body, int length)
{
    Run out;
    const bool copiesTopic =
        decoder % kDecoderCount == 2 || decoder % kDecoderCount == 4 || decoder % kDecoderCount == 6;
    out.topic.resize(copiesTopic ? kTopicCapacity : 0);
    out.payload.resize(length > 0 ? static_cast<size_t>(length) : 0);
    MQTTPROTOCOL_HDRPROPERTY** list = nullptr;
    out.result = Dispatch(decoder, publishFlags, body, length, out, &list);
    out.code = out.result ? 0 : MQTTProtocol_dwErrorCode;
    if (list != nullptr) {
        for (int i = 0; i < out.propertyCount; i++) out.properties.push_back(*list[i]);
        Keel_OperatorMemory_Free(reinterpret_cast<void***>(&list), out.propertyCount);
    }
    return out;
}

}  // namespace mqttdecode
