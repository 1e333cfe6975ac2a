// Receive framing: cuts a client's byte stream into packets and queues them on its session.
//
// Cutting works on an input: bytes that begin at a packet's first byte. Each round cuts one packet off
// the front of the input, or leaves the input waiting as a packet still arriving, and what follows a
// whole packet is cut as a new input by the next round; so a piece of any number of packets needs no
// stack of its own. Only the first round's result is the call's: later rounds report through the error
// state alone, which is why a true result may come with the error flag set.
//
// A packet that waits does so in one of two records (see reassembly/RecordForm.h): HeaderPending until
// 4 bytes make its fixed header decodable, then BodyPending, whose buffer holds the body where its
// delivery block will and grows with the bytes that arrive, never with what a header announces.
#include "companion/Companion.h"
#include "frame/ErrorState.h"
#include "reassembly/CutInput.h"
#include "reassembly/PacketBlock.h"
#include "reassembly/RecordForm.h"
#include "reassembly/SessionTable.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

using mqttprotocol::ClearError;
using mqttprotocol::CopyBytes;
using mqttprotocol::CutInput;
using mqttprotocol::Fail;
using mqttprotocol::RecordForm;

// The fixed header is decoded once this many bytes are at hand: the first byte and up to three
// remaining-length bytes (lengths up to 2,097,151) are then certainly there.
constexpr int kHeaderThreshold = 4;
// Bytes waiting for the threshold: never as many as the threshold itself.
constexpr int kHeaderPendingCapacity = kHeaderThreshold - 1;
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

uint8_t FirstByteOf(MQTTPROTOCOL_FIXEDHEADER header)
{
    uint8_t first;
    std::memcpy(&first, &header, sizeof(first));
    return first;
}

// SUBSCRIBE and UNSUBSCRIBE must carry flags 2; no other type has its flags checked.
bool FlagsRefused(uint8_t first)
{
    const int type = TypeOf(first);
    return (type == kTypeSubscribe || type == kTypeUnsubscribe) && FlagsOf(first) != kSubscribeFlags;
}

bool ValidBytes(const char* data, int size) { return size >= 0 && (data != nullptr || size == 0); }

bool EndsWithPendingPacket(const TAVRIN_MQTTPARSE& session)
{
    return !session.pStl_ListPacket->empty() && mqttprotocol::IsPending(session.pStl_ListPacket->back());
}

// A BodyPending buffer keeps the fixed header's size in its last byte, which the body never reaches.
int CapacityOf(const MQTTPROTOCOL_MSGBUFFER& pending)
{
    return mqttprotocol::PendingCapacity(pending.nMsgLen, pending.nPktLen);
}
int HeaderSizeOf(const MQTTPROTOCOL_MSGBUFFER& pending) { return pending.ptszMsgBuffer[CapacityOf(pending) - 1]; }
int BodyBytesHeld(const MQTTPROTOCOL_MSGBUFFER& pending) { return pending.nMsgLen - HeaderSizeOf(pending); }

// Cuts inputs for one session, whose lock the caller holds, and queues what it cuts.
class Framer
{
public:
    Framer(CMQTTProtocol_Parse& parser, HOPPER_HANDLE pool, TAVRIN_MQTTPARSE& session)
        : m_Parser(parser), m_Pool(pool), m_Session(session), m_Queue(*session.pStl_ListPacket)
    {
    }

    // Aligned: cuts the whole input; the result is the first round's.
    bool CutAll(CutInput input)
    {
        const Round first = CutOne(input);
        if (first.more) {
            CutRest(input);
        }
        return first.result;
    }

    // HeaderPending(k): bytes wait until 4 are at hand; then the held ones and the piece are cut as
    // one input from the packet's first byte.
    bool ContinueHeader(const char* data, int size)
    {
        MQTTPROTOCOL_MSGBUFFER& pending = m_Queue.back();
        if (size < kHeaderThreshold - pending.nMsgLen) {
            CopyBytes(pending.ptszMsgBuffer + pending.nMsgLen, data, size);
            pending.nMsgLen += size;
            return true;
        }
        if (size > INT_MAX - pending.nMsgLen) {
            // The input would count more bytes than an int holds: refused like a packet too long.
            DropPending();
            return Fail(MQTTPROTOCOL_ERR_PARSE_LENGTH);
        }
        const MQTTPROTOCOL_MSGBUFFER held = pending;
        m_Queue.pop_back();
        const bool result = CutAll(CutInput(held.ptszMsgBuffer, held.nMsgLen, data, size));
        std::free(held.ptszMsgBuffer);
        return result;
    }

    // BodyPending(k, N): the body's bytes go straight behind those already held; the piece that
    // completes the packet queues it, and what follows is cut as a new input.
    bool ContinueBody(const char* data, int size)
    {
        MQTTPROTOCOL_MSGBUFFER& pending = m_Queue.back();
        const int missing = pending.nPktLen - pending.nMsgLen;
        if (size < missing) {
            return AppendPending(pending, data, size);
        }
        if (!CompletePending(pending, data, missing)) {
            return false;
        }
        if (size > missing) {
            CutRest(CutInput(nullptr, 0, data + missing, size - missing));
        }
        return true;
    }

private:
    struct Round
    {
        bool result;
        bool more;  // a whole packet was cut and bytes follow it
    };

    // Later rounds: what becomes of them shows in the error state only.
    void CutRest(CutInput input)
    {
        for (bool more = true; more;) {
            more = CutOne(input).more;
        }
    }

