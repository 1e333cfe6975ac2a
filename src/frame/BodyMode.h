// The process-wide choice of how packet bodies are delivered, read by the framing when it completes
// a packet and by every decoder to know where a body ends.
#pragma once

#include "MQTTProtocol.h"

#include <atomic>
#include <climits>

namespace mqttprotocol {

// Relaxed: the mode is one word that hosts set rarely; a packet completed or decoded while another
// thread switches it sees one mode or the other, never a mix within one packet.
inline std::atomic<int> g_BodyMode{MQTTPROTOCOL_BODY_BLOCK};

inline bool CompactBodies() { return g_BodyMode.load(std::memory_order_relaxed) == MQTTPROTOCOL_BODY_COMPACT; }

// Where a decoder must stop reading a body of bodyLength bytes. A compact body is exactly as long as
// its length says; a body in a block may be read on into the block's zeros, so it has no end of its
// own. A negative length in compact mode ends the body at its start.
inline int ReadableEnd(int bodyLength)
{
    if (!CompactBodies()) {
        return INT_MAX;
    }
    return bodyLength > 0 ? bodyLength : 0;
}

}  // namespace mqttprotocol
