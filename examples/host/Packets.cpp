#include "host/Packets.h"

#include "host/PacketCutter.h"
#include "host/Reasons.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace host {

namespace {

// Walks a body's fields by their length prefixes and fails as soon as one would run past the end.
class BodyWalker
{
public:
    BodyWalker(const char* body, int length) : body_(reinterpret_cast<const unsigned char*>(body)), length_(length) {}

    bool Skip(int count)
    {
        if (count < 0 || length_ - position_ < count) {
            return false;
        }
        position_ += count;
        return true;
    }
    bool U16(unsigned& value)
    {
        if (length_ - position_ < 2) {
            return false;
        }
        value = body_[position_] << 8 | body_[position_ + 1];
        position_ += 2;
        return true;
    }
    // A two-byte length and that many bytes.
    bool String(unsigned& length) { return U16(length) && Skip(static_cast<int>(length)); }
    // A property block. Its length is one byte for the library; a peer's block of more than 127
    // bytes carries a two-byte length, which the library would misread, so it is refused.
    bool Properties() { return Properties(nullptr); }
    // The same, handing out the block's properties split by their standard types.
    bool Properties(std::vector<WireProperty>* split)
    {
        if (position_ >= length_ || body_[position_] > kMaxPropertyBlock) {
            return false;
        }
        const auto block = std::string_view(reinterpret_cast<const char*>(body_) + position_ + 1, body_[position_]);
        if (!Skip(1 + body_[position_])) {
            return false;
        }
        if (split == nullptr) {
            return true;
        }
        auto properties = SplitProperties(block);
        if (properties) {
            *split = std::move(*properties);
        }
        return properties.has_value();
    }
    bool AtEnd() const { return position_ == length_; }

private:
    const unsigned char* body_;
    int length_;
    int position_ = 0;
};

// Runs a builder into a buffer of `capacity` bytes and wraps what it wrote in a fixed header.
template <class Builder>
std::string Wrapped(unsigned char type, unsigned char flags, std::size_t capacity, Builder build)
{
    std::unique_ptr<char[]> body(new char[capacity]);
    int bodyLength = 0;
    build(body.get(), &bodyLength);
    std::string packet(static_cast<std::size_t>(bodyLength) + 5, '\0');
    int packetLength = 0;
    MQTTProtocol_Packet_Header(packet.data(), &packetLength, type, body.get(), bodyLength, flags);
    packet.resize(static_cast<std::size_t>(packetLength));
    return packet;
}

constexpr std::size_t kBlockRoom = 1 + kMaxPropertyBlock;

}  // namespace

std::size_t WireSize(std::size_t bodyLength)
{
    std::size_t lengthBytes = 1;
    for (std::size_t rest = bodyLength >> 7; rest > 0; rest >>= 7) {
        lengthBytes++;
    }
    return 1 + lengthBytes + bodyLength;
}

std::string ConnectPacket(const std::string& clientId, unsigned short keepAlive)
{
    return Wrapped(kConnect, 0, 13 + clientId.size() + kBlockRoom, [&](char* body, int* length) {
        MQTTPROTOCOL_HDRCONNNECT header{};
        header.byConnFlags = 0x02;             // clean start
        header.wKeepAlive = htons(keepAlive);  // the builder copies the record as it lies
        MQTTProtocol_Packet_REQConnect(body, length, &header, clientId.c_str(), nullptr, 0, nullptr, nullptr);
    });
}

std::string ConnackPacket(unsigned char reason, const PropertyList& properties)
{
    auto scratch = properties.Copy();
    return Wrapped(kConnack, 0, 2 + kBlockRoom, [&](char* body, int* length) {
        MQTTProtocol_Packet_REPConnect(body, length, 0, reason, scratch.Get(), scratch.Count());
    });
}

std::string PublishPacket(const std::string& topic, std::string_view payload, int qos, unsigned short id, bool retain,
                          const PropertyList& properties)
{
    auto scratch = properties.Copy();
    const auto flags = static_cast<unsigned char>(qos << 1 | (retain ? 1 : 0));
    return Wrapped(kPublish, flags, 4 + topic.size() + kBlockRoom + payload.size(), [&](char* body, int* length) {
        MQTTProtocol_Packet_REQPublish(body, length, topic.c_str(), payload.data(), static_cast<int>(payload.size()),
                                       id, scratch.Get(), scratch.Count());
    });
}

std::string AckPacket(unsigned char type, unsigned short id, unsigned char reason)
{
    const unsigned char flags = type == kPubrel ? 2 : 0;
    return Wrapped(type, flags, 3, [&](char* body, int* length) {
        MQTTProtocol_Packet_REPPublish(body, length, id, reason, nullptr, -1);  // no property block
        if (reason == kSuccess) {
            *length = 2;  // the builder always writes the reason code
        }
    });
}

std::string SubscribePacket(unsigned short id, const std::string& filter, int qos)
{
    return Wrapped(kSubscribe, 2, 6 + filter.size(), [&](char* body, int* length) {
        MQTTPROTOCOL_HDRSUBSCRIBE options{};
        options.byMaxQos = static_cast<unsigned char>(qos);
        MQTTProtocol_Packet_REQSubscribe(body, length, id, filter.c_str(), &options, nullptr, 0);
    });
}

