#include "host/Properties.h"

#include <cstring>

namespace host {

namespace {

MQTTPROTOCOL_HDRPROPERTY Record(unsigned char id, int width)
{
    MQTTPROTOCOL_HDRPROPERTY record{};
    record.byPropertyID = id;
    record.nPropertyLen = width;
    return record;
}

std::uint32_t BigEndian(std::string_view bytes)
{
    std::uint32_t value = 0;
    for (const char byte : bytes) {
        value = value << 8 | static_cast<unsigned char>(byte);
    }
    return value;
}

// How a value of each standard type lies on the wire.
enum class Shape
{
    Fixed1,
    Fixed2,
    Fixed4,
    VariableInteger,
    Prefixed,
    PrefixedPair
};

std::optional<Shape> ShapeOf(unsigned char id)
{
    switch (id) {
    case 0x01:
    case 0x17:
    case 0x19:
    case 0x24:
    case 0x25:
    case 0x28:
    case 0x29:
    case 0x2A:
        return Shape::Fixed1;
    case 0x13:
    case 0x21:
    case 0x22:
    case 0x23:
        return Shape::Fixed2;
    case 0x02:
    case 0x11:
    case 0x18:
    case 0x27:
        return Shape::Fixed4;
    case 0x0B:
        return Shape::VariableInteger;
    case 0x03:
    case 0x08:
    case 0x09:
    case 0x12:
    case 0x15:
    case 0x16:
    case 0x1A:
    case 0x1C:
    case 0x1F:
        return Shape::Prefixed;
    case 0x26:
        return Shape::PrefixedPair;
    default:
        return std::nullopt;
    }
}

// The length of the value that begins the bytes, or nothing when it runs past them.
std::optional<std::size_t> ValueLength(Shape shape, std::string_view bytes)
{
    std::size_t length = 0;
    switch (shape) {
    case Shape::Fixed1:
        length = 1;
        break;
    case Shape::Fixed2:
        length = 2;
        break;
    case Shape::Fixed4:
        length = 4;
        break;
    case Shape::VariableInteger:
        while (length < bytes.size() && length < 3 && (static_cast<unsigned char>(bytes[length]) & 0x80)) {
            length++;
        }
        length++;
        break;
    case Shape::Prefixed:
    case Shape::PrefixedPair:
        for (int part = shape == Shape::Prefixed ? 1 : 2; part > 0; part--) {
            if (bytes.size() < length + 2) {
                return std::nullopt;
            }
            length += 2 + BigEndian(bytes.substr(length, 2));
        }
        break;
    }
    if (length > bytes.size()) {
        return std::nullopt;
    }
    return length;
}

}  // namespace

bool PropertyList::AddRecord(const MQTTPROTOCOL_HDRPROPERTY& record)
{
    const int size = 1 + record.nPropertyLen;
    if (blockSize_ + size > kMaxPropertyBlock) {
        return false;
    }
    records_.push_back(record);
    blockSize_ += size;
    return true;
}

bool PropertyList::AddByte(unsigned char id, unsigned char value)
{
    auto record = Record(id, 1);
    record.byValue = value;
    return AddRecord(record);
}

bool PropertyList::AddU16(unsigned char id, unsigned short value)
{
    auto record = Record(id, 2);
    record.wValue = value;
    return AddRecord(record);
}

bool PropertyList::AddU32(unsigned char id, unsigned int value)
{
    auto record = Record(id, 4);
    record.dwValue = value;
    return AddRecord(record);
}

bool PropertyList::AddString(unsigned char id, std::string_view text)
{
    if (text.size() + 2 > sizeof(MQTTPROTOCOL_HDRPROPERTY::tszValue)) {
        return false;
    }
    std::string value{static_cast<char>(text.size() >> 8), static_cast<char>(text.size() & 0xFF)};
    return AddWireValue(id, value.append(text));
}

bool PropertyList::AddWireValue(unsigned char id, std::string_view value)
{
    switch (value.size()) {
    case 1:
        return AddByte(id, static_cast<unsigned char>(value[0]));
    case 2:
        return AddU16(id, static_cast<unsigned short>(BigEndian(value)));
    case 4:
        return AddU32(id, BigEndian(value));
    default:
        break;
    }
    if (value.size() > sizeof(MQTTPROTOCOL_HDRPROPERTY::tszValue)) {
        return false;
    }
    auto record = Record(id, static_cast<int>(value.size()));
    std::memcpy(record.tszValue, value.data(), value.size());
    return AddRecord(record);
}

std::uint32_t WireProperty::Integer() const
{
    if (ShapeOf(id) != Shape::VariableInteger) {
        return BigEndian(value);
    }
    std::uint32_t result = 0;
    for (std::size_t index = value.size(); index-- > 0;) {
        result = result << 7 | (static_cast<unsigned char>(value[index]) & 0x7F);
    }
    return result;
}

std::optional<std::vector<WireProperty>> SplitProperties(std::string_view block)
{
    std::vector<WireProperty> properties;
    while (!block.empty()) {
        const auto id = static_cast<unsigned char>(block[0]);
        const auto shape = ShapeOf(id);
        block.remove_prefix(1);
        const auto length = shape ? ValueLength(*shape, block) : std::nullopt;
        if (!length) {
            return std::nullopt;
        }
        properties.push_back({id, block.substr(0, *length)});
        block.remove_prefix(*length);
    }
    return properties;
}

const WireProperty* FindProperty(const std::vector<WireProperty>& properties, unsigned char id)
{
    for (const auto& property : properties) {
        if (property.id == id) {
            return &property;
        }
    }
    return nullptr;
}

}  // namespace host
