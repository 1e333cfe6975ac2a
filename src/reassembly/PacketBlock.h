// The memory a packet's body is delivered in, by the body mode in force: a zero-filled block of
// MQTTPROTOCOL_PACKET_BLOCK_SIZE bytes, or a compact block of exactly the body's length. Either way
// the host frees it with free().
#pragma once

#include <cstring>

namespace mqttprotocol {

// Copies count bytes; none when count is 0 or less, where memcpy would be given an empty or null range.
inline void CopyBytes(char* destination, const char* source, int count)
{
    if (count > 0) {
        std::memcpy(destination, source, static_cast<size_t>(count));
    }
}

// A block for a body of bodyLength bytes whose bytes the caller copies in; null when memory runs out.
char* AllocateBody(int bodyLength);

// The size of the buffer a BodyPending packet of packetSize bytes waits in once received of them are
// in. It grows with the bytes, not with what the header announces: a packet of at most
// kPendingFullSize bytes has its full size from the start; a larger one starts there and doubles as
// its bytes arrive. It always exceeds the body bytes held, leaving the last byte free.
constexpr int kPendingFullSize = 64 * 1024;
int PendingCapacity(int received, int packetSize);

// Turns the buffer a packet waited in, holding the first heldCount bytes of its body, into the block
// it is delivered in, with the restCount bytes at rest behind them: a compact block is the same
// memory cut (or grown) to the body's length; a block of the full size is a new one, and the buffer is
// freed. Null when memory runs out; the buffer is then freed as well.
char* DeliverFromBuffer(char* buffer, int heldCount, const char* rest, int restCount);

}  // namespace mqttprotocol
