/* What the subscribers check and measure: every message once and in order per publisher, and the
 * time from its publication to its arrival. */
#ifndef LOADGEN_CHECK_H
#define LOADGEN_CHECK_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

/* Latencies in buckets of at most 1/64 of their value (64 exact ones below 64 ns, then 64 per
 * power of two), so that a run of any length holds them in a few kilobytes. */
enum
{
    LATENCY_BUCKETS = 64 + 64 * 35
};
typedef struct
{
    uint64_t counts[LATENCY_BUCKETS];
    uint64_t total;
} Latency;

void latency_add(Latency* latency, uint64_t nanoseconds);
/* The latency below which the given fraction of arrivals fall, in microseconds (0 with none). */
double latency_percentile_us(const Latency* latency, double fraction);

/* One arrival of (publisher, sequence) at a subscriber that expects *expected next from that
 * publisher. On success *expected advances; otherwise message says what went wrong. */
bool check_arrival(int subscriber, uint32_t publisher, uint32_t sequence, uint32_t* expected, char* message,
                   size_t message_size);

#endif
