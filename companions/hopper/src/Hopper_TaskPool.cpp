// Hopper readiness pool.
//
// Pools live in a registry keyed by ids that are never reused, and a handle is such an id, so a
// stale or made-up handle is refused instead of dereferenced. Each pool index has its own lock and
// condition variable: counting calls for clients of different indexes never contend, and a wait
// wakes only for its own index. Each calling thread holds shared ownership of the pool it used
// last, so destroying a pool never frees what a waiter is still using; a destroyed pool is let go by
// a thread on its next call.
#include "Hopper_TaskPool.h"

#include "PoolState.h"

#include "Keel_OperatorMemory.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>

namespace {

using hopper::Address;
using hopper::AddressEntry;
using hopper::Fail;
using hopper::Pool;
using hopper::PoolIndex;
using hopper::Pools;

// Resolves a handle and an index, recording the failure when either is bad.
PoolIndex* FindIndex(const Pool* pool, int index)
{
    if (pool == nullptr) {
        Fail(HOPPER_ERR_HANDLE);
        return nullptr;
    }
    if (index < 0 || static_cast<size_t>(index) >= pool->indexes.size()) {
        Fail(HOPPER_ERR_ARGUMENT);
        return nullptr;
    }
    return pool->indexes[static_cast<size_t>(index)].get();
}

bool ValidAddress(const char* address)
{
    return address != nullptr && strnlen(address, HOPPER_ADDRESS_SIZE) < HOPPER_ADDRESS_SIZE;
}

int LeastUsedIndex(const Pool& pool)
{
    int chosen = 0;
    for (size_t i = 1; i < pool.addressCounts.size(); i++) {
        if (pool.addressCounts[i] < pool.addressCounts[static_cast<size_t>(chosen)]) {
            chosen = static_cast<int>(i);
        }
    }
    return chosen;
}

// Fills a listing from the ready addresses of an index; called with the index locked.
bool ListReady(const PoolIndex& index, TAVRIN_HOPPER_TASKEVENT*** events, int* count)
{
    const int readyCount = static_cast<int>(index.ready.size());
    if (!Keel_OperatorMemory_Malloc(reinterpret_cast<void***>(events), readyCount,
                                    static_cast<int>(sizeof(TAVRIN_HOPPER_TASKEVENT)))) {
        return Fail(HOPPER_ERR_MALLOC);
    }
    int i = 0;
    for (const auto& [order, entry] : index.ready) {
        TAVRIN_HOPPER_TASKEVENT& event = *(*events)[i++];
        std::memcpy(event.tszClientAddr, entry->first.c_str(), entry->first.size() + 1);
        event.nPktCount = entry->second.readyCount;
    }
    *count = readyCount;
    return true;
}

// Blocks on an index until it is ready, activated, destroyed or the time runs out.
bool WaitOn(Pool& pool, PoolIndex& index, int timeoutMs)
{
    std::unique_lock guard(index.lock);
    const uint64_t activationsAtStart = index.activations;
    auto released = [&] {
        return !index.ready.empty() || index.activationPending || index.activations != activationsAtStart ||
               pool.destroyed.load();
    };
    if (!released() && timeoutMs != 0) {
        index.waiters++;
        if (timeoutMs < 0) {
            index.wakeup.wait(guard, released);
        } else {
            index.wakeup.wait_for(guard, std::chrono::milliseconds(timeoutMs), released);
        }
        index.waiters--;
    }
    if (pool.destroyed.load()) {
        return Fail(HOPPER_ERR_DESTROYED);
    }
    if (!index.ready.empty() || index.activations != activationsAtStart) {
        return true;
    }
    if (index.activationPending) {
        index.activationPending = false;
        return true;
    }
    return Fail(HOPPER_ERR_TIMEOUT);
}

// The entry a thread counted last: a queue's packets are counted up one after another for the same
// address, and down likewise, so the next count usually finds its entry here, without a hash. The
// handle's id is never reused, and an entry stays where it is until an erasure in its index.
struct LastCounted
{
    uintptr_t poolId = 0;
    int indexNumber = -1;
    uint64_t erasures = 0;
    AddressEntry* entry = nullptr;
};
thread_local LastCounted t_LastCounted __attribute__((tls_model("initial-exec")));

// Finds an address's entry in an index that the caller holds locked.
AddressEntry* FindCounted(HOPPER_HANDLE handle, int indexNumber, PoolIndex& index, const char* address)
{
    const auto poolId = reinterpret_cast<uintptr_t>(handle);
    LastCounted& last = t_LastCounted;
    if (last.poolId == poolId && last.indexNumber == indexNumber && last.erasures == index.erasures &&
        std::strcmp(last.entry->first.c_str(), address) == 0) {
        return last.entry;
    }
    const auto found = index.addresses.find(std::string_view(address));
    if (found == index.addresses.end()) {
        return nullptr;
    }
    last = {poolId, indexNumber, index.erasures, &*found};
    return &*found;
}

// Changes the ready count of a known address by +1 or -1, keeping the ready listing in step.
bool AdjustCount(HOPPER_HANDLE handle, int indexNumber, const char* address, int delta)
{
    Pool* pool = Pools().Find(handle);
    PoolIndex* index = FindIndex(pool, indexNumber);
    if (index == nullptr) {
        return false;
    }
    if (address == nullptr) {
        return Fail(HOPPER_ERR_ARGUMENT);
    }
    std::unique_lock guard(index->lock);
    AddressEntry* const found = FindCounted(handle, indexNumber, *index, address);
    if (found == nullptr) {
        return Fail(HOPPER_ERR_NOTFOUND);
    }
    Address& entry = found->second;
    if (entry.readyCount + delta < 0) {
        return Fail(HOPPER_ERR_ZERO);
    }
    if (entry.readyCount == 0) {  // an increment that makes the address ready
        try {
            index->ready.emplace(entry.insertionOrder, found);
        } catch (const std::bad_alloc&) {
            return Fail(HOPPER_ERR_MALLOC);
        }
        // Only a transition to ready can release a waiter; skip the wake-up when nobody waits.
        if (index->waiters > 0) {
            index->wakeup.notify_all();
        }
    }
    entry.readyCount += delta;
    if (entry.readyCount == 0) {
        index->ready.erase(entry.insertionOrder);
    }
    return true;
}

}  // namespace