    Round CutOne(CutInput& input)
    {
        ClearError();
        const int size = input.Size();
        if (size < kHeaderThreshold) {
            return {QueueShort(input), false};
        }
        char scratch[kMaxFixedHeader];
        const int headerBytes = std::min(size, kMaxFixedHeader);
        const char* const header = input.Front(scratch, headerBytes);
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
            return {QueueBodyPending(input, first, headerSize, packetSize), false};
        }
        if (FlagsRefused(first)) {
            return {Fail(MQTTPROTOCOL_ERR_PARSE_HDRFLAGS), false};
        }
        if (!QueueComplete(input, first, headerSize, remaining)) {
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
        record.nMsgLen = size;
        record.ptszMsgBuffer = static_cast<char*>(std::malloc(kHeaderPendingCapacity));
        if (record.ptszMsgBuffer == nullptr) {
            return Fail(MQTTPROTOCOL_ERR_PARSE_MALLOC);
        }
        input.CopyTo(record.ptszMsgBuffer, 0, size);
        return Queue(record);
    }

    bool QueueBodyPending(const CutInput& input, uint8_t first, int headerSize, int packetSize)
    {
        MQTTPROTOCOL_MSGBUFFER record{};
        const int capacity = mqttprotocol::PendingCapacity(input.Size(), packetSize);
        record.ptszMsgBuffer = static_cast<char*>(std::malloc(static_cast<size_t>(capacity)));
        if (record.ptszMsgBuffer == nullptr) {
            return Fail(MQTTPROTOCOL_ERR_PARSE_MALLOC);
        }
        input.CopyTo(record.ptszMsgBuffer, headerSize, input.Size() - headerSize);
        record.ptszMsgBuffer[capacity - 1] = static_cast<char>(headerSize);
        record.st_FixedHeader = FixedHeaderOf(first);
        record.nMsgLen = input.Size();
        record.nPktLen = packetSize;
        record.bHeaderReady = true;
        return Queue(record);
    }

    bool QueueComplete(const CutInput& input, uint8_t first, int headerSize, int remaining)
    {
        MQTTPROTOCOL_MSGBUFFER record{};
        record.ptszMsgBuffer = mqttprotocol::AllocateBody(remaining);
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

    // BodyPending(k, N) -> BodyPending(k + size, N): the buffer grows first if the bytes need it.
    bool AppendPending(MQTTPROTOCOL_MSGBUFFER& pending, const char* data, int size)
    {
        const int headerSize = HeaderSizeOf(pending);
        const int capacity = mqttprotocol::PendingCapacity(pending.nMsgLen + size, pending.nPktLen);
        if (capacity != CapacityOf(pending)) {
            char* const grown = static_cast<char*>(std::realloc(pending.ptszMsgBuffer, static_cast<size_t>(capacity)));
            if (grown == nullptr) {
                DropPending();
                return Fail(MQTTPROTOCOL_ERR_PARSE_MALLOC);
            }
            pending.ptszMsgBuffer = grown;
            grown[capacity - 1] = static_cast<char>(headerSize);
        }
        CopyBytes(pending.ptszMsgBuffer + (pending.nMsgLen - headerSize), data, size);
        pending.nMsgLen += size;
        return true;
    }

    // BodyPending -> Complete, in place at the back of the queue, with the missing bytes that end it.
    bool CompletePending(MQTTPROTOCOL_MSGBUFFER& pending, const char* data, int missing)
    {
        if (FlagsRefused(FirstByteOf(pending.st_FixedHeader))) {
            DropPending();
            return Fail(MQTTPROTOCOL_ERR_PARSE_HDRFLAGS);
        }
        const int bodyLength = pending.nPktLen - HeaderSizeOf(pending);
        char* const body =
            mqttprotocol::DeliverFromBuffer(pending.ptszMsgBuffer, BodyBytesHeld(pending), data, missing);
        if (body == nullptr) {
            m_Queue.pop_back();  // the buffer went with the failure
            return Fail(MQTTPROTOCOL_ERR_PARSE_MALLOC);
        }
        pending.ptszMsgBuffer = body;
        pending.nMsgLen = bodyLength;
        pending.bPacketReady = true;
        CountReady();
        return true;
    }

    void DropPending()
    {
        std::free(m_Queue.back().ptszMsgBuffer);
        m_Queue.pop_back();
    }

    // Queues a whole packet and counts it ready, with both locks still held.
    bool QueueReady(const MQTTPROTOCOL_MSGBUFFER& record)
    {
        if (!Queue(record)) {
            return false;
        }
        CountReady();
        return true;
    }

    void CountReady() { Hopper_TaskPool_AddrIncEx(m_Pool, m_Session.nPoolIndex, m_Session.tszClientAddr); }

    bool Queue(const MQTTPROTOCOL_MSGBUFFER& record)
    {
        try {
            m_Queue.push_back(record);
            return true;
        } catch (const std::bad_alloc&) {
            std::free(record.ptszMsgBuffer);
            return Fail(MQTTPROTOCOL_ERR_PARSE_MALLOC);
        }
    }

    CMQTTProtocol_Parse& m_Parser;
    HOPPER_HANDLE m_Pool;
    TAVRIN_MQTTPARSE& m_Session;
    std::list<MQTTPROTOCOL_MSGBUFFER>& m_Queue;
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
    if (EndsWithPendingPacket(*found.session)) {
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
    if (pSt_Session == nullptr || !ValidBytes(lpszMsgBuffer, nMsgLen) || !EndsWithPendingPacket(*pSt_Session)) {
        return Fail(MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    }
    Framer framer(*this, hPool, *pSt_Session);
    if (mqttprotocol::FormOf(pSt_Session->pStl_ListPacket->back()) == RecordForm::HeaderPending) {
        return framer.ContinueHeader(lpszMsgBuffer, nMsgLen);
    }
    return framer.ContinueBody(lpszMsgBuffer, nMsgLen);
}
