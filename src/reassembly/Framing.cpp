// Receive framing: cuts a client's byte stream into packets and queues them on its session.
//
// Cutting works on an input: bytes that begin at a packet's first byte. Each round cuts one packet off
// the front of the input, or leaves the input waiting as a packet still arriving, and what follows a
// whole packet is cut as a new input by the next round; so a piece of any number of packets needs no
// stack of its own. Only the first round's result is the call's: later rounds report through the error
// state alone, which is why a true result may come with the error flag set.
#include "companion/Companion.h"
#include "frame/ErrorState.h"
#include "reassembly/PacketBlock.h"
#include "reassembly/SessionTable.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

using mqttprotocol::ClearError;
using mqttprotocol::Fail;

// The fixed header is decoded once this many bytes are at hand: the first byte and up to three
// remaining-length bytes (lengths up to 2,097,151) are then certainly there.
constexpr int kHeaderThreshold = 4;
// Bytes waiting for the threshold: never as many as the threshold itself.
constexpr int kShortPartialCapacity = kHeaderThreshold - 1;
// The first byte and at most four remaining-length bytes.
constexpr int kMaxFixedHeader = 5;
constexpr int kPingreqSize = 2;

constexpr int kTypePingreq = 12;
constexpr int kTypeSubscribe = 8;
constexpr int kTypeUnsubscribe = 10;
constexpr int kSubscribeFlags = 2;

int TypeOf(uint8_t first) { return first >> 4; }
int FlagsOf(uint8_t first) { return first & 0x0F; }

MQTTPROTOCOL_FIXEDHEADER FixedHeaderOf(uint8_t first)
{
    MQTTPROTOCOL_FIXEDHEADER header;
    std::memcpy(&header, &first, sizeof(header));
    return header;
}

// SUBSCRIBE and UNSUBSCRIBE must carry flags 2; no other type has its flags checked.
bool FlagsRefused(uint8_t first)
{
    const int type = TypeOf(first);
    return (type == kTypeSubscribe || type == kTypeUnsubscribe) && FlagsOf(first) != kSubscribeFlags;
}

bool ValidBytes(const char* data, int size) { return size >= 0 && (data != nullptr || size == 0); }

bool IsArriving(const MQTTPROTOCOL_MSGBUFFER& record) { return !record.bHeaderReady || !record.bPacketReady; }

bool EndsWithArrivingPacket(const TAVRIN_MQTTPARSE& session)
{
    return !session.pStl_ListPacket->empty() && IsArriving(session.pStl_ListPacket->back());
}

void CopyBytes(char* destination, const char* source, int count)
{
    if (count > 0) {
        std::memcpy(destination, source, static_cast<size_t>(count));
    }
}

// The bytes of one input: those a packet still arriving has held so far, then the caller's data.
class CutInput
{
public:
    CutInput(const char* held, int heldCount, const char* data, int dataCount)
        : m_Held(held), m_HeldCount(heldCount), m_Data(data), m_DataCount(dataCount)
    {
    }

    int Size() const { return m_HeldCount + m_DataCount; }
    uint8_t At(int offset) const
    {
        return static_cast<uint8_t>(offset < m_HeldCount ? m_Held[offset] : m_Data[offset - m_HeldCount]);
    }
    // Copies count bytes from offset on, across both parts.
    void CopyTo(char* destination, int offset, int count) const
    {
        // Each part's address is formed only when bytes come from it: either part may be null.
        const int fromHeld = std::clamp(m_HeldCount - offset, 0, count);
        if (fromHeld > 0) {
            CopyBytes(destination, m_Held + offset, fromHeld);
        }
        if (count > fromHeld) {
            CopyBytes(destination + fromHeld, m_Data + (offset + fromHeld - m_HeldCount), count - fromHeld);
        }
    }
    void Drop(int count)
    {
        const int fromHeld = std::min(count, m_HeldCount);
        m_Held += fromHeld;
        m_HeldCount -= fromHeld;
        m_Data += count - fromHeld;
        m_DataCount -= count - fromHeld;
    }

private:
    const char* m_Held;
    int m_HeldCount;
    const char* m_Data;
    int m_DataCount;
};

