#include "host/Trace.h"

#include "host/Reasons.h"

#include <array>
#include <cstdio>

namespace host {

const char* PacketTypeName(unsigned char type)
{
    static constexpr std::array<const char*, 16> kNames = {
        "RESERVED",  "CONNECT", "CONNACK",     "PUBLISH",  "PUBACK",  "PUBREC",   "PUBREL",     "PUBCOMP",
        "SUBSCRIBE", "SUBACK",  "UNSUBSCRIBE", "UNSUBACK", "PINGREQ", "PINGRESP", "DISCONNECT", "AUTH"};
    return kNames[type & 0x0F];
}

const char* ReasonName(unsigned char reason)
{
    switch (reason) {
    case kSuccess:
        return "success";
    case kGrantedQos1:
        return "granted QoS 1";
    case kGrantedQos2:
        return "granted QoS 2";
    case kNoMatchingSubscribers:
        return "no matching subscribers";
    case kNoSubscriptionExisted:
        return "no subscription existed";
    case kUnspecifiedError:
        return "unspecified error";
    case kMalformedPacket:
        return "malformed packet";
    case kProtocolError:
        return "protocol error";
    case kImplementationSpecificError:
        return "implementation specific error";
    case kUnsupportedProtocolVersion:
        return "unsupported protocol version";
    case kClientIdNotValid:
        return "client identifier not valid";
    case kServerBusy:
        return "server busy";
    case kBadAuthenticationMethod:
        return "bad authentication method";
    case kKeepAliveTimeout:
        return "keep alive timeout";
    case kSessionTakenOver:
        return "session taken over";
    case kTopicFilterInvalid:
        return "topic filter invalid";
    case kTopicNameInvalid:
        return "topic name invalid";
    case kPacketIdNotFound:
        return "packet identifier not found";
    case kTopicAliasInvalid:
        return "topic alias invalid";
    case kPacketTooLarge:
        return "packet too large";
    case kQuotaExceeded:
        return "quota exceeded";
    case kSharedSubscriptionsNotSupported:
        return "shared subscriptions not supported";
    default:
        return "reason";
    }
}

std::string ReasonText(unsigned char reason)
{
    char text[64];
    std::snprintf(text, sizeof(text), "0x%02X (%s)", reason, ReasonName(reason));
    return text;
}

std::string FormatTrace(const PacketTrace& trace)
{
    char field[64];
    std::string line = trace.direction + " " + trace.client + " " + PacketTypeName(trace.type);
    if (trace.id) {
        std::snprintf(field, sizeof(field), " id=%u", *trace.id);
        line += field;
    }
    if (trace.topic) {
        line += " topic=\"" + *trace.topic + "\"";
    }
    if (trace.qos) {
        std::snprintf(field, sizeof(field), " qos=%d", *trace.qos);
        line += field;
    }
    if (trace.reason) {
        std::snprintf(field, sizeof(field), " reason=0x%02X", *trace.reason);
        line += field;
    }
    if (trace.payload) {
        std::snprintf(field, sizeof(field), " payload=%zuB", *trace.payload);
        line += field;
    }
    std::snprintf(field, sizeof(field), " size=%zuB", trace.packetSize);
    return line + field;
}

}  // namespace host
