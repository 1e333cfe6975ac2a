// Building and decoding MQTT v5 packets with the library, the way both example hosts need them.
//
// The library keeps a deliberate subset of MQTT v5 and a few fixed positions of its own. Where a
// real peer meets one of them, the host works around it here, and the comment at each function says
// which. Every decoder below first checks that the body's own length fields stay inside the body, so
// that a hostile body is refused instead of being read past its end.
#pragma once

#include "host/Properties.h"

#include <MQTTProtocol.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace host {

// ---- Building: each returns the whole packet, fixed header included. ----

// The size on the wire of a packet whose body has `bodyLength` bytes.
std::size_t WireSize(std::size_t bodyLength);

std::string ConnectPacket(const std::string& clientId, unsigned short keepAlive);
std::string ConnackPacket(unsigned char reason, const PropertyList& properties);
// A QoS 1 or 2 message needs a non-zero identifier: the library writes one only when it is non-zero.
std::string PublishPacket(const std::string& topic, std::string_view payload, int qos, unsigned short id, bool retain,
                          const PropertyList& properties);
// PUBACK, PUBREC, PUBREL or PUBCOMP: identifier and reason code, or the identifier alone for reason
// 0x00 (the short form, which Python paho 1.6.1 needs in a PUBREL). The library leaves a zero
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
    unsigned keepAlive = 0;           // seconds; 0: none
    unsigned receiveMaximum = 65535;  // how many QoS 1 and 2 messages the client takes at once
    unsigned maximumPacketSize = 0;   // 0: no limit
};
// Returns 0x00 when the CONNECT is accepted, otherwise the CONNACK reason code that refuses it:
// malformed, a protocol error (a Receive Maximum or Maximum Packet Size of 0), not version 5, client
// identifier too long, a will message (implementation specific), an authentication method (none is
// supported).
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
    bool hasTopicAlias = false;
    std::optional<std::uint32_t> messageExpiry;  // seconds
    PropertyList properties;                     // as received, less Topic Alias and Message Expiry Interval
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
