// Helpers shared by the unit tests: byte vectors, bodies as builders write them and as the receive
// side hands them out, and property lists in both directions.
#pragma once

#include "MQTTProtocol.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

namespace mqtttest {

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

// Runs a builder into a buffer of 0xEE bytes and returns the body it reports, checking that it
// succeeded and wrote nothing behind that body.
template <typename Builder>
Bytes Built(Builder build)
{
    std::vector<char> out(0x30000, static_cast<char>(0xEE));
    int length = -1;
    EXPECT_TRUE(build(out.data(), &length));
    EXPECT_FALSE(MQTTProtocol_IsErrorOccur);
    if (length < 0 || static_cast<size_t>(length) >= out.size()) {
        ADD_FAILURE() << "implausible body length " << length;
        return {};
    }
    EXPECT_EQ(static_cast<uint8_t>(out[static_cast<size_t>(length)]), 0xEE) << "written behind the body";
    return ToBytes(out.data(), length);
}

// A body as the receive side hands it out: at the start of a zero-filled block of 0xA00000 bytes, so
// a decoder that reads past a short body reads zeros.
class ReceivedBody
{
public:
    explicit ReceivedBody(const Bytes& body)
        : m_Block(static_cast<char*>(std::calloc(MQTTPROTOCOL_PACKET_BLOCK_SIZE, 1)))
    {
        std::memcpy(m_Block, body.data(), body.size());
    }
    ~ReceivedBody() { std::free(m_Block); }
    ReceivedBody(const ReceivedBody&) = delete;
    ReceivedBody& operator=(const ReceivedBody&) = delete;

    const char* Data() const { return m_Block; }

private:
    char* m_Block;
};

// A property list to give to a builder, or to compare a decoded one with: records owned here,
// pointers in wire order.
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

private:
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

    const MQTTPROTOCOL_HDRPROPERTY& operator[](int i) const { return *list[i]; }
};

// The decoded list holds the expected records: identifier, width and all 260 value bytes. An empty
// expectation means the decoder left both outs as they were.
inline void ExpectProperties(const DecodedProperties& decoded, const PropertyList& expected)
{
    if (expected.Count() == 0) {
        EXPECT_EQ(decoded.list, nullptr);
        EXPECT_EQ(decoded.count, DecodedProperties::kUntouched);
        return;
    }
    ASSERT_EQ(decoded.count, expected.Count());
    for (int i = 0; i < decoded.count; i++) {
        const MQTTPROTOCOL_HDRPROPERTY& want = expected.records[static_cast<size_t>(i)];
        EXPECT_EQ(decoded[i].byPropertyID, want.byPropertyID) << i;
        EXPECT_EQ(decoded[i].nPropertyLen, want.nPropertyLen) << i;
        EXPECT_EQ(std::memcmp(decoded[i].tszValue, want.tszValue, sizeof(want.tszValue)), 0) << i;
    }
}

}  // namespace mqtttest
