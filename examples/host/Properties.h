// MQTT v5 properties as the example hosts hold, build and read them.
//
// Building goes through the library's property records. Reading does not: the library's property
// decoder gives a string property the rest of its block, so a User Property in front of a Receive
// Maximum (the order Python paho writes) would hide the Receive Maximum. The hosts split a received
// block themselves, each property by the type the standard gives its identifier, in any order.
#pragma once

#include <MQTTProtocol.h>
#include <MQTTWire.h>

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace host {

// The library writes a property block's length as one byte, which peers read as a variable byte
// integer: that is the same only up to 127 bytes. The hosts never build a longer block, and refuse
// a received packet whose block is longer (its length takes two bytes on the wire).
constexpr int kMaxPropertyBlock = 127;

// Property identifiers the hosts act on.
enum PropertyId : unsigned char
{
    kMessageExpiryInterval = 0x02,
    kAssignedClientId = 0x12,
    kAuthenticationMethod = 0x15,
    kReasonString = 0x1F,
    kReceiveMaximum = 0x21,
    kTopicAlias = 0x23,
    kMaximumPacketSize = 0x27,
    kSubscriptionIdsAvailable = 0x29,
    kSharedSubscriptionAvailable = 0x2A
};

// Property records owned by the host. The library's builders swap the two- and four-byte values of
// the records they are given to network order in place, so every build gets fresh copies.
class PropertyList
{
public:
    // Each returns false, adding nothing, when the block would grow beyond kMaxPropertyBlock bytes.
    bool AddByte(unsigned char id, unsigned char value);
    bool AddU16(unsigned char id, unsigned short value);
    bool AddU32(unsigned char id, unsigned int value);
    bool AddString(unsigned char id, std::string_view text);  // the value gets its two-byte length
    // A value exactly as it lies on the wire (a string with its length prefix). The builder writes a
    // record of 1, 2 or 4 bytes as an integer, swapping it to network order, so such a value is kept
    // in host order here and comes out as it came in.
    bool AddWireValue(unsigned char id, std::string_view value);

    const std::vector<MQTTPROTOCOL_HDRPROPERTY>& Records() const { return records_; }
    int BlockSize() const { return blockSize_; }  // the property bytes, without the length byte

    // Fresh copies of the records in the shape the builders take.
    mqttwire::PropertyList Copy() const
    {
        mqttwire::PropertyList copy;
        copy.records = records_;
        return copy;
    }

private:
    bool AddRecord(const MQTTPROTOCOL_HDRPROPERTY& record);

    std::vector<MQTTPROTOCOL_HDRPROPERTY> records_;
    int blockSize_ = 0;
};

// A property list made by a library decoder, released through the Keel allocator. The hosts never
// read it (see above): they only give the decoders somewhere to put it.
using DecodedProperties = mqttwire::DecodedProperties;

// One received property: its identifier and its value's bytes as on the wire.
struct WireProperty
{
    unsigned char id = 0;
    std::string_view value;

    // The value of a byte, two-byte, four-byte or variable byte integer property.
    std::uint32_t Integer() const;
};

// Splits the properties of a block (the bytes behind its length) by their standard types. Nothing
// when an identifier is unknown or a value runs past the block.
std::optional<std::vector<WireProperty>> SplitProperties(std::string_view block);

// The first property with the identifier, if any.
const WireProperty* FindProperty(const std::vector<WireProperty>& properties, unsigned char id);

}  // namespace host
