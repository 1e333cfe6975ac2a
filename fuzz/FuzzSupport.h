// Shared by the harnesses: reading fuzzer-chosen values off the front of an input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mqttfuzz {

// Consumes an input from the front; reads past the end give zeros.
class InputReader
{
public:
    InputReader(const uint8_t* data, size_t size) : m_Data(data), m_Size(size) {}

    uint8_t Byte() { return m_Offset < m_Size ? m_Data[m_Offset++] : 0; }
    uint16_t U16() { return static_cast<uint16_t>(Byte() << 8 | Byte()); }
    bool Empty() const { return m_Offset >= m_Size; }
    // The bytes not yet consumed.
    const uint8_t* Rest() const { return m_Data + (m_Offset < m_Size ? m_Offset : m_Size); }
    size_t RestSize() const { return m_Offset < m_Size ? m_Size - m_Offset : 0; }
    // Copies up to count bytes out and takes them; returns how many.
    size_t CopyOut(void* destination, size_t count)
    {
        const uint8_t* from = Rest();
        const size_t taken = Take(count);
        std::memcpy(destination, from, taken);
        return taken;
    }
    // Takes up to count bytes; returns how many were taken.
    size_t Take(size_t count)
    {
        const size_t taken = count < RestSize() ? count : RestSize();
        m_Offset += taken;
        return taken;
    }

private:
    const uint8_t* m_Data;
    size_t m_Size;
    size_t m_Offset = 0;
};

// A finding: say which check failed, then abort so libFuzzer and the replay runner both report it
// with the input.
inline void Require(bool condition, const char* check, int line)
{
    if (!condition) {
        std::fprintf(stderr, "check failed at line %d: %s\n", line, check);
        std::abort();
    }
}

}  // namespace mqttfuzz

#define REQUIRE(condition) mqttfuzz::Require((condition), #condition, __LINE__)
