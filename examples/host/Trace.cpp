#include "host/Trace.h"

#include <array>
#include <cstdio>

namespace host {

const char* PacketTypeName(unsigned char type)
{
    static constexpr std::array<const char*, 16> kNames = {
        "RESERVED", "CONNECT", "CONNACK", "PUBLISH", "PUBACK", "PUBREC", "PUBREL", "PUBCOMP",
        "SUBSCRIBE", "SUBACK", "UNSUBSCRIBE", "UNSUBACK", "PINGREQ", "PINGRESP", "DISCONNECT", "AUTH"};
    return kNames[type & 0x0F];
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
