/** @file
 * Hopper readiness pool: counts, per client address, the packets ready to be taken, groups the
 * addresses into a fixed number of pool indexes, and lets worker threads sleep until something in
 * their index is ready.
 *
 * Every operation is safe to call from any thread at once and never calls back into its caller.
 * Each returns true on success; on failure it returns false (null for Hopper_TaskPool_CreateEx) and
 * records a code, read with Hopper_GetLastError on the same thread. */
#ifndef HOPPER_TASKPOOL_H
#define HOPPER_TASKPOOL_H

#include <stdbool.h>
#include <stdint.h>

/** Marks what the pool library exports. */
#define HOPPER_API __attribute__((visibility("default")))

/* The pool's failure codes: a block of its own, outside the MQTT protocol library's 0x070B block. */
#define HOPPER_ERR_HANDLE 0x0C0A0001ULL /**< the handle was never made or was already destroyed */
#define HOPPER_ERR_ARGUMENT \
    0x0C0A0002ULL /**< pool count below 1, index out of range, null pointer, or an address of 128 bytes or more */
#define HOPPER_ERR_NOTFOUND 0x0C0A0004ULL  /**< the address is not in that index */
#define HOPPER_ERR_ZERO 0x0C0A0005ULL      /**< decrement of a count that is already zero */
#define HOPPER_ERR_NOTREADY 0x0C0A0006ULL  /**< listing: no address of the index has a count above zero */
#define HOPPER_ERR_TIMEOUT 0x0C0A0007ULL   /**< the wait's time-out ran out */
#define HOPPER_ERR_DESTROYED 0x0C0A0008ULL /**< the pool was destroyed while the caller waited on it */
#define HOPPER_ERR_MALLOC 0x0C0A0009ULL    /**< out of memory */

/** An address is at most 127 characters and its terminator. */
#define HOPPER_ADDRESS_SIZE 128

/** An opaque, pointer-sized pool handle; never dereferenced by anyone, safe to keep after destroy. */
typedef void* HOPPER_HANDLE;

/** One ready client, as Hopper_TaskPool_AddrGetEx lists them. */
typedef struct
{
    char tszClientAddr[HOPPER_ADDRESS_SIZE]; /**< the address, NUL-terminated */
    int nPktCount;                           /**< its ready count, above zero */
} TAVRIN_HOPPER_TASKEVENT;

#ifdef __cplusplus
extern "C" {
#endif

/** Makes a pool of nPoolCount indexes (0 .. nPoolCount - 1). Returns null with HOPPER_ERR_ARGUMENT
 * when nPoolCount is below 1, HOPPER_ERR_MALLOC when memory runs out. */
HOPPER_API HOPPER_HANDLE Hopper_TaskPool_CreateEx(int nPoolCount);

/** Destroys the pool: every thread waiting on it returns false with HOPPER_ERR_DESTROYED, and every
 * later call with the handle fails with HOPPER_ERR_HANDLE. Nothing a waiter still uses is freed under it. */
HOPPER_API bool Hopper_TaskPool_DestoryEx(HOPPER_HANDLE xhPool);

/** Enters an address in the index that holds the fewest addresses (the lowest on a tie) and writes
 * that index through pInt_Index. Each call adds one entry: an address already in the pool stays in its
 * index, gains an entry and keeps its ready count, and that index is written. A host that reconnects
 * a client may so insert it before deleting the old connection; the new connection stays counted. */
HOPPER_API bool Hopper_TaskPool_AddrInsertEx(HOPPER_HANDLE xhPool, const char* lpszClientAddr, int* pInt_Index);

/** Removes one entry of an address of index nIndex, the oldest, with the packets it counted: the ready
 * count drops to zero. The address leaves the pool with its last entry. */
HOPPER_API bool Hopper_TaskPool_AddrDeleteEx(HOPPER_HANDLE xhPool, int nIndex, const char* lpszClientAddr);

/** Raises the ready count of an address of index nIndex by one and wakes that index's waiters. An
 * address has one count, whatever its number of entries; it belongs to the oldest entry. */
HOPPER_API bool Hopper_TaskPool_AddrIncEx(HOPPER_HANDLE xhPool, int nIndex, const char* lpszClientAddr);

/** Lowers the ready count by one. An unknown address (HOPPER_ERR_NOTFOUND) or a count of zero
 * (HOPPER_ERR_ZERO) changes nothing. */
HOPPER_API bool Hopper_TaskPool_AddrDecEx(HOPPER_HANDLE xhPool, int nIndex, const char* lpszClientAddr);

/** Lists the addresses of index nIndex whose count is above zero, each with its count, in the order
 * they were inserted: *pppSt_Event receives an array of *pInt_Count record pointers allocated through
 * Keel_OperatorMemory_Malloc, which the caller releases with
 * Keel_OperatorMemory_Free((void***)pppSt_Event, *pInt_Count). With nothing ready it returns false
 * with HOPPER_ERR_NOTREADY and writes nothing. */
HOPPER_API bool Hopper_TaskPool_AddrGetEx(HOPPER_HANDLE xhPool, int nIndex, TAVRIN_HOPPER_TASKEVENT*** pppSt_Event,
                                          int* pInt_Count);

/** Waits until some address of index nIndex has a count above zero, or an activation of that index is
 * pending; returns true then. nTimeout is in milliseconds: negative waits without limit, 0 tests
 * without waiting. Fails with HOPPER_ERR_TIMEOUT when the time runs out, HOPPER_ERR_DESTROYED when
 * the pool is destroyed meanwhile. */
HOPPER_API bool Hopper_TaskPool_WaitEventEx(HOPPER_HANDLE xhPool, int nIndex, int nTimeout);

/** Activates index nIndex: every thread waiting on it returns true; if none waits, the next wait on
 * that index returns true at once, once. */
HOPPER_API bool Hopper_TaskPool_ActiveEventEx(HOPPER_HANDLE xhPool, int nIndex);

/** Returns the code of the calling thread's last failed pool call (0 if none). If pInt_SysError is not
 * null, stores the thread's errno there. */
HOPPER_API uint64_t Hopper_GetLastError(int* pInt_SysError);

#ifdef __cplusplus
}
#endif

#endif
