/* Keel allocator: arrays of zeroed records.
 *
 * A record list is an array of `count` pointers, each pointing at its own zero-filled record of
 * `recordSize` bytes, aligned for any type. The array and its records are one allocation, so a list
 * costs one allocation and one free whatever its length: release it only with Keel_OperatorMemory_Free,
 * never a record on its own. The MQTT protocol library hands decoded property lists out in this shape;
 * whoever receives such a list releases it with Keel_OperatorMemory_Free.
 * Both calls are thread-safe (they use only the C library's allocator). */
#ifndef KEEL_OPERATORMEMORY_H
#define KEEL_OPERATORMEMORY_H

#include <stdbool.h>

#define KEEL_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* Allocates an array of `count` pointers, each to its own zeroed record of `recordSize` bytes,
 * and stores the array's address through `list`.
 * Returns false, and leaves *list untouched, when `list` is null, `count` or `recordSize` is below 1,
 * or memory runs out (nothing stays allocated then). */
KEEL_API bool Keel_OperatorMemory_Malloc(void*** list, int count, int recordSize);

/* Frees the array and all its records, then sets *list to null. `count` is the list's length as the
 * caller knows it; the whole list is freed whatever it says. A null `list` or a null *list is
 * accepted and does nothing. The caller guarantees that *list came from Keel_OperatorMemory_Malloc. */
KEEL_API void Keel_OperatorMemory_Free(void*** list, int count);

#ifdef __cplusplus
}
#endif

#endif
