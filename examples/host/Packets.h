// Building and decoding MQTT v5 packets with the library, the way both example hosts need them.
//
// The library keeps a deliberate subset of MQTT v5 and a few fixed positions of its own. Where a
// real peer meets one of them, the host works around it here, and the comment at each function says
// which. Every decoder below first checks that the body's own length fields stay inside the body, so
// that a hostile body is refused instead of being read past its end.
#pragma once

#include <MQTTProtocol.h>

#include <string>
#include <string_view>
#include <vector>

namespace host {

// The library writes a property block's length as one byte, which peers read as a variable byte
// integer: that is the same only up to 127 bytes. The hosts never build a longer block, and refuse
// a received packet whose block is longer (its length takes two bytes on the wire).
constexpr int kMaxPropertyBlock = 127;

// Property identifiers the hosts use.
enum PropertyId : unsigned char {
    kAssignedClientId = 0x12, kReceiveMaximum = 0x21, kTopicAlias = 0x23, kRetainAvailable = 0x25,
    kMaximumPacketSize = 0x27, kSubscriptionIdsAvailable = 0x29, kSharedSubscriptionAvailable = 0x2A
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
    bool AddRecord(const MQTTPROTOCOL_HDRPROPERTY& record);

    const std::vector<MQTTPROTOCOL_HDRPROPERTY>& Records() const { return records_; }
    int BlockSize() const { return blockSize_; }  // the property bytes, without the length byte

    // Fresh copies of the records in the shape the builders take.
    class Scratch
    {
    public:
        explicit Scratch(const std::vector<MQTTPROTOCOL_HDRPROPERTY>& records);
        MQTTPROTOCOL_HDRPROPERTY*** List() { return &array_; }
        int Count() const { return static_cast<int>(copies_.size()); }

    private:
        std::vector<MQTTPROTOCOL_HDRPROPERTY> copies_;
        std::vector<MQTTPROTOCOL_HDRPROPERTY*> pointers_;
        MQTTPROTOCOL_HDRPROPERTY** array_ = nullptr;
    };
    Scratch Copy() const { return Scratch(records_); }

private:
    std::vector<MQTTPROTOCOL_HDRPROPERTY> records_;
    int blockSize_ = 0;
};

// A property list made by a decoder, released through the Keel allocator.
class DecodedProperties
{
public:
    DecodedProperties() = default;
    DecodedProperties(const DecodedProperties&) = delete;
    DecodedProperties& operator=(const DecodedProperties&) = delete;
    ~DecodedProperties() { Keel_OperatorMemory_Free(reinterpret_cast<void***>(&list_), count_); }

    MQTTPROTOCOL_HDRPROPERTY*** List() { return &list_; }
    int* Count() { return &count_; }
    const MQTTPROTOCOL_HDRPROPERTY* Find(unsigned char id) const;

private:
    MQTTPROTOCOL_HDRPROPERTY** list_ = nullptr;
    int count_ = 0;
};

// ---- Building: each returns the whole packet, fixed header included. ----

std::string ConnectPacket(const std::string& clientId, unsigned short keepAlive);
std::string ConnackPacket(unsigned char reason, const PropertyList& properties);
// A QoS 1 or 2 message needs a non-zero identifier: the library writes one only when it is non-zero.
std::string PublishPacket(const std::string& topic, std::string_view payload, int qos, unsigned short id, bool retain,
                          const PropertyList& properties);
// PUBACK, PUBREC, PUBREL or PUBCOMP: identifier and reason code. The library leaves a zero
// identifier out, so the hosts never use identifier 0.
std::string AckPacket(unsigned char type, unsigned short id, unsigned char reason);
std::string SubscribePacket(unsigned short id, const std::string& filter, int qos);
std::string UnsubscribePacket(unsigned short id, const std::string& filter);
// SUBACK or UNSUBACK with one reason code.
std::string SubscriptionAckPacket(unsigned char type, unsigned short id, unsigned char reason);
std::string DisconnectPacket(unsigned char reason);
std::string BarePacket(unsigned char type);  // PINGREQ or PINGRESP

// ---- Decoding ----

// A packet cut from a stream: its first byte and a copy of its body. The library's decoders read a
// few bytes past a body (an acknowledgement's reason code, a fixed-width property at the end of its
// block); bodies the library hands out lie in zero-filled blocks, and a Frame gives its copy the same
// zeros behind it.
struct Frame
{
    MQTTPROTOCOL_FIXEDHEADER header{};
    std::vector<char> body;  // the body and kBodyPadding zero bytes
    int length = 0;          // the body's length
    static constexpr int kBodyPadding = 8;
};
Frame SplitPacket(std::string_view packet);  // packet: whole, as PacketCutter hands it out

struct Connect
{
    std::string clientId;
    unsigned keepAlive = 0;
    unsigned receiveMaximum = 65535;   // how many QoS 1 and 2 messages the client takes at once
    unsigned maximumPacketSize = 0;    // 0: no limit
};
// Returns 0x00 when the CONNECT is accepted, otherwise the CONNACK reason code that refuses it:
// 0x81 malformed, 0x84 not version 5, 0x85 client identifier too long, 0x83 will message.
unsigned char DecodeConnect(const char* body, int length, Connect& out);
// CONNACK's reason code; false when the body is malformed.
bool DecodeConnack(const char* body, int length, unsigned char& reason);

struct Publish
{
    std::string topic;
    std::string payload;
    unsigned short id = 0;
    int qos = 0;
    bool dup = false;
    bool retain = false;
    PropertyList properties;  // as received, less a Topic Alias
};
// False when the body is malformed, the QoS is 3, or a QoS 1 or 2 message has identifier 0.
bool DecodePublish(MQTTPROTOCOL_FIXEDHEADER header, const char* body, int length, Publish& out);

struct Ack
{
    unsigned short id = 0;
    unsigned char reason = 0;
};
// PUBACK, PUBREC, PUBREL, PUBCOMP.
bool DecodeAck(const char* body, int length, Ack& out);
// SUBACK or UNSUBACK: the first reason code.
bool DecodeSubscriptionAck(const char* body, int length, Ack& out);

struct Subscription
{
    unsigned short id = 0;
    std::string filter;
    MQTTPROTOCOL_HDRSUBSCRIBE options{};
    int filterCount = 0;  // filters in the packet; the library reads the first
};
bool DecodeSubscribe(const char* body, int length, Subscription& out);
bool DecodeUnsubscribe(const char* body, int length, Subscription& out);
// DISCONNECT's reason code (an empty body means 0x00).
unsigned char DecodeDisconnect(const char* body, int length);

}  // namespace host
