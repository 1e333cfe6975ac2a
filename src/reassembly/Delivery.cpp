// Packet delivery: hands the oldest complete packet of a client to the host.
#include "companion/Companion.h"
#include "frame/ErrorState.h"
#include "reassembly/RecordForm.h"
#include "reassembly/SessionTable.h"

namespace {

// Takes the oldest packet, a Complete or ShortPingreq record, out of a session's queue under the
// session's lock and hands its first byte, body and body length out; the body's block passes to the
// host with it. The out-pointers are
// looked at only once there is a packet to write through them, so an empty queue or a packet still
// arriving is reported as such whatever they are.
bool TakeOldest(TAVRIN_MQTTPARSE& session, MQTTPROTOCOL_FIXEDHEADER* fixedHeader, char** body, int* bodyLength)
{
    std::lock_guard sessionLock(*session.pSt_Locker);
    std::list<MQTTPROTOCOL_MSGBUFFER>& queue = *session.pStl_ListPacket;
    if (queue.empty()) {
        return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PARSE_EMPTY);
    }
    // Only the last record can be pending, so a pending front means nothing else is queued.
    const MQTTPROTOCOL_MSGBUFFER& oldest = queue.front();
    if (mqttprotocol::IsPending(oldest)) {
        return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PARSE_NOTCOMPLETE);
    }
    if (fixedHeader == nullptr || body == nullptr || bodyLength == nullptr) {
        return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    }
    *fixedHeader = oldest.st_FixedHeader;
    *body = oldest.ptszMsgBuffer;
    *bodyLength = oldest.nMsgLen;
    queue.pop_front();
    return true;
}

}  // namespace

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_Recv(const char* lpszClientAddr, MQTTPROTOCOL_FIXEDHEADER* pSt_FixedHeader,
                                                  char** pptszMsgBuffer, int* pInt_MsgLen)
{
    mqttprotocol::ClearError();
    mqttprotocol::SharedSession found;
    if (!mqttprotocol::FindSharedSession(st_Locker, stl_MapClient, lpszClientAddr, found) ||
        !TakeOldest(*found.session, pSt_FixedHeader, pptszMsgBuffer, pInt_MsgLen)) {
        return false;
    }
    // Counted down once the session's lock is released, so Send goes on queueing meanwhile, but
    // while the shared table lock still holds Delete off: a Delete of the address, and so a later
    // session of it, cannot come between the packet leaving the queue and its count going.
    Hopper_TaskPool_AddrDecEx(hPool, found.session->nPoolIndex, lpszClientAddr);
    return true;
}
