// Body blocks: every complete packet's body is delivered in one, and the host frees it with free().
#pragma once

namespace mqttprotocol {

// A zero-filled block of MQTTPROTOCOL_PACKET_BLOCK_SIZE bytes from calloc, or null when memory runs out.
char* AllocatePacketBlock();

}  // namespace mqttprotocol
