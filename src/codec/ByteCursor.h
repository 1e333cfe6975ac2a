// A cursor over a packet buffer: every builder writes and every decoder reads through it, so each
// packet file reads like the wire layout of its packet. Multi-byte integers are big-endian on the wire.
// The writer checks no capacity: the buffer's size is the caller's contract. The reader stops at the
// body's end where the body mode gives it one.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

namespace mqttprotocol {

// The byte swaps of the wire format: unconditional, the two bytes exchanged / the four reversed.
inline uint16_t _OSSwapInt16(uint16_t value) { return __builtin_bswap16(value); }
inline uint32_t _OSSwapInt32(uint32_t value) { return __builtin_bswap32(value); }

// Host to network order and back; the same swap both ways.
inline uint16_t NetworkOrder16(uint16_t value)
{
    if constexpr (std::endian::native == std::endian::little) {
        return _OSSwapInt16(value);
    }
    return value;
}

inline uint32_t NetworkOrder32(uint32_t value)
{
    if constexpr (std::endian::native == std::endian::little) {
        return _OSSwapInt32(value);
    }
    return value;
}

class ByteWriter
{
public:
    explicit ByteWriter(char* buffer, int position = 0) : m_Buffer(buffer), m_Position(position) {}

    void PutU8(uint8_t value) { m_Buffer[m_Position++] = static_cast<char>(value); }
    void PutU16(uint16_t hostValue) { PutRaw16(NetworkOrder16(hostValue)); }
    // Values already in network order, written as they lie in memory.
    void PutRaw16(uint16_t value) { PutBytes(&value, sizeof(value)); }
    void PutRaw32(uint32_t value) { PutBytes(&value, sizeof(value)); }
    // Copies count bytes; a count of zero or less writes nothing.
    void PutBytes(const void* source, int count)
    {
        if (count > 0) {
            std::memcpy(m_Buffer + m_Position, source, static_cast<size_t>(count));
            m_Position += count;
        }
    }
    void PutZeros(int count)
    {
        if (count > 0) {
            std::memset(m_Buffer + m_Position, 0, static_cast<size_t>(count));
            m_Position += count;
        }
    }

    char* Here() const { return m_Buffer + m_Position; }
    int Position() const { return m_Position; }
    void Seek(int position) { m_Position = position; }

private:
    char* m_Buffer;
    int m_Position;
};

// Reads a body up to its end: every byte at or beyond the end reads as zero, exactly as the zeros
// behind a body in its block would. A body in a block has no end of its own (see ReadableEnd), so
// there the reader reads on into the block as the caller's contract allows.
class ByteReader
{
public:
    ByteReader(const char* buffer, int end, int position = 0) : m_Buffer(buffer), m_End(end), m_Position(position) {}

    uint8_t GetU8()
    {
        const uint8_t value = At(m_Position);
        m_Position++;
        return value;
    }
    uint16_t GetU16()
    {
        uint16_t value;
        GetBytes(&value, sizeof(value));
        return NetworkOrder16(value);
    }
    uint32_t GetU32()
    {
        uint32_t value;
        GetBytes(&value, sizeof(value));
        return NetworkOrder32(value);
    }
    // Copies count bytes out, zeros for those beyond the end; a count of zero or less reads nothing.
    void GetBytes(void* destination, int count)
    {
        if (count <= 0) {
            return;
        }
        const int present = std::clamp(m_End - m_Position, 0, count);
        if (present > 0) {
            std::memcpy(destination, m_Buffer + m_Position, static_cast<size_t>(present));
        }
        if (count > present) {
            std::memset(static_cast<char*>(destination) + present, 0, static_cast<size_t>(count - present));
        }
        m_Position += count;
    }
    // Reads a field of count bytes into a destination of capacity bytes: copies what fits and
    // advances past the whole field, so later fields are read from where the wire puts them.
    void GetBytesBounded(void* destination, int count, int capacity)
    {
        GetBytes(destination, count < capacity ? count : capacity);
        if (count > capacity) {
            m_Position += count - capacity;
        }
    }

    // The byte at an offset from the start, without moving.
    uint8_t At(int offset) const { return offset < m_End ? static_cast<uint8_t>(m_Buffer[offset]) : 0; }
    // A reader of what lies from here to the end, starting at its own position 0. No address beyond
    // the end is formed, even when the position has passed it.
    ByteReader Rest() const
    {
        const int start = std::min(m_Position, m_End);
        return ByteReader(m_Buffer + start, m_End - start);
    }
    int Position() const { return m_Position; }
    void Skip(int count) { m_Position += count; }

private:
    const char* m_Buffer;
    int m_End;
    int m_Position;
};

}  // namespace mqttprotocol
