// An input of the receive framing: bytes that begin at a packet's first byte, which may lie in two
// parts (bytes a HeaderPending record held, then the caller's piece).
#pragma once

#include "reassembly/PacketBlock.h"

#include <algorithm>
#include <cstdint>

namespace mqttprotocol {

// The bytes of one input: those a HeaderPending record held (0 to 3), then the caller's data. The
// caller makes sure the two counts together fit an int.
class CutInput
{
public:
    CutInput(const char* held, int heldCount, const char* data, int dataCount)
        : m_Held(held), m_HeldCount(heldCount), m_Data(data), m_DataCount(dataCount)
    {
    }

    int Size() const { return m_HeldCount + m_DataCount; }
    uint8_t At(int offset) const
    {
        return static_cast<uint8_t>(offset < m_HeldCount ? m_Held[offset] : m_Data[offset - m_HeldCount]);
    }
    // The first count bytes in one place: where they lie when no held bytes come first, otherwise
    // copied to scratch.
    const char* Front(char* scratch, int count) const
    {
        if (m_HeldCount == 0) {
            return m_Data;
        }
        CopyTo(scratch, 0, count);
        return scratch;
    }
    // Copies count bytes from offset on, across both parts.
    void CopyTo(char* destination, int offset, int count) const
    {
        // Each part's address is formed only when bytes come from it: either part may be null.
        const int fromHeld = std::clamp(m_HeldCount - offset, 0, count);
        if (fromHeld > 0) {
            CopyBytes(destination, m_Held + offset, fromHeld);
        }
        if (count > fromHeld) {
            CopyBytes(destination + fromHeld, m_Data + (offset + fromHeld - m_HeldCount), count - fromHeld);
        }
    }
    void Drop(int count)
    {
        const int fromHeld = std::min(count, m_HeldCount);
        m_Held += fromHeld;
        m_HeldCount -= fromHeld;
        m_Data += count - fromHeld;
        m_DataCount -= count - fromHeld;
    }

private:
    const char* m_Held;
    int m_HeldCount;
    const char* m_Data;
    int m_DataCount;
};

}  // namespace mqttprotocol
