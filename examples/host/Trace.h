// One readable line per packet that a host receives or sends.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace host {

struct PacketTrace
{
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