std::string UnsubscribePacket(unsigned short id, const std::string& filter)
{
    return Wrapped(kUnsubscribe, 2, 5 + filter.size(), [&](char* body, int* length) {
        MQTTProtocol_Packet_REQUNSubscribe(body, length, id, filter.c_str(), nullptr, 0);
    });
}

std::string SubscriptionAckPacket(unsigned char type, unsigned short id, unsigned char reason)
{
    return Wrapped(type, 0, 4,
                   [&](char* body, int* length) { MQTTProtocol_Packet_REPComm(body, length, id, reason, nullptr, 0); });
}

std::string DisconnectPacket(unsigned char reason)
{
    // Python paho 1.6.1 reads a DISCONNECT's reason code only from a body longer than two bytes: a
    // Reason String that names the reason makes it so.
    PropertyList properties;
    properties.AddString(kReasonString, ReasonName(reason));
    auto scratch = properties.Copy();
    return Wrapped(kDisconnect, 0, 2 + kBlockRoom, [&](char* body, int* length) {
        MQTTProtocol_Packet_DisConnect(body, length, reason, scratch.Get(), scratch.Count());
    });
}

std::string BarePacket(unsigned char type)
{
    return Wrapped(type, 0, 0, [](char*, int* length) { *length = 0; });
}

Frame SplitPacket(std::string_view packet)
{
    Frame frame;
    std::memcpy(&frame.header, packet.data(), 1);
    int headerSize = 1;
    m_Parse.MQTTProtocol_Parse_Length(packet.data() + 1, static_cast<int>(packet.size()) - 1, &frame.length,
                                      &headerSize);
    frame.body.assign(packet.begin() + headerSize, packet.end());
    frame.body.resize(frame.body.size() + Frame::kBodyPadding, '\0');
    return frame;
}

unsigned char DecodeConnect(const char* body, int length, Connect& out)
{
    if (length < 10) {
        return kMalformedPacket;
    }
    unsigned idLength = 0;
    const auto flags = static_cast<unsigned char>(body[7]);
    std::vector<WireProperty> properties;
    if (body[6] == 5) {
        // The library reads no will fields: a CONNECT with a will would have them read as user
        // name and password, so it is refused.
        if (flags & 0x04) {
            return kImplementationSpecificError;
        }
        BodyWalker walk(body, length);
        unsigned ignored = 0;
        if (!walk.Skip(10) || !walk.Properties(&properties) || !walk.String(idLength) ||
            ((flags & 0x80) && !walk.String(ignored)) || ((flags & 0x40) && !walk.String(ignored)) || !walk.AtEnd()) {
            return kMalformedPacket;
        }
        if (idLength >= sizeof(MQTTPROTOCOL_USERINFO::tszClientID)) {
            return kClientIdNotValid;
        }
    }
    MQTTPROTOCOL_HDRCONNNECT header{};
    MQTTPROTOCOL_USERINFO user{};
    DecodedProperties ignored;
    if (!MQTTProtocol_Parse_Connect(body, length, &header, &user, ignored.ListOut(), ignored.CountOut())) {
        return kUnsupportedProtocolVersion;
    }
    out.clientId.assign(user.tszClientID, idLength);
    out.keepAlive = header.wKeepAlive;
    if (FindProperty(properties, kAuthenticationMethod)) {
        return kBadAuthenticationMethod;
    }
    if (const auto* receiveMaximum = FindProperty(properties, kReceiveMaximum)) {
        out.receiveMaximum = receiveMaximum->Integer();
    }
    if (const auto* maximumPacketSize = FindProperty(properties, kMaximumPacketSize)) {
        out.maximumPacketSize = maximumPacketSize->Integer();
    }
    return out.receiveMaximum == 0 || (FindProperty(properties, kMaximumPacketSize) && out.maximumPacketSize == 0)
               ? kProtocolError
               : kSuccess;
}

bool DecodeConnack(const char* body, int length, unsigned char& reason)
{
    BodyWalker walk(body, length);
    if (!walk.Skip(2) || !walk.Properties()) {
        return false;
    }
    DecodedProperties properties;
    return MQTTProtocol_Parse_Connack(body, length, &reason, properties.ListOut(), properties.CountOut());
}

