// The pool's state, shared by its operations (Hopper_TaskPool.cpp) and its registry (Registry.cpp).
#pragma once

#include "Hopper_TaskPool.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace hopper {

// Records the calling thread's failure code and returns false.
bool Fail(uint64_t code);
// The calling thread's last failure code.
uint64_t LastError();

// An address may be entered more than once: a host that reconnects a client can insert it again
// before the old connection's delete. Each insertion is an entry; the count belongs to the oldest,
// which the next delete removes with the packets it counted, so a later entry starts from zero.
struct Address
{
    uint64_t insertionOrder;
    int entries = 1;
    int readyCount = 0;
};

// Address tables are searched with the caller's string as it is: no key is built, so a lookup never
// allocates, however long the address.
struct AddressHash
{
    using is_transparent = void;
    size_t operator()(std::string_view address) const noexcept { return std::hash<std::string_view>{}(address); }
};
template <typename Value>
using AddressTable = std::unordered_map<std::string, Value, AddressHash, std::equal_to<>>;
using AddressEntry = AddressTable<Address>::value_type;

// One index: its addresses with their counts, and the ready ones in insertion order for listing.
struct PoolIndex
{
    std::mutex lock;
    std::condition_variable wakeup;
    AddressTable<Address> addresses;
    // Insertion order -> the address's entry (entries stay put until erased), counts above zero only.
    std::map<uint64_t, const AddressEntry*> ready;
    int waiters = 0;
    uint64_t erasures = 0;           // addresses erased so far: a remembered entry is valid while unchanged
    uint64_t activations = 0;        // bumped to release the threads waiting now
    bool activationPending = false;  // an activation with no waiter, for the next wait
};

struct Pool
{
    explicit Pool(int indexCount)
        : indexes(static_cast<size_t>(indexCount)), addressCounts(static_cast<size_t>(indexCount), 0)
    {
        for (auto& index : indexes) {
            index = std::make_unique<PoolIndex>();
        }
    }

    std::vector<std::unique_ptr<PoolIndex>> indexes;
    std::atomic<bool> destroyed{false};

    // Which index holds each address, and how many each index holds; membershipLock guards these
    // three and is taken before an index's lock.
    std::mutex membershipLock;
    AddressTable<int> membership;
    std::vector<int> addressCounts;
    uint64_t nextInsertionOrder = 0;
};

// The pool a thread used last, held by that thread (Registry.cpp): calls nearly always come for the
// same pool, and finding it again then takes no lock and no reference count. The id and the pointer
// are plain values, read without any thread-exit bookkeeping; the reference that keeps the pool alive
// for the length of a call is touched only when the pool changes.
extern thread_local uintptr_t t_LastPoolId __attribute__((tls_model("initial-exec")));
extern thread_local Pool* t_LastPool __attribute__((tls_model("initial-exec")));

// Every live pool by the id its handle carries; ids are never reused.
class Registry
{
public:
    HOPPER_HANDLE Add(std::shared_ptr<Pool> pool);
    // The pool of a live handle, valid until this thread's next Find; null for any other handle.
    // Inline, as every call of the pool begins with it: most find the pool the thread used last.
    Pool* Find(HOPPER_HANDLE handle)
    {
        const auto id = reinterpret_cast<uintptr_t>(handle);
        Pool* pool = t_LastPoolId == id ? t_LastPool : nullptr;
        return pool != nullptr && !pool->destroyed.load() ? pool : FindAgain(id);
    }
    std::shared_ptr<Pool> Remove(HOPPER_HANDLE handle);

private:
    Pool* FindAgain(uintptr_t id);
    std::shared_ptr<Pool> Lookup(uintptr_t id);

    std::shared_mutex m_Lock;
    std::unordered_map<uintptr_t, std::shared_ptr<Pool>> m_Pools;
    uintptr_t m_LastId = 0;
};

Registry& Pools();

}  // namespace hopper
