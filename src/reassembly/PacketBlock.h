// The memory a packet's body is delivered in, by the body mode in force: a zero-filled block of
// MQTTPROTOCOL_PACKET_BLOCK_SIZE bytes, or a compact block of exactly the body's length. Either way
// the host frees it with free().
#pragma once

namespace mqttprotocol {

// A block for a body of bodyLength bytes whose bytes the caller copies in; null when memory runs out.
char* AllocateBody(int bodyLength);

// Turns the buffer a packet waited in, whose first bodyLength bytes are its whole body, into the
// block it is delivered in: a compact block is the same memory cut to the body's length; a block of
// the full size is a new one, and the buffer is freed. Null when memory runs out; the buffer is then
// freed as well.
char* DeliverFromBuffer(char* buffer, int bodyLength);

}  // namespace mqttprotocol
