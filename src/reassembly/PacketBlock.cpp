#include "reassembly/PacketBlock.h"

#include "frame/BodyMode.h"
#include "frame/ErrorState.h"

#include <malloc.h>
#include <algorithm>
#include <bit>
#include <climits>
#include <cstdlib>
#include <mutex>

namespace mqttprotocol {

namespace {

// glibc raises its mmap threshold to the size of any mapped chunk that is freed, so once the host
// frees its first body, calloc would take every later block from the heap and clear 10 MiB by hand
// (about 120 us instead of 14). Pinning the threshold at the block size keeps each block a fresh
// mapping of zero pages, which calloc does not clear again. glibc also serves at most 65,536 chunks
// by mapping at once and takes the rest from the heap, where they stay once freed and are cleared by
// hand on every later use: a burst of that many small packets would make every block after it cost
// 10 MiB of resident memory. Lifting that count leaves the kernel's own limit on mappings as the only
// one. Both settings are process-wide; the public header tells hosts so.
void PinBlocksToFreshMappings()
{
#if defined(M_MMAP_THRESHOLD) && defined(M_MMAP_MAX)
    static std::once_flag pinned;
    std::call_once(pinned, [] {
        mallopt(M_MMAP_THRESHOLD, MQTTPROTOCOL_PACKET_BLOCK_SIZE);
        mallopt(M_MMAP_MAX, INT_MAX);
    });
#endif
}

char* AllocateBlock()
{
    PinBlocksToFreshMappings();
    return static_cast<char*>(std::calloc(1, MQTTPROTOCOL_PACKET_BLOCK_SIZE));
}

// A compact block is never empty, so that a body of length 0 still comes with a block of its own.
size_t CompactSize(int bodyLength) { return bodyLength > 0 ? static_cast<size_t>(bodyLength) : 1; }

}  // namespace

char* AllocateBody(int bodyLength)
{
    if (!CompactBodies()) {
        return AllocateBlock();
    }
    char* body = static_cast<char*>(std::malloc(CompactSize(bodyLength)));
    if (body != nullptr && bodyLength <= 0) {
        body[0] = 0;
    }
    return body;
}

int PendingCapacity(int received, int packetSize)
{
    if (packetSize <= kPendingFullSize) {
        return packetSize;
    }
    const unsigned doubled = std::bit_ceil(static_cast<unsigned>(received) + 1);
    return static_cast<int>(std::min<unsigned>(packetSize, std::max<unsigned>(kPendingFullSize, doubled)));
}

char* DeliverFromBuffer(char* buffer, int heldCount, const char* rest, int restCount)
{
    const int bodyLength = heldCount + restCount;
    char* body;
    if (CompactBodies()) {
        // Resizing keeps the memory where it is when it can: most of the body is not copied again.
        body = static_cast<char*>(std::realloc(buffer, CompactSize(bodyLength)));
        if (body == nullptr) {
            std::free(buffer);
            return nullptr;
        }
    } else {
        body = AllocateBlock();
        if (body != nullptr) {
            CopyBytes(body, buffer, heldCount);
        }
        std::free(buffer);
        if (body == nullptr) {
            return nullptr;
        }
    }
    CopyBytes(body + heldCount, rest, restCount);
    return body;
}

}  // namespace mqttprotocol

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_BodyMode(int nBodyMode)
{
    mqttprotocol::ClearError();
    if (nBodyMode != MQTTPROTOCOL_BODY_BLOCK && nBodyMode != MQTTPROTOCOL_BODY_COMPACT) {
        return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    }
    mqttprotocol::g_BodyMode.store(nBodyMode, std::memory_order_relaxed);
    return true;
}
