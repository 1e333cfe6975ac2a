// The reporting protocol every operation follows: clear the flag on entry; on failure set the flag,
// then the code, and return false.
#pragma once

#include "MQTTProtocol.h"

#include <atomic>
#include <cstdint>

namespace mqttprotocol {

// The globals are shared by all threads without a lock, as hosts expect to read them directly.
// Relaxed atomic accesses keep the plain bool and uint64_t layout hosts see while making concurrent
// calls well-defined for the library itself.
inline void ClearError() { std::atomic_ref<bool>(MQTTProtocol_IsErrorOccur).store(false, std::memory_order_relaxed); }

inline bool Fail(uint64_t code)
{
    std::atomic_ref<bool>(MQTTProtocol_IsErrorOccur).store(true, std::memory_order_relaxed);
    std::atomic_ref<uint64_t>(MQTTProtocol_dwErrorCode).store(code, std::memory_order_relaxed);
    return false;
}

inline uint64_t LastErrorCode()
{
    return std::atomic_ref<uint64_t>(MQTTProtocol_dwErrorCode).load(std::memory_order_relaxed);
}

}  // namespace mqttprotocol
