// Helpers shared by the unit tests: byte vectors and decoded property lists.
#pragma once

#include "MQTTProtocol.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace mqtttest {

using Bytes = std::vector<uint8_t>;

inline Bytes ToBytes(const char* data, int count)
{
    return Bytes(reinterpret_cast<const uint8_t*>(data), reinterpret_cast<const uint8_t*>(data) + count);
}

inline const char* AsChars(const Bytes& bytes) { return reinterpret_cast<const char*>(bytes.data()); }

inline Bytes Concat(Bytes head, const Bytes& tail)
{
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
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
    static constexpr size_t kBlockSize = 0xA00000;

    explicit ReceivedBody(const Bytes& body) : m_Block(static_cast<char*>(std::calloc(kBlockSize, 1)))
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

// A property list as a decoder returns it, released through the Keel allocator.
struct DecodedProperties
{
    MQTTPROTOCOL_HDRPROPERTY** list = nullptr;
    int count = 0;

    DecodedProperties() = default;
    DecodedProperties(const DecodedProperties&) = delete;
    DecodedProperties& operator=(const DecodedProperties&) = delete;
    ~DecodedProperties() { Keel_OperatorMemory_Free(reinterpret_cast<void***>(&list), count); }

    const MQTTPROTOCOL_HDRPROPERTY& operator[](int i) const { return *list[i]; }

    // (identifier, value) per record: integers by their width, any other value by its length.
    std::vector<std::pair<int, uint32_t>> Summary() const
    {
        std::vector<std::pair<int, uint32_t>> summary;
        for (int i = 0; i < count; i++) {
            const MQTTPROTOCOL_HDRPROPERTY& p = *list[i];
            const uint32_t value = p.nPropertyLen == 4   ? p.dwValue
                                   : p.nPropertyLen == 2 ? p.wValue
                                   : p.nPropertyLen == 1 ? p.byValue
                                                         : static_cast<uint32_t>(p.nPropertyLen);
            summary.emplace_back(p.byPropertyID, value);
        }
        return summary;
    }
};

using PropertySummary = std::vector<std::pair<int, uint32_t>>;

// Decodes a body from a received block with a decoder that hands out a reason code and properties
// (CONNACK, DISCONNECT) and checks both.
template <typename Decoder>
void ExpectReasonAndProperties(Decoder decode, const Bytes& bytes, uint8_t reasonCode, const PropertySummary& properties)
{
    const ReceivedBody body(bytes);
    unsigned char decodedReason = 0xEE;
    DecodedProperties decoded;
    ASSERT_TRUE(decode(body.Data(), static_cast<int>(bytes.size()), &decodedReason, &decoded.list, &decoded.count));
    EXPECT_EQ(decodedReason, reasonCode);
    EXPECT_EQ(decoded.Summary(), properties);
}

// The reply decoders share one signature: reason code out, then packet identifier out, then properties.
using ReplyDecoder = bool (*)(const char*, int, unsigned char*, unsigned short*, MQTTPROTOCOL_HDRPROPERTY***, int*);

struct ReplyDecodeVector
{
    const char* name;
    Bytes body;
    int bodyLen;  // as given to the decoder, which may read past it
    uint16_t packetID;
    uint8_t reasonCode;
    PropertySummary properties;
};

inline void ExpectReplyDecodes(ReplyDecoder decode, const std::vector<ReplyDecodeVector>& vectors)
{
    for (const auto& vector : vectors) {
        SCOPED_TRACE(vector.name);
        const ReceivedBody body(vector.body);
        unsigned char reasonCode = 0xEE;
        unsigned short packetID = 0;
        DecodedProperties properties;
        ASSERT_TRUE(decode(body.Data(), vector.bodyLen, &reasonCode, &packetID, &properties.list, &properties.count));
        EXPECT_EQ(packetID, vector.packetID);
        EXPECT_EQ(reasonCode, vector.reasonCode);
        EXPECT_EQ(properties.Summary(), vector.properties);
    }
}

// A property list to give to a builder: records owned here, pointers in wire order.
struct PropertyList
{
    std::vector<MQTTPROTOCOL_HDRPROPERTY> records;
    std::vector<MQTTPROTOCOL_HDRPROPERTY*> pointers;
    MQTTPROTOCOL_HDRPROPERTY** array = nullptr;

    PropertyList& Integer(uint8_t id, int width, uint32_t value)
    {
        MQTTPROTOCOL_HDRPROPERTY property{};
        property.byPropertyID = id;
        property.nPropertyLen = width;
        if (width == 4) property.dwValue = value;
        if (width == 2) property.wValue = static_cast<uint16_t>(value);
        if (width == 1) property.byValue = static_cast<uint8_t>(value);
        return Add(property);
    }
    PropertyList& Raw(uint8_t id, const Bytes& value)
    {
        MQTTPROTOCOL_HDRPROPERTY property{};
        property.byPropertyID = id;
        property.nPropertyLen = static_cast<int>(value.size());
        for (size_t i = 0; i < value.size() && i < sizeof(property.tszValue); i++) {
            property.tszValue[i] = static_cast<char>(value[i]);
        }
        return Add(property);
    }
    // A UTF-8 string property: two-byte big-endian length, then the text, all in tszValue.
    PropertyList& String(uint8_t id, const std::string& text)
    {
        Bytes value{static_cast<uint8_t>(text.size() >> 8), static_cast<uint8_t>(text.size() & 0xFF)};
        value.insert(value.end(), text.begin(), text.end());
        return Raw(id, value);
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
    PropertyList& Add(const MQTTPROTOCOL_HDRPROPERTY& property)
    {
        records.push_back(property);
        return *this;
    }
};

}  // namespace mqtttest