bool DecodePublish(MQTTPROTOCOL_FIXEDHEADER header, const char* body, int length, Publish& out)
{
    out.qos = (header.byMsgFlag >> 1) & 0x03;
    BodyWalker walk(body, length);
    unsigned topicLength = 0;
    unsigned id = 0;
    std::vector<WireProperty> properties;
    if (out.qos == 3 || !walk.String(topicLength) || (out.qos > 0 && (!walk.U16(id) || id == 0)) ||
        !walk.Properties(&properties)) {
        return false;
    }
    // The library reads an identifier only when the whole flags nibble is 2 or 4, so a QoS 1 or 2
    // message that also carries DUP or RETAIN (mosquitto_pub -r) would be read without one. Decode
    // with the QoS bits alone; DUP and RETAIN are taken from the real first byte.
    MQTTPROTOCOL_FIXEDHEADER qosOnly = header;
    qosOnly.byMsgFlag = header.byMsgFlag & 0x06;
    out.dup = (header.byMsgFlag & 0x08) != 0;
    out.retain = (header.byMsgFlag & 0x01) != 0;
    out.topic.assign(std::max(topicLength, 1U), '\0');
    out.payload.resize(static_cast<std::size_t>(length));
    int payloadLength = 0;  // left alone by the decoder when there is no payload
    DecodedProperties ignored;
    MQTTProtocol_Parse_Publish(body, length, &qosOnly, out.topic.data(), &out.id, out.payload.data(), &payloadLength,
                               ignored.ListOut(), ignored.CountOut());
    out.topic.resize(topicLength);
    out.payload.resize(static_cast<std::size_t>(payloadLength));
    for (const auto& property : properties) {
        // A Topic Alias belongs to one connection and is never passed on; the expiry interval is
        // passed on as what is left of it.
        if (property.id == kTopicAlias) {
            out.hasTopicAlias = true;
        } else if (property.id == kMessageExpiryInterval) {
            out.messageExpiry = property.Integer();
        } else {
            out.properties.AddWireValue(property.id, property.value);
        }
    }
    return true;
}

bool DecodeAck(const char* body, int length, Ack& out)
{
    BodyWalker walk(body, length);
    unsigned id = 0;
    if (!walk.U16(id) || id == 0 || (length > 3 && !(walk.Skip(1) && walk.Properties()))) {
        return false;
    }
    DecodedProperties properties;
    MQTTProtocol_Parse_Puback(body, length, &out.reason, &out.id, properties.ListOut(), properties.CountOut());
    // A two-byte body is the standard's short form of reason 0x00; the library reads the byte
    // behind the body as the reason code instead.
    if (length == 2) {
        out.reason = 0x00;
    }
    return true;
}

bool DecodeSubscriptionAck(const char* body, int length, Ack& out)
{
    BodyWalker walk(body, length);
    unsigned id = 0;
    if (!walk.U16(id) || !walk.Properties() || !walk.Skip(1)) {
        return false;
    }
    // The library's SUBACK decoder takes the property length from the identifier's first byte.
    // SUBACK and UNSUBACK share one layout, and the UNSUBACK decoder reads it where it is.
    DecodedProperties properties;
    return MQTTProtocol_Parse_UNSuback(body, length, &out.reason, &out.id, properties.ListOut(), properties.CountOut());
}

namespace {

// Checks a SUBSCRIBE or UNSUBSCRIBE body and counts its filters; `firstLength` gets the first one's.
bool WalkFilters(const char* body, int length, bool withOptions, Subscription& out, unsigned& firstLength)
{
    BodyWalker walk(body, length);
    unsigned id = 0;
    if (!walk.U16(id) || id == 0 || !walk.Properties()) {
        return false;
    }
    out.filterCount = 0;
    for (unsigned filterLength = 0; !walk.AtEnd(); out.filterCount++) {
        if (!walk.String(filterLength) || (withOptions && !walk.Skip(1))) {
            return false;
        }
        if (out.filterCount == 0) {
            firstLength = filterLength;
        }
    }
    return out.filterCount > 0;
}

}  // namespace

bool DecodeSubscribe(const char* body, int length, Subscription& out)
{
    unsigned filterLength = 0;
    if (!WalkFilters(body, length, true, out, filterLength)) {
        return false;
    }
    out.filter.assign(std::max(filterLength, 1U), '\0');
    DecodedProperties properties;
    MQTTProtocol_Parse_Subscribe(body, length, &out.id, out.filter.data(), &out.options, properties.ListOut(),
                                 properties.CountOut());
    out.filter.resize(filterLength);
    return true;
}

bool DecodeUnsubscribe(const char* body, int length, Subscription& out)
{
    unsigned filterLength = 0;
    if (!WalkFilters(body, length, false, out, filterLength)) {
        return false;
    }
    out.filter.assign(std::max(filterLength, 1U), '\0');
    DecodedProperties properties;
    MQTTProtocol_Parse_UNSubcribe(body, length, &out.id, out.filter.data(), properties.ListOut(),
                                  properties.CountOut());
    out.filter.resize(filterLength);
    return true;
}

unsigned char DecodeDisconnect(const char* body, int length)
{
    // The library always reads a reason code and a property length; the standard lets a DISCONNECT
    // leave out both (reason 0x00) or the property length alone.
    if (length == 0) {
        return kSuccess;
    }
    BodyWalker walk(body, length);
    if (length > 1 && !(walk.Skip(1) && walk.Properties())) {
        return kMalformedPacket;
    }
    unsigned char reason = 0;
    DecodedProperties properties;
    MQTTProtocol_Parse_Disconnect(body, length, &reason, properties.ListOut(), properties.CountOut());
    return reason;
}

}  // namespace host
