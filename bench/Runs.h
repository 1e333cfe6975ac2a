// Benchmark runs that more than one group uses.
#pragma once

#include "Workload.h"

#include <benchmark/benchmark.h>

#include <cstddef>

namespace bench {

class Meter;

// Records a run over the first `count` packets of a workload in every iteration.
void AccountPackets(benchmark::State& state, const Meter& meter, const Workload& workload, size_t count);

// The library on one workload: the whole stream given to one client in pieces of pieceSize, every
// packet a piece completes taken, decoded and freed, and the checksum checked.
void RunOneClient(benchmark::State& state, const Workload& workload, size_t pieceSize);

// The contract floor with the blocks of each piece of pieceSize alive together, as the library must
// hold them: every packet a piece completes is cut before the host can take the first.
void RunPieceFloor(benchmark::State& state, const Workload& workload, size_t pieceSize);

// memcpy of `bytes` bytes between two buffers already in memory: what any copy is set beside.
void RunMemcpy(benchmark::State& state, size_t bytes);

}  // namespace bench
