// The readiness pool: made and ended here, and three of its operations passed through to the host.
#include "companion/Companion.h"
#include "frame/ErrorState.h"

namespace {

// A pool call's result as the library reports it: a refusal carries the pool's own code, unchanged.
bool PoolResult(bool succeeded) { return succeeded || mqttprotocol::Fail(Hopper_GetLastError(nullptr)); }

}  // namespace

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_Init(int nPoolCount)
{
    mqttprotocol::ClearError();
    // Stored whatever it is: a failed creation leaves no handle, a second one replaces the first.
    hPool = Hopper_TaskPool_CreateEx(nPoolCount);
    return PoolResult(hPool != nullptr);
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_Destory()
{
    mqttprotocol::ClearError();
    // The handle is kept: the pool refuses it from now on, and the sessions are not touched.
    Hopper_TaskPool_DestoryEx(hPool);
    return true;
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_GetPool(int nPoolIndex, TAVRIN_HOPPER_TASKEVENT*** pppSt_ListClient,
                                                     int* pInt_ListCount)
{
    mqttprotocol::ClearError();
    return PoolResult(Hopper_TaskPool_AddrGetEx(hPool, nPoolIndex, pppSt_ListClient, pInt_ListCount));
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_WaitEvent(int nPoolIndex, int nTimeout)
{
    mqttprotocol::ClearError();
    return PoolResult(Hopper_TaskPool_WaitEventEx(hPool, nPoolIndex, nTimeout));
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_ActiveEvent(int nPoolIndex)
{
    mqttprotocol::ClearError();
    return PoolResult(Hopper_TaskPool_ActiveEventEx(hPool, nPoolIndex));
}
