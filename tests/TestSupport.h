// Helpers shared by the unit tests: byte vectors and decoded property lists.
#pragma once

#include "MQTTProtocol.h"

#include <cstdint>
#include <string>
#include <vector>

namespace mqtttest {

using Bytes = std::vector<uint8_t>;

inline Bytes ToBytes(const char* data, int count)
{
    return Bytes(reinterpret_cast<const uint8_t*>(data), reinterpret_cast<const uint8_t*>(data) + count);
}

inline const char* AsChars(const Bytes& bytes) { return reinterpret_cast<const char*>(bytes.data()); }

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
};

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
