/* Keel allocator: arrays of individually allocated, zeroed records.
 *
 * A record list is an array of `count` pointers, each pointing at its own zero-filled record of
 * `recordSize` bytes. The MQTT protocol library hands decoded property lists out in this shape;
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

/* Frees the first `count` records of *list and the array itself, then sets *list to null.
 * A null `list` or a null *list is accepted and does nothing. The caller guarantees that *list
 * came from Keel_OperatorMemory_Malloc and that `count` does not exceed the count it was made with. */
KEEL_API void Keel_OperatorMemory_Free(void*** list, int count);

#ifdef __cplusplus
}
#endif

#endif
