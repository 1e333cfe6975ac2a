// What every packet builder and decoder shares: the argument check and length out around a body,
// the property block inside a packet, the two-byte-length prefixed string, the packet identifier
// that replies leave out when it is zero, and the opening that SUBSCRIBE and UNSUBSCRIBE share. Each
// packet file composes its body from these and the plain cursor operations, so that it reads like the
// packet's wire layout.
#pragma once

#include "codec/ByteCursor.h"
#include "frame/BodyMode.h"
#include "frame/ErrorState.h"

#include <cstring>
#include <type_traits>

namespace mqttprotocol {

// The largest string a two-byte length prefix can announce: the capacity a caller's topic name or
// topic filter out must have, since the decoders copy whatever the prefix says.
constexpr int kMaxPrefixedLength = 0xFFFF;

// Runs a builder's body: clears the flag, refuses a missing output with the builder side's code,
// writes the body through putFields and sets (not adds to) the length out to the bytes written.
template <typename PutFields>
bool BuildBody(char* ptszMsgBuffer, int* pInt_MsgLen, PutFields putFields)
{
    ClearError();
    if (ptszMsgBuffer == nullptr || pInt_MsgLen == nullptr) {
        return Fail(MQTTPROTOCOL_ERR_PACKET_ARGUMENT);
    }
    ByteWriter writer(ptszMsgBuffer);
    putFields(writer);
    *pInt_MsgLen = writer.Position();
    return true;
}

// Decodes the properties of a block into a list allocated by the Keel allocator: the block's bytes
// are read through blockReader, whose end is the body's, and blockLen is the block's length byte.
void DecodeProperties(const ByteReader& blockReader, int blockLen, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                      int* pInt_PropertyCount);

// Runs a decoder: clears the flag, refuses a missing body with the parser side's code, then reads
// the body of nMsgLen bytes through getFields, with a reader that ends where the body mode says.
// A getFields that can refuse its body returns its own result.
template <typename GetFields>
bool DecodeBody(const char* lpszMsgBuffer, int nMsgLen, GetFields getFields)
{
    ClearError();
    if (lpszMsgBuffer == nullptr) {
        return Fail(MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    }
    ByteReader reader(lpszMsgBuffer, ReadableEnd(nMsgLen));
    if constexpr (std::is_same_v<std::invoke_result_t<GetFields, ByteReader&>, bool>) {
        return getFields(reader);
    } else {
        getFields(reader);
        return true;
    }
}

// Writes a property block at the writer's position and moves the writer behind it. The block
// builder cannot fail here: the position is never null.
inline void PutPropertyBlock(CMQTTProtocol_Packet& packet, ByteWriter& writer,
                             MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount)
{
    int position = writer.Position();
    packet.MQTTProtocol_Packet_Property(writer.Here(), &position, pppSt_Property, nPropertyCount);
    writer.Seek(position);
}

// Reads a property block's one length byte; only a non-zero block is decoded (so the list and count
// outs of an empty block stay as the caller set them), and the reader moves behind the block.
inline void GetPropertyBlock(ByteReader& reader, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount)
{
    const int blockLen = reader.GetU8();
    if (blockLen != 0) {
        DecodeProperties(reader.Rest(), blockLen, pppSt_Property, pInt_PropertyCount);
        reader.Skip(blockLen);
    }
}

// A terminated string as a prefixed field: its length cut to 16 bits, then that many bytes, so a
// string of 65,536 bytes or more loses its tail rather than disagreeing with its prefix.
inline void PutPrefixedString(ByteWriter& writer, const char* text)
{
    const uint16_t length = static_cast<uint16_t>(std::strlen(text));
    writer.PutU16(length);
    writer.PutBytes(text, length);
}

// Reads a prefixed field into a destination of the given capacity: copies what fits, no terminator,
// and moves past the whole field as its prefix announces it.
inline void GetPrefixedBytes(ByteReader& reader, char* destination, int capacity)
{
    const int length = reader.GetU16();
    reader.GetBytesBounded(destination, length, capacity);
}

// Replies and PUBLISH carry their packet identifier only when it is non-zero.
inline void PutIdentifierIfSet(ByteWriter& writer, uint16_t wMsgID)
{
    if (wMsgID != 0) {
        writer.PutU16(wMsgID);
    }
}

// SUBSCRIBE and UNSUBSCRIBE open alike: packet identifier (always, 0 included), property block, one
// topic filter. SUBSCRIBE adds its options byte behind them.
inline void PutFilterRequest(CMQTTProtocol_Packet& packet, ByteWriter& writer, uint16_t wMsgID,
                             const char* lpszTopicFilter, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                             int nPropertyCount)
{
    writer.PutU16(wMsgID);
    PutPropertyBlock(packet, writer, pppSt_Property, nPropertyCount);
    PutPrefixedString(writer, lpszTopicFilter);
}

inline void GetFilterRequest(ByteReader& reader, unsigned short* pwMsgID, char* ptszTopicFilter,
                             MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount)
{
    *pwMsgID = reader.GetU16();
    GetPropertyBlock(reader, pppSt_Property, pInt_PropertyCount);
    GetPrefixedBytes(reader, ptszTopicFilter, kMaxPrefixedLength);
}

}  // namespace mqttprotocol