extern "C" {

HOPPER_HANDLE Hopper_TaskPool_CreateEx(int nPoolCount)
{
    if (nPoolCount < 1) {
        Fail(HOPPER_ERR_ARGUMENT);
        return nullptr;
    }
    try {
        return Pools().Add(std::make_shared<Pool>(nPoolCount));
    } catch (const std::bad_alloc&) {
        Fail(HOPPER_ERR_MALLOC);
        return nullptr;
    }
}

bool Hopper_TaskPool_DestoryEx(HOPPER_HANDLE xhPool)
{
    const auto pool = Pools().Remove(xhPool);
    if (pool == nullptr) {
        return Fail(HOPPER_ERR_HANDLE);
    }
    pool->destroyed.store(true);
    for (auto& index : pool->indexes) {
        // Taking the lock orders the flag before any waiter's check of it.
        std::lock_guard guard(index->lock);
        index->wakeup.notify_all();
    }
    return true;
}

bool Hopper_TaskPool_AddrInsertEx(HOPPER_HANDLE xhPool, const char* lpszClientAddr, int* pInt_Index)
{
    Pool* pool = Pools().Find(xhPool);
    if (pool == nullptr) {
        return Fail(HOPPER_ERR_HANDLE);
    }
    if (!ValidAddress(lpszClientAddr) || pInt_Index == nullptr) {
        return Fail(HOPPER_ERR_ARGUMENT);
    }
    std::lock_guard membershipGuard(pool->membershipLock);
    const auto existing = pool->membership.find(std::string_view(lpszClientAddr));
    if (existing != pool->membership.end()) {
        PoolIndex& index = *pool->indexes[static_cast<size_t>(existing->second)];
        std::lock_guard indexGuard(index.lock);
        index.addresses.find(std::string_view(lpszClientAddr))->second.entries++;
        *pInt_Index = existing->second;
        return true;
    }
    const int chosen = LeastUsedIndex(*pool);
    PoolIndex& index = *pool->indexes[static_cast<size_t>(chosen)];
    std::lock_guard indexGuard(index.lock);
    try {
        index.addresses.emplace(lpszClientAddr, Address{pool->nextInsertionOrder++});
        pool->membership.emplace(lpszClientAddr, chosen);
    } catch (const std::bad_alloc&) {
        index.addresses.erase(lpszClientAddr);
        index.erasures++;
        return Fail(HOPPER_ERR_MALLOC);
    }
    pool->addressCounts[static_cast<size_t>(chosen)]++;
    *pInt_Index = chosen;
    return true;
}

bool Hopper_TaskPool_AddrDeleteEx(HOPPER_HANDLE xhPool, int nIndex, const char* lpszClientAddr)
{
    Pool* pool = Pools().Find(xhPool);
    PoolIndex* index = FindIndex(pool, nIndex);
    if (index == nullptr) {
        return false;
    }
    if (lpszClientAddr == nullptr) {
        return Fail(HOPPER_ERR_ARGUMENT);
    }
    std::lock_guard membershipGuard(pool->membershipLock);
    std::lock_guard indexGuard(index->lock);
    const auto found = index->addresses.find(std::string_view(lpszClientAddr));
    if (found == index->addresses.end()) {
        return Fail(HOPPER_ERR_NOTFOUND);
    }
    Address& address = found->second;
    index->ready.erase(address.insertionOrder);
    address.readyCount = 0;
    if (--address.entries > 0) {
        return true;
    }
    index->addresses.erase(found);
    index->erasures++;
    pool->membership.erase(lpszClientAddr);
    pool->addressCounts[static_cast<size_t>(nIndex)]--;
    return true;
}

bool Hopper_TaskPool_AddrIncEx(HOPPER_HANDLE xhPool, int nIndex, const char* lpszClientAddr)
{
    return AdjustCount(xhPool, nIndex, lpszClientAddr, +1);
}

bool Hopper_TaskPool_AddrDecEx(HOPPER_HANDLE xhPool, int nIndex, const char* lpszClientAddr)
{
    return AdjustCount(xhPool, nIndex, lpszClientAddr, -1);
}

bool Hopper_TaskPool_AddrGetEx(HOPPER_HANDLE xhPool, int nIndex, TAVRIN_HOPPER_TASKEVENT*** pppSt_Event,
                               int* pInt_Count)
{
    Pool* pool = Pools().Find(xhPool);
    PoolIndex* index = FindIndex(pool, nIndex);
    if (index == nullptr) {
        return false;
    }
    if (pppSt_Event == nullptr || pInt_Count == nullptr) {
        return Fail(HOPPER_ERR_ARGUMENT);
    }
    std::lock_guard guard(index->lock);
    if (index->ready.empty()) {
        return Fail(HOPPER_ERR_NOTREADY);
    }
    return ListReady(*index, pppSt_Event, pInt_Count);
}

bool Hopper_TaskPool_WaitEventEx(HOPPER_HANDLE xhPool, int nIndex, int nTimeout)
{
    Pool* pool = Pools().Find(xhPool);
    PoolIndex* index = FindIndex(pool, nIndex);
    if (index == nullptr) {
        return false;
    }
    return WaitOn(*pool, *index, nTimeout);
}

bool Hopper_TaskPool_ActiveEventEx(HOPPER_HANDLE xhPool, int nIndex)
{
    Pool* pool = Pools().Find(xhPool);
    PoolIndex* index = FindIndex(pool, nIndex);
    if (index == nullptr) {
        return false;
    }
    std::lock_guard guard(index->lock);
    if (index->waiters > 0) {
        index->activations++;
        index->wakeup.notify_all();
    } else {
        index->activationPending = true;
    }
    return true;
}

uint64_t Hopper_GetLastError(int* pInt_SysError)
{
    if (pInt_SysError != nullptr) {
        *pInt_SysError = errno;
    }
    return hopper::LastError();
}

}  // extern "C"
