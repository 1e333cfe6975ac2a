#include "reassembly/PacketBlock.h"

#include "MQTTProtocol.h"

#include <cstdlib>
#include <malloc.h>
#include <mutex>

namespace mqttprotocol {

namespace {

// glibc raises its mmap threshold to the size of any mapped chunk that is freed, so once the host
// frees its first body, calloc would take every later block from the heap and clear 10 MiB by hand
// (about 120 us instead of 14). Pinning the threshold at the block size keeps each block a fresh
// mapping of zero pages, which calloc does not clear again. It is process-wide; the public header
// tells hosts so.
void PinBlocksToFreshMappings()
{
#ifdef M_MMAP_THRESHOLD
    static std::once_flag pinned;
    std::call_once(pinned, [] { mallopt(M_MMAP_THRESHOLD, MQTTPROTOCOL_PACKET_BLOCK_SIZE); });
#endif
}

}  // namespace

char* AllocatePacketBlock()
{
    PinBlocksToFreshMappings();
    return static_cast<char*>(std::calloc(1, MQTTPROTOCOL_PACKET_BLOCK_SIZE));
}

}  // namespace mqttprotocol
