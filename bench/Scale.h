// What the rows of the scale group share: their group, the pieces and clients they feed, and how
// they count packets over many clients.
#pragma once

#include "Receive.h"
#include "Settings.h"
#include "Table.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <string>
#include <vector>

namespace bench {

inline const std::string kScaleGroup = "scale";
// A TCP segment's payload on an Ethernet link.
constexpr size_t kScalePiece = 1460;
constexpr int kThreadedClients = 100;
// The hidden row every compact row of the group is set beside: malloc, copy and free of the same
// 57-byte bodies.
inline const std::string kScaleCopyFloor = "copy floor";

// "1 client, 1,460-byte pieces" or "<n> clients, interleaved 1,460-byte pieces".
std::string ClientsLabel(int clients);

bool AllInserted(const std::vector<Client>& clients);

// A checksum summed `times` times over.
Checksum Repeated(const Checksum& once, int times);

// Accounts for every client's run through a workload in every iteration; otherAllocations are
// those made on other threads.
void AccountRuns(benchmark::State& state, const Meter& meter, const Workload& workload, int clientCount,
                 double otherAllocations = 0);

// The network thread and worker thread rows, in both body modes, and their two-thread floor.
void RegisterThreads(const Settings& settings);

}  // namespace bench
