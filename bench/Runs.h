// Benchmark runs that more than one group uses.
#pragma once

#include "Workload.h"

#include <benchmark/benchmark.h>

#include <cstddef>

namespace bench {

// The library on one workload: the whole stream given to one client in pieces of pieceSize, every
// packet a piece completes taken, decoded and freed, and the checksum checked.
void RunOneClient(benchmark::State& state, const Workload& workload, size_t pieceSize);

// memcpy of `bytes` bytes between two buffers already in memory: what any copy is set beside.
void RunMemcpy(benchmark::State& state, size_t bytes);

}  // namespace bench
