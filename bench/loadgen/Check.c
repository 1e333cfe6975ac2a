#include "Check.h"

#include <stdio.h>

enum
{
    EXACT = 64,
    SUB_BITS = 6
};

static unsigned bucket_of(uint64_t nanoseconds)
{
    if (nanoseconds < EXACT) {
        return (unsigned)nanoseconds;
    }
    unsigned power = 63U - (unsigned)__builtin_clzll(nanoseconds); /* at least SUB_BITS */
    unsigned bucket = EXACT + (power - SUB_BITS) * EXACT + (unsigned)(nanoseconds >> (power - SUB_BITS)) % EXACT;
    return bucket < LATENCY_BUCKETS ? bucket : LATENCY_BUCKETS - 1;
}

/* The middle of a bucket's range. */
static double bucket_value(unsigned bucket)
{
    if (bucket < EXACT) {
        return bucket;
    }
    unsigned power = (bucket - EXACT) / EXACT + SUB_BITS;
    double width = (double)(1ULL << (power - SUB_BITS));
    return (double)(EXACT + (bucket - EXACT) % EXACT) * width + width / 2;
}

void latency_add(Latency* latency, uint64_t nanoseconds)
{
    latency->counts[bucket_of(nanoseconds)]++;
    latency->total++;
}

double latency_percentile_us(const Latency* latency, double fraction)
{
    uint64_t rank = (uint64_t)(fraction * (double)latency->total + 0.5);
    uint64_t seen = 0;
    for (unsigned bucket = 0; bucket < LATENCY_BUCKETS; bucket++) {
        seen += latency->counts[bucket];
        if (seen >= rank && seen > 0) {
            return bucket_value(bucket) / 1000;
        }
    }
    return 0;
}

bool check_arrival(int subscriber, uint32_t publisher, uint32_t sequence, uint32_t* expected, char* message,
                   size_t message_size)
{
    if (sequence == *expected) {
        (*expected)++;
        return true;
    }
    if (sequence < *expected) {
        snprintf(message, message_size,
                 "subscriber %d: message %u of publisher %u arrived again, or out of order (next expected: %u)",
                 subscriber, sequence, publisher, *expected);
    } else {
        snprintf(message, message_size,
                 "subscriber %d: message %u of publisher %u is missing, or out of order (message %u came first)",
                 subscriber, *expected, publisher, sequence);
    }
    return false;
}
