// The companion operations the library calls, and what it relies on from each.
#pragma once

// Keel allocator: Keel_OperatorMemory_Malloc(list, count, recordSize) makes a decoded property list,
// an array of `count` pointers to zeroed records, stored through `list`; on failure it returns false
// and leaves *list untouched. The library never frees a list: the caller of a decoder owns it.
#include "Keel_OperatorMemory.h"

// Hopper readiness pool, called by the receive side:
// - Hopper_TaskPool_CreateEx / Hopper_TaskPool_DestoryEx make and end the pool (Init, Destory); a
//   destroyed or never-made handle is refused, never dereferenced, so the stale handle kept after
//   Destory is harmless.
// - Hopper_TaskPool_AddrInsertEx writes the client's pool index through its pointer before it returns
//   and adds an entry for the address each time, also for an address it already holds (Insert);
//   Hopper_TaskPool_AddrDeleteEx removes one entry and the count (Delete). So a reconnect whose
//   Insert enters the pool before the old session's Delete leaves the new session counted.
// - Hopper_TaskPool_AddrIncEx / Hopper_TaskPool_AddrDecEx count one packet up when it is queued and
//   down when it is handed out. They are called with the table lock and a session lock held (Inc) or
//   none (Dec), so the pool takes only its own locks and never calls back into the library.
// - Hopper_TaskPool_AddrGetEx, Hopper_TaskPool_WaitEventEx and Hopper_TaskPool_ActiveEventEx are
//   passed through for the host; a wait is never made under a lock of the library.
// - Hopper_GetLastError(nullptr) gives the code of the calling thread's last failed pool call, stored
//   as the library's code unchanged. Results of the four counting calls are not looked at: a session
//   works without its pool entry.
#include "Hopper_TaskPool.h"
