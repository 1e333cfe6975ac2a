// One readable line per packet that a host receives or sends.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>

namespace host {

// Fields are set in a chain: PacketTrace().Id(7).Qos(1).
struct PacketTrace
{
    PacketTrace& Type(unsigned char value)
    {
        type = value;
        return *this;
    }
    PacketTrace& Id(unsigned value)
    {
        id = value;
        return *this;
    }
    PacketTrace& Topic(std::string value)
    {
        topic = std::move(value);
        return *this;
    }
    PacketTrace& Qos(int value)
    {
        qos = value;
        return *this;
    }
    PacketTrace& Reason(unsigned value)
    {
        reason = value;
        return *this;
    }
    PacketTrace& Payload(std::size_t value)
    {
        payload = value;
        return *this;
    }
    PacketTrace& Size(std::size_t value)
    {
        packetSize = value;
        return *this;
    }

    std::string direction;  // "in" or "out"
    std::string client;     // the connection's address, and its client identifier once known
    unsigned char type = 0;
    std::optional<unsigned> id;
    std::optional<std::string> topic;
    std::optional<int> qos;
    std::optional<unsigned> reason;
    std::optional<std::size_t> payload;  // payload bytes of a PUBLISH
    std::size_t packetSize = 0;          // the packet on the wire, fixed header included
};

const char* PacketTypeName(unsigned char type);
std::string FormatTrace(const PacketTrace& trace);

}  // namespace host
