// What the tests, the fuzz harnesses, the benchmarks and the example hosts share to make and read
// packets: byte vectors, the remaining-length encoder, whole packets as they go on the wire, and
// property lists owned the way the C interface takes and gives them. Written on the public header
// alone, without a test framework, so that any of them can include it.
#pragma once

#include "MQTTProtocol.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

namespace mqttwire {

using Bytes = std::vector<uint8_t>;

inline Bytes ToBytes(const char* data, int count)
{
    return Bytes(reinterpret_cast<const uint8_t*>(data), reinterpret_cast<const uint8_t*>(data) + count);
}

inline const char* AsChars(const Bytes& bytes) { return reinterpret_cast<const char*>(bytes.data()); }

inline Bytes Concat(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

// Appends a remaining length in its shortest form: seven bits a byte, lowest first, bit 7 set on
// every byte but the last. Into any vector of bytes (uint8_t or char).
template <typename ByteVector>
void AppendRemainingLength(ByteVector& out, size_t length)
{
    do {
        const auto digit = static_cast<uint8_t>(length % 128);
        length /= 128;
        out.push_back(static_cast<typename ByteVector::value_type>(digit | (length > 0 ? 0x80 : 0)));
    } while (length > 0);
}

// A whole packet: its first byte, the shortest remaining length, the body.
inline Bytes Wire(uint8_t first, const Bytes& body)
{
    Bytes wire{first};
    AppendRemainingLength(wire, body.size());
    wire.insert(wire.end(), body.begin(), body.end());
    return wire;
}

// A property list to give to a builder, or to compare a decoded one with: the records owned here,
// handed out as the address of an array of record pointers in wire order, as builders take them.
// Builders swap two- and four-byte values to network order in place: give a list to one build only.
struct PropertyList
{
    std::vector<MQTTPROTOCOL_HDRPROPERTY> records;
    std::vector<MQTTPROTOCOL_HDRPROPERTY*> pointers;
    MQTTPROTOCOL_HDRPROPERTY** array = nullptr;

    // A width other than 1, 2 or 4 leaves the value zero.
    PropertyList& Integer(uint8_t id, int width, uint32_t value)
    {
        MQTTPROTOCOL_HDRPROPERTY& property = Add(id, width);
        if (width == 4) property.dwValue = value;
        if (width == 2) property.wValue = static_cast<uint16_t>(value);
        if (width == 1) property.byValue = static_cast<uint8_t>(value);
        return *this;
    }
    PropertyList& Raw(uint8_t id, const Bytes& value)
    {
        MQTTPROTOCOL_HDRPROPERTY& property = Add(id, static_cast<int>(value.size()));
        std::copy_n(value.begin(), std::min(value.size(), sizeof(property.tszValue)), property.tszValue);
        return *this;
    }
    // A UTF-8 string property: two-byte big-endian length, then the text, all in tszValue.
    PropertyList& String(uint8_t id, const std::string& text)
    {
        return Raw(id, Concat({{static_cast<uint8_t>(text.size() >> 8), static_cast<uint8_t>(text.size() & 0xFF)},
                               Bytes(text.begin(), text.end())}));
    }
    MQTTPROTOCOL_HDRPROPERTY*** Get()
    {
        pointers.clear();
        for (auto& record : records) pointers.push_back(&record);
        array = pointers.data();
        return &array;
    }
    int Count() const { return static_cast<int>(records.size()); }

    MQTTPROTOCOL_HDRPROPERTY& Add(uint8_t id, int width)
    {
        MQTTPROTOCOL_HDRPROPERTY& property = records.emplace_back();
        std::memset(&property, 0, sizeof(property));
        property.byPropertyID = id;
        property.nPropertyLen = width;
        return property;
    }
};

// A property list as a decoder returns it, released through the Keel allocator. The count starts at
// kUntouched, so that a decoder that writes the outs of an empty block shows.
struct DecodedProperties
{
    static constexpr int kUntouched = -1;
    MQTTPROTOCOL_HDRPROPERTY** list = nullptr;
    int count = kUntouched;

    DecodedProperties() = default;
    DecodedProperties(const DecodedProperties&) = delete;
    DecodedProperties& operator=(const DecodedProperties&) = delete;
    ~DecodedProperties() { Keel_OperatorMemory_Free(reinterpret_cast<void***>(&list), count); }

    // The two outs a decoder takes.
    MQTTPROTOCOL_HDRPROPERTY*** ListOut() { return &list; }
    int* CountOut() { return &count; }
};

}  // namespace mqttwire
