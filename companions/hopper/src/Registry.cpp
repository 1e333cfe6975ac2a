// The registry of live pools, and each thread's failure code and last pool.
#include "PoolState.h"

namespace hopper {

namespace {

thread_local uint64_t t_LastError __attribute__((tls_model("initial-exec"))) = 0;

// The reference behind t_LastPool.
thread_local std::shared_ptr<Pool> t_LastPoolHeld;

}  // namespace

thread_local uintptr_t t_LastPoolId = 0;
thread_local Pool* t_LastPool = nullptr;

bool Fail(uint64_t code)
{
    t_LastError = code;
    return false;
}

uint64_t LastError() { return t_LastError; }

HOPPER_HANDLE Registry::Add(std::shared_ptr<Pool> pool)
{
    std::unique_lock guard(m_Lock);
    const uintptr_t id = ++m_LastId;
    m_Pools.emplace(id, std::move(pool));
    return reinterpret_cast<HOPPER_HANDLE>(id);
}

Pool* Registry::FindAgain(uintptr_t id)
{
    // Destroying a pool takes it out of the registry first, so what is found here is live.
    std::shared_ptr<Pool> found = Lookup(id);
    t_LastPoolId = id;
    t_LastPool = found.get();
    t_LastPoolHeld = std::move(found);  // the pool held before is let go outside the lock
    return t_LastPool;
}

std::shared_ptr<Pool> Registry::Remove(HOPPER_HANDLE handle)
{
    std::unique_lock guard(m_Lock);
    const auto found = m_Pools.find(reinterpret_cast<uintptr_t>(handle));
    if (found == m_Pools.end()) {
        return nullptr;
    }
    auto pool = std::move(found->second);
    m_Pools.erase(found);
    return pool;
}

std::shared_ptr<Pool> Registry::Lookup(uintptr_t id)
{
    std::shared_lock guard(m_Lock);
    const auto found = m_Pools.find(id);
    return found == m_Pools.end() ? nullptr : found->second;
}

Registry& Pools()
{
    static Registry registry;
    return registry;
}

}  // namespace hopper
