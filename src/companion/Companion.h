// The companion operations the library calls, and what it relies on from each.
#pragma once

// Keel allocator: Keel_OperatorMemory_Malloc(list, count, recordSize) makes a decoded property list,
// an array of `count` pointers to zeroed records, stored through `list`; on failure it returns false
// and leaves *list untouched. The library never frees a list: the caller of a decoder owns it.
#include "Keel_OperatorMemory.h"
