// What the receive operations share about the session table: its keys and the shared lookup.
#pragma once

#include "MQTTProtocol.h"

#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>

namespace mqttprotocol {

using SessionTable = std::unordered_map<std::string, TAVRIN_MQTTPARSE*>;

// Makes the table's key for an address, the only allocation a lookup may need, before any lock is
// taken; false means memory ran out.
bool MakeSessionKey(const char* address, std::string& key);

// Takes the table lock for Insert or Delete ahead of Send and Recv calls that come while it waits.
std::unique_lock<std::shared_mutex> LockTableExclusive(std::shared_mutex& tableLock);

// A session found by Send or Recv, with the shared table lock that keeps it in the table until this
// goes out of scope. Declare the session's own lock after it, so that it is released first.
struct SharedSession
{
    std::shared_lock<std::shared_mutex> tableLock;
    TAVRIN_MQTTPARSE* session = nullptr;
};

// Tells the lookups that a table gained or lost a session; called under that table's exclusive lock.
void TableChanged();

// Looks an address up under the shared table lock, taken behind any Insert or Delete waiting for it.
// Fails, holding no lock, with the argument code for a null address, the out-of-memory code when the
// key cannot be made, and the not-found code (also for an address of 128 bytes or more).
bool FindSharedSession(std::shared_mutex& tableLock, const SessionTable& table, const char* address,
                       SharedSession& found);

}  // namespace mqttprotocol
