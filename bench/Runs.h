// Benchmark runs that more than one group uses.
#pragma once

#include "Workload.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

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

// What a baseline does with one packet's body; false when memory ran out.
using PerPacket = bool (*)(const char* body, uint32_t length);

// A baseline over the first `count` packets of a workload: perPacket on each body.
void RunBaseline(benchmark::State& state, const Workload& workload, size_t count, PerPacket perPacket);

// Copies a body into a block just allocated, then frees the block; false when there was none.
bool FillAndFree(char* block, const char* body, uint32_t length);

// The copy floor, per packet: malloc as many bytes as the body, copy it, free them.
bool CopyFloor(const char* body, uint32_t length);

using RunOfRow = std::function<void(benchmark::State&)>;

// The label of the library's row on a workload in a body mode: "library, block mode" or
// "library, compact mode".
std::string LibraryLabel(int bodyMode);
// Any row's label with the body mode it runs in: "<label>, compact mode".
std::string InModeLabel(const std::string& label, int bodyMode);

// A row's run in a body mode (MQTTPROTOCOL_BODY_BLOCK or MQTTPROTOCOL_BODY_COMPACT). The mode is the
// whole process's: each run sets it first and puts block mode back after, so that whatever order
// the rows run in, no row runs in a mode another left behind.
RunOfRow InBodyMode(int bodyMode, RunOfRow run);

// memcpy of `bytes` bytes between two buffers already in memory: what any copy is set beside.
void RunMemcpy(benchmark::State& state, size_t bytes);

}  // namespace bench
