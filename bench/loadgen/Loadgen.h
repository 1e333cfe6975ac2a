/* One measured run: subscribers on "lg/<pid>/#", publishers each on their own topic below it, all on one epoll
 * loop; the counts, latencies and the generator's own CPU time of the run. */
#ifndef LOADGEN_LOADGEN_H
#define LOADGEN_LOADGEN_H

#include "Check.h"

#include <stddef.h>
#include <stdint.h>

/* A deliberate fault in one publisher's stream, for proving that the subscribers' check fails. */
typedef enum
{
    FAULT_NONE,
    FAULT_DROP,
    FAULT_DUPLICATE
} Fault;

typedef struct
{
    int port;
    int publishers;
    int subscribers;
    int qos;
    size_t size;    /* payload bytes, the stamp included */
    uint32_t count; /* messages per publisher */
    int window;     /* messages in flight per publisher */
    int timeout_seconds;
    Fault fault;
} Options;

typedef struct
{
    uint64_t messages;
    uint64_t deliveries;
    double seconds;     /* from the first publication to the last arrival or acknowledgement */
    double cpu_seconds; /* the generator's own, over the same time */
    Latency latency;
} Results;

/* 0 when every message arrived once and in order at every subscriber; otherwise 1, and message
 * says what went wrong. */
int run_load(const Options* options, Results* results, char* message, size_t message_size);

#endif
