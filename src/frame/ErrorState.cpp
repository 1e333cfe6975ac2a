#include "frame/ErrorState.h"

#include <cerrno>

bool MQTTProtocol_IsErrorOccur = false;
uint64_t MQTTProtocol_dwErrorCode = 0;

extern "C" uint64_t MQTTProtocol_GetLastError(int* pInt_SysError)
{
    if (pInt_SysError != nullptr) {
        *pInt_SysError = errno;
    }
    return mqttprotocol::LastErrorCode();
}