// Cuts inputs for one session, whose lock the caller holds, and queues what it cuts.
class Framer
{
public:
    Framer(CMQTTProtocol_Parse& parser, HOPPER_HANDLE pool, TAVRIN_MQTTPARSE& session)
        : m_Parser(parser), m_Pool(pool), m_Session(session)
    {
    }

    // Cuts the whole input; the result is the first round's.
    bool CutAll(CutInput input)
    {
        const Round first = CutOne(input);
        for (bool more = first.more; more;) {
            more = CutOne(input).more;
        }
        return first.result;
    }

private:
    struct Round
    {
        bool result;
        bool more;  // a whole packet was cut and bytes follow it
    };

    Round CutOne(CutInput& input)
    {
        ClearError();
        const int size = input.Size();
        if (size < kHeaderThreshold) {
            return {QueueShort(input), false};
        }
        char header[kMaxFixedHeader];
        const int headerBytes = std::min(size, kMaxFixedHeader);
        input.CopyTo(header, 0, headerBytes);
        int remaining = 0;
        int headerSize = 1;
        // The result is not looked at, on purpose: a malformed or cut-off length leaves remaining 0 and
        // headerSize 1, so the first byte becomes a packet with an empty body and cutting goes on at
        // the next byte.
        m_Parser.MQTTProtocol_Parse_Length(header + 1, headerBytes - 1, &remaining, &headerSize);
        if (remaining > MQTTPROTOCOL_PACKET_BLOCK_SIZE) {
            return {Fail(MQTTPROTOCOL_ERR_PARSE_LENGTH), false};
        }
        const uint8_t first = static_cast<uint8_t>(header[0]);
        const int packetSize = headerSize + remaining;
        if (packetSize > size) {
            return {QueueArriving(input, first, packetSize), false};
        }
        if (FlagsRefused(first)) {
            return {Fail(MQTTPROTOCOL_ERR_PARSE_HDRFLAGS), false};
        }
        if (!QueueWhole(input, first, headerSize, remaining)) {
            return {false, false};
        }
        input.Drop(packetSize);
        return {true, input.Size() > 0};
    }

    // Fewer bytes than the threshold: a PINGREQ if they are exactly one, otherwise they wait.
    bool QueueShort(const CutInput& input)
    {
        const int size = input.Size();
        MQTTPROTOCOL_MSGBUFFER record{};
        if (size == kPingreqSize) {
            record.st_FixedHeader = FixedHeaderOf(input.At(0));
            if (TypeOf(input.At(0)) == kTypePingreq && input.At(1) == 0) {
                record.nPktLen = kPingreqSize;
                record.bHeaderReady = record.bPacketReady = true;
                return QueueReady(record);
            }
        }
        record.nPktLen = kHeaderThreshold;
        return QueueHeld(record, input, kShortPartialCapacity);
    }

    // The fixed header is decoded but the packet is not all here: its bytes wait in a buffer of its size.
    bool QueueArriving(const CutInput& input, uint8_t first, int packetSize)
    {
        MQTTPROTOCOL_MSGBUFFER record{};
        record.st_FixedHeader = FixedHeaderOf(first);
        record.nPktLen = packetSize;
        record.bHeaderReady = true;
        return QueueHeld(record, input, packetSize);
    }

    bool QueueWhole(const CutInput& input, uint8_t first, int headerSize, int remaining)
    {
        MQTTPROTOCOL_MSGBUFFER record{};
        record.ptszMsgBuffer = mqttprotocol::AllocatePacketBlock();
        if (record.ptszMsgBuffer == nullptr) {
            return Fail(MQTTPROTOCOL_ERR_PARSE_MALLOC);
        }
        input.CopyTo(record.ptszMsgBuffer, headerSize, remaining);
        record.st_FixedHeader = FixedHeaderOf(first);
        record.nMsgLen = remaining;
        record.nPktLen = headerSize + remaining;
        record.bHeaderReady = record.bPacketReady = true;
        return QueueReady(record);
    }

