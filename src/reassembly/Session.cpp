// The session table: opening and closing one client's receive session.
#include "companion/Companion.h"
#include "frame/ErrorState.h"
#include "reassembly/SessionTable.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

namespace {

constexpr size_t kAddressCapacity = sizeof(TAVRIN_MQTTPARSE::tszClientAddr);

// glibc's reader/writer lock lets new readers in while a writer waits, so threads that loop on Send
// and Recv would keep Insert and Delete out for as long as they loop. A writer therefore announces
// itself and holds a turnstile while it waits for the table; readers that come meanwhile pass the
// turnstile first and so queue behind it, and the writer waits only for the readers already inside.
// With no writer waiting, a reader pays one atomic load. One turnstile serves every table of the
// process: a writer of one holds back the readers of another only while it waits.
struct WriterTurnstile
{
    std::atomic<int> waiting{0};
    std::mutex gate;
};
WriterTurnstile g_Turnstile;

// Counts the changes of every session table; a lookup remembered under one count is still right
// under the same count. Changed only under a table's exclusive lock, read under its shared lock.
std::atomic<uint64_t> g_TableChanges{0};

// The last address a thread found, and where: Send and Recv mostly ask again for the one they asked
// for last, and then neither hash nor key string is needed.
struct LastLookup
{
    const mqttprotocol::SessionTable* table = nullptr;
    uint64_t changes = 0;
    TAVRIN_MQTTPARSE* session = nullptr;
    size_t length = 0;
    char address[kAddressCapacity] = {};
};
thread_local LastLookup t_LastLookup __attribute__((tls_model("initial-exec")));

bool IsLastLookup(const LastLookup& last, const mqttprotocol::SessionTable& table, const char* address, size_t length)
{
    return last.table == &table && last.changes == g_TableChanges.load(std::memory_order_relaxed) &&
           last.length == length && std::memcmp(last.address, address, length) == 0;
}

}  // namespace

namespace mqttprotocol {

std::unique_lock<std::shared_mutex> LockTableExclusive(std::shared_mutex& tableLock)
{
    g_Turnstile.waiting.fetch_add(1);
    std::lock_guard gate(g_Turnstile.gate);
    std::unique_lock lock(tableLock);
    g_Turnstile.waiting.fetch_sub(1);
    return lock;
}

bool MakeSessionKey(const char* address, std::string& key)
{
    try {
        key.assign(address);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void TableChanged() { g_TableChanges.fetch_add(1, std::memory_order_relaxed); }

bool FindSharedSession(std::shared_mutex& tableLock, const SessionTable& table, const char* address,
                       SharedSession& found)
{
    if (address == nullptr) {
        return Fail(MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    }
    // Insert takes no address this long, so no table holds one.
    const size_t length = strnlen(address, kAddressCapacity);
    if (length == kAddressCapacity) {
        return Fail(MQTTPROTOCOL_ERR_PARSE_NOTFOUND);
    }
    if (g_Turnstile.waiting.load() > 0) {
        std::lock_guard pass(g_Turnstile.gate);
    }
    std::shared_lock lock(tableLock);
    LastLookup& last = t_LastLookup;
    if (!IsLastLookup(last, table, address, length)) {
        // The table is keyed by strings, so a lookup needs one. Each thread keeps its own and reuses
        // its storage: it allocates only for an address longer than any it looked up before.
        thread_local std::string key;
        if (!MakeSessionKey(address, key)) {
            return Fail(MQTTPROTOCOL_ERR_PARSE_MALLOC);
        }
        const auto entry = table.find(key);
        if (entry == table.end()) {
            return Fail(MQTTPROTOCOL_ERR_PARSE_NOTFOUND);
        }
        last = {&table, g_TableChanges.load(std::memory_order_relaxed), entry->second, length, {}};
        std::memcpy(last.address, address, length);
    }
    found.tableLock = std::move(lock);
    found.session = last.session;
    return true;
}

}  // namespace mqttprotocol

namespace {

// Frees what the records of a queue hold (bodies, buffers of packets still arriving) and drops them.
void DropQueued(std::list<MQTTPROTOCOL_MSGBUFFER>& queue)
{
    for (MQTTPROTOCOL_MSGBUFFER& record : queue) {
        std::free(record.ptszMsgBuffer);
        record.ptszMsgBuffer = nullptr;
    }
    queue.clear();
}

}  // namespace

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_Insert(const char* lpszClientAddr)
{
    mqttprotocol::ClearError();
    if (lpszClientAddr == nullptr || strnlen(lpszClientAddr, kAddressCapacity) >= kAddressCapacity) {
        return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PARSE_ARGUMENT);
    }
    // Value-initialised: address all zero, index 0, no lock or queue yet.
    TAVRIN_MQTTPARSE* session = new (std::nothrow) TAVRIN_MQTTPARSE();
    if (session == nullptr) {
        return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PARSE_MALLOC);
    }
    std::strcpy(session->tszClientAddr, lpszClientAddr);
    session->pSt_Locker.reset(new (std::nothrow) std::mutex());
    session->pStl_ListPacket.reset(new (std::nothrow) std::list<MQTTPROTOCOL_MSGBUFFER>());
    std::string key;
    if (session->pSt_Locker == nullptr || session->pStl_ListPacket == nullptr ||
        !mqttprotocol::MakeSessionKey(lpszClientAddr, key)) {
        delete session;
        return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PARSE_MALLOC);
    }
    // The pool writes the index into the record before the record becomes visible to other threads.
    Hopper_TaskPool_AddrInsertEx(hPool, lpszClientAddr, &session->nPoolIndex);

    const auto tableLock = mqttprotocol::LockTableExclusive(st_Locker);
    try {
        // An address already present keeps its first session; this record then stays allocated and
        // unreachable. That is the library's behaviour: Insert does not look the address up first.
        stl_MapClient.emplace(std::move(key), session);
        mqttprotocol::TableChanged();
    } catch (const std::bad_alloc&) {
        delete session;
        return mqttprotocol::Fail(MQTTPROTOCOL_ERR_PARSE_MALLOC);
    }
    return true;
}

bool CMQTTProtocol_Parse::MQTTProtocol_Parse_Delete(const char* lpszClientAddr)
{
    mqttprotocol::ClearError();
    std::string key;
    if (lpszClientAddr == nullptr) {
        return true;
    }
    if (!mqttprotocol::MakeSessionKey(lpszClientAddr, key)) {
        mqttprotocol::Fail(MQTTPROTOCOL_ERR_PARSE_MALLOC);
        return true;
    }
    const auto tableLock = mqttprotocol::LockTableExclusive(st_Locker);
    const auto entry = stl_MapClient.find(key);
    if (entry == stl_MapClient.end()) {
        return true;
    }
    TAVRIN_MQTTPARSE& session = *entry->second;
    {
        std::lock_guard sessionLock(*session.pSt_Locker);
        DropQueued(*session.pStl_ListPacket);
        Hopper_TaskPool_AddrDeleteEx(hPool, session.nPoolIndex, lpszClientAddr);
    }
    // Only the table's pointer goes: the record, its lock and its empty queue stay allocated. That is
    // the library's behaviour, kept on purpose.
    stl_MapClient.erase(entry);
    mqttprotocol::TableChanged();
    return true;
}
