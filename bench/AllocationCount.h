/* Counts allocations: the benchmark program stands in for malloc, calloc and realloc (the C library's
 * own entry points do the work), so every allocation made by the library, its companions or the
 * benchmark itself is counted on the thread that makes it. free is not touched. */
#ifndef BENCH_ALLOCATIONCOUNT_H
#define BENCH_ALLOCATIONCOUNT_H

#ifdef __cplusplus
extern "C" {
#endif

/* How many allocations the calling thread has made so far. */
unsigned long long BenchAllocationCount(void);

#ifdef __cplusplus
}
#endif

#endif