    // Queues a packet still arriving with all the input's bytes, in a buffer of the given capacity.
    bool QueueHeld(MQTTPROTOCOL_MSGBUFFER& record, const CutInput& input, int capacity)
    {
        record.ptszMsgBuffer = static_cast<char*>(std::malloc(static_cast<size_t>(capacity)));
        if (record.ptszMsgBuffer == nullptr) {
            return Fail(MQTTPROTOCOL_ERR_PARSE_MALLOC);
        }
        record.nMsgLen = input.Size();
        input.CopyTo(record.ptszMsgBuffer, 0, record.nMsgLen);
        return Queue(record);
    }

    // Queues a whole packet and counts it ready, with both locks still held.
    bool QueueReady(const MQTTPROTOCOL_MSGBUFFER& record)
    {
        if (!Queue(record)) {
            return false;
        }
        Hopper_TaskPool_AddrIncEx(m_Pool, m_Session.nPoolIndex, m_Session.tszClientAddr);
        return true;
    }

    bool Queue(const MQTTPROTOCOL_MSGBUFFER& record)
    {
        try {
            m_Session.pStl_ListPacket->push_back(record);
            return true;
        } catch (const std::bad_alloc&) {
            std::free(record.ptszMsgBuffer);
            return Fail(MQTTPROTOCOL_ERR_PARSE_MALLOC);
        }
    }

    CMQTTProtocol_Parse& m_Parser;
    HOPPER_HANDLE m_Pool;
    TAVRIN_MQTTPARSE& m_Session;
};

}  // namespace

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_Send(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen)
{
    ClearError();
    if (!ValidBytes(lpszMsgBuffer, nMsgLen)) {
        return Fail(MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    }
    mqttprotocol::SharedSession found;
    if (!mqttprotocol::FindSharedSession(st_Locker, stl_MapClient, lpszClientAddr, found)) {
        return false;
    }
    std::lock_guard sessionLock(*found.session->pSt_Locker);
    if (EndsWithArrivingPacket(*found.session)) {
        // The bytes went to a packet already under way; what became of them shows in the error state.
        MQTTProtocol_Parse_Build(found.session, lpszMsgBuffer, nMsgLen);
        return true;
    }
    return MQTTProtocol_Parse_Packet(found.session, lpszMsgBuffer, nMsgLen);
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_Packet(TAVRIN_MQTTPARSE* pSt_Session, const char* lpszMsgBuffer,
                                                    int nMsgLen)
{
    ClearError();
    if (pSt_Session == nullptr || !ValidBytes(lpszMsgBuffer, nMsgLen)) {
        return Fail(MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    }
    return Framer(*this, hPool, *pSt_Session).CutAll(CutInput(nullptr, 0, lpszMsgBuffer, nMsgLen));
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_Build(TAVRIN_MQTTPARSE* pSt_Session, const char* lpszMsgBuffer,
                                                   int nMsgLen)
{
    ClearError();
    if (pSt_Session == nullptr || !ValidBytes(lpszMsgBuffer, nMsgLen) || !EndsWithArrivingPacket(*pSt_Session)) {
        return Fail(MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    }
    std::list<MQTTPROTOCOL_MSGBUFFER>& queue = *pSt_Session->pStl_ListPacket;
    MQTTPROTOCOL_MSGBUFFER& arriving = queue.back();
    if (nMsgLen < arriving.nPktLen - arriving.nMsgLen) {
        CopyBytes(arriving.ptszMsgBuffer + arriving.nMsgLen, lpszMsgBuffer, nMsgLen);
        arriving.nMsgLen += nMsgLen;
        return true;
    }
    // The packet is whole, or its fixed header can now be decoded: the held bytes and the new ones
    // are cut again from the packet's first byte, as one input.
    const MQTTPROTOCOL_MSGBUFFER held = arriving;
    queue.pop_back();
    const bool result =
        Framer(*this, hPool, *pSt_Session).CutAll(CutInput(held.ptszMsgBuffer, held.nMsgLen, lpszMsgBuffer, nMsgLen));
    std::free(held.ptszMsgBuffer);
    return result;
}
