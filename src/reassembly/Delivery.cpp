// Packet delivery: hands the oldest complete packet of a client to the host.
#include "companion/Companion.h"
#include "frame/ErrorState.h"
#include "reassembly/SessionTable.h"

namespace {

// Takes the oldest packet out of a session's queue under the session's lock and hands its first
// byte, body and body length out; the body's block passes to the host with it.
bool TakeOldest(TAVRIN_MQTTPARSE& session, MQTTPROTOCOL_FIXEDHEADER* fixedHeader, char** body, int* bodyLength,
                int& poolIndex)
{
    std::lock_guard sessionLock(*session.pSt_Locker);
    std::list<MQTTPROTOCOL_MSGBUFFER>& queue = *session.pStl_ListPacket;
    if (queue.empty()) {
        return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PARSE_EMPTY);
    }
    const MQTTPROTOCOL_MSGBUFFER oldest = queue.front();
    if (!oldest.bHeaderReady || !oldest.bPacketReady) {
        return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PARSE_NOTCOMPLETE);
    }
    poolIndex = session.nPoolIndex;
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
    if (pSt_FixedHeader == nullptr || pptszMsgBuffer == nullptr || pInt_MsgLen == nullptr) {
        return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    }
    int poolIndex = 0;
    {
        mqttprotocol::SharedSession found;
        if (!mqttprotocol::FindSharedSession(st_Locker, stl_MapClient, lpszClientAddr, found) ||
            !TakeOldest(*found.session, pSt_FixedHeader, pptszMsgBuffer, pInt_MsgLen, poolIndex)) {
            return false;
        }
    }
    // Counted down only once both locks are released, so the pool may briefly count a packet that a
    // worker has already taken.
    Hopper_TaskPool_AddrDecEx(hPool, poolIndex, lpszClientAddr);
    return true;
}
