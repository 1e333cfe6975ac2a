#include "AllocationCount.h"

#include <stdlib.h>

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);

/* The stand-ins must be in the program's dynamic symbol table, where the shared libraries' calls
 * find them before the C library's, whatever the build's default visibility. */
#define BENCH_EXPORTED __attribute__((visibility("default")))

/* Per thread, so that counting costs no shared cache line between the threads of a benchmark. */
static _Thread_local unsigned long long t_Allocations;

unsigned long long BenchAllocationCount(void) { return t_Allocations; }

BENCH_EXPORTED void* malloc(size_t size)
{
    t_Allocations++;
    return __libc_malloc(size);
}

BENCH_EXPORTED void* calloc(size_t count, size_t size)
{
    t_Allocations++;
    return __libc_calloc(count, size);
}

BENCH_EXPORTED void* realloc(void* block, size_t size)
{
    t_Allocations++;
    return __libc_realloc(block, size);
}
