// How the receive path scales: many clients with interleaved pieces, one packet as large as a block
// allows, each in both body modes; a burst of PINGREQs in one call; and the pool's own count of a
// packet with nobody waiting. The network thread and worker thread rows are in ThreadsBench.cpp.
#include "Runs.h"
#include "Scale.h"

#include <MQTTProtocol.h>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

namespace bench {

namespace {

// Every client gets at least two pieces, so that each holds a packet still arriving between its turns.
constexpr int kMinPacketsPerClient = 26;
constexpr int kManyClients = 10000;
constexpr uint32_t kLargeWireLength = MQTTPROTOCOL_PACKET_BLOCK_SIZE - 16;
constexpr int kBurstPingreqs = 50000;
constexpr double kFlatLimit = 1.15;
constexpr double kLargeBlockMegabytes = 1000;
constexpr double kLargeCompactMegabytes = 1500;

}  // namespace

std::string ClientsLabel(int clients)
{
    if (clients == kManyClients) {
        return "10,000 clients, interleaved 1,460-byte pieces";
    }
    return clients == 1 ? "1 client, 1,460-byte pieces"
                        : std::to_string(clients) + " clients, interleaved 1,460-byte pieces";
}

bool AllInserted(const std::vector<Client>& clients)
{
    return std::all_of(clients.begin(), clients.end(), [](const Client& client) { return client.Inserted(); });
}

Checksum Repeated(const Checksum& once, int times)
{
    Checksum total;
    for (int i = 0; i < times; i++) {
        total += once;
    }
    return total;
}

void AccountRuns(benchmark::State& state, const Meter& meter, const Workload& workload, int clientCount,
                 double otherAllocations)
{
    const auto runs = static_cast<double>(state.iterations()) * clientCount;
    meter.Account(state, runs * static_cast<double>(workload.packets.size()),
                  runs * WireBytes(workload, workload.packets.size()), otherAllocations);
}

namespace {

// Each round gives every client its next piece, and takes what that piece completes.
void RunInterleaved(benchmark::State& state, int clientCount, int packetsPerClient)
{
    const Workload& workload = StreamOf(StreamKind::SmallQos1, packetsPerClient);
    std::vector<Client> clients(static_cast<size_t>(clientCount));
    Receiver receiver(LongestBody(workload));
    const size_t size = workload.stream.size();
    if (!AllInserted(clients)) {
        state.SkipWithError("a session could not be inserted");
    }
    const Meter meter;
    for (auto _ : state) {
        bool fed = true;
        for (size_t at = 0; at < size; at += kScalePiece) {
            for (const Client& client : clients) {
                fed &= FeedPieces(client.Address(), workload.stream, at, std::min(at + kScalePiece, size), kScalePiece,
                                  receiver);
            }
        }
        if (!fed || !(receiver.TakeSum() == Repeated(workload.expected, clientCount))) {
            state.SkipWithError("a piece was refused or the checksum does not match");
        }
    }
    AccountRuns(state, meter, workload, clientCount);
}

// The pool's count of one packet, up and down, with no thread waiting on its index.
void RunPoolCount(benchmark::State& state)
{
    const HOPPER_HANDLE pool = Hopper_TaskPool_CreateEx(1);
    int index = -1;
    if (pool == nullptr || !Hopper_TaskPool_AddrInsertEx(pool, "bench-pool-client", &index)) {
        state.SkipWithError("the pool could not be made");
    }
    const Meter meter;
    for (auto _ : state) {
        Hopper_TaskPool_AddrIncEx(pool, index, "bench-pool-client");
        Hopper_TaskPool_AddrDecEx(pool, index, "bench-pool-client");
    }
    meter.Account(state, static_cast<double>(state.iterations()), 0);
    Hopper_TaskPool_DestoryEx(pool);
}

// What one wake-up costs at least: a futex wake system call, here with nobody to wake.
void RunFutexWake(benchmark::State& state)
{
    int word = 0;
    const Meter meter;
    for (auto _ : state) {
        syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
    meter.Account(state, static_cast<double>(state.iterations()), 0);
}

Row ClientsRow(int clients, int bodyMode)
{
    const auto keyOf = [clients](int mode) { return KeyOf(kScaleGroup, InModeLabel(ClientsLabel(clients), mode)); };
    const std::string oneClientKey = KeyOf(kScaleGroup, InModeLabel(ClientsLabel(1), bodyMode));
    Row row{kScaleGroup, InModeLabel(ClientsLabel(clients), bodyMode)};
    if (bodyMode == MQTTPROTOCOL_BODY_COMPACT) {
        row.comparisons = {{KeyOf(kScaleGroup, kScaleCopyFloor)},
                           {keyOf(MQTTPROTOCOL_BODY_BLOCK), Comparison::Style::FasterThan}};
    }
    if (clients > 1) {
        row.comparisons.push_back({oneClientKey});
        row.targets = {AtMostTimes("flat: ≤ 1.15× 1 client", keyOf(bodyMode), oneClientKey, kFlatLimit)};
    }
    return row;
}

void RegisterClients(const Settings& settings)
{
    for (const int clients : {1, 100, kManyClients}) {
        const int perClient = std::max(kMinPacketsPerClient, settings.scalePackets / clients);
        const auto interleaved = [clients, perClient](benchmark::State& state) {
            RunInterleaved(state, clients, perClient);
        };
        // A compact run lasts milliseconds where a block run lasts seconds: it takes as many
        // repetitions as the workloads' rows, so that its median stays clear of the machine's slow spells.
        AddRow(ClientsRow(clients, MQTTPROTOCOL_BODY_BLOCK), interleaved)
            ->Iterations(1)
            ->Repetitions(settings.scaleRepetitions)
            ->UseRealTime();
        AddRow(ClientsRow(clients, MQTTPROTOCOL_BODY_COMPACT), InBodyMode(MQTTPROTOCOL_BODY_COMPACT, interleaved))
            ->Iterations(1)
            ->Repetitions(settings.repetitions)
            ->UseRealTime();
    }
    // What every compact row of the group is set beside: the same bodies, each copied into a malloc
    // block of its own size and freed.
    AddRow({kScaleGroup, kScaleCopyFloor, false},
           [packets = settings.scalePackets](benchmark::State& state) {
               RunBaseline(state, StreamOf(StreamKind::SmallQos1, packets), static_cast<size_t>(packets), CopyFloor);
           })
        ->Iterations(1)
        ->Repetitions(settings.repetitions)
        ->UseRealTime();
}

Target AtLeastMegabytes(const std::string& text, double megabytesPerSecond)
{
    return {text, [megabytesPerSecond](const Measured& self, const Results&) {
                return self.megabytesPerSecond >= megabytesPerSecond;
            }};
}

void RegisterLargePublish(const Settings& settings)
{
    static const Workload large = OneLargePublish(kLargeWireLength);
    const std::string label = "one 10 MiB − 16-byte PUBLISH in 1,460-byte pieces";
    const std::string memcpyLabel = "memcpy of the same 10 MiB − 16 bytes";
    const std::string copyFloorLabel = "copy floor of the same 10 MiB − 21-byte body";
    const std::string blockKey = KeyOf(kScaleGroup, InModeLabel(label, MQTTPROTOCOL_BODY_BLOCK));
    Row block{kScaleGroup, InModeLabel(label, MQTTPROTOCOL_BODY_BLOCK)};
    block.comparisons = {{KeyOf(kScaleGroup, memcpyLabel)}};
    block.targets = {AtLeastMegabytes("≥ 1 GB/s", kLargeBlockMegabytes)};
    Row compact{kScaleGroup, InModeLabel(label, MQTTPROTOCOL_BODY_COMPACT)};
    compact.comparisons = {{KeyOf(kScaleGroup, copyFloorLabel)},
                           {blockKey, Comparison::Style::FasterThan},
                           {KeyOf(kScaleGroup, memcpyLabel)}};
    compact.targets = {AtLeastMegabytes("≥ 1.5 GB/s", kLargeCompactMegabytes)};
    const auto receive = [](benchmark::State& state) { RunOneClient(state, large, kScalePiece); };
    const std::vector<benchmark::internal::Benchmark*> registered = {
        AddRow(block, receive),
        AddRow(compact, InBodyMode(MQTTPROTOCOL_BODY_COMPACT, receive)),
        AddRow({kScaleGroup, copyFloorLabel}, [](benchmark::State& state) { RunBaseline(state, large, 1, CopyFloor); }),
        AddRow({kScaleGroup, memcpyLabel}, [](benchmark::State& state) { RunMemcpy(state, kLargeWireLength); }),
    };
    for (benchmark::internal::Benchmark* benchmark : registered) {
        benchmark->Iterations(settings.largePublishes)->Repetitions(settings.repetitions)->UseRealTime();
    }
}

void RegisterBurst(const Settings& settings)
{
    static const Workload burst = PingreqBurst(kBurstPingreqs);
    const std::string floorLabel = "contract floor, 50,000 blocks held together";
    Row row{kScaleGroup, "50,000 PINGREQs in one call"};
    row.comparisons = {{KeyOf(kScaleGroup, floorLabel)}, {KeyOf("W4", "contract floor")}};
    const std::vector<benchmark::internal::Benchmark*> registered = {
        AddRow(row, [](benchmark::State& state) { RunOneClient(state, burst, burst.stream.size()); }),
        AddRow({kScaleGroup, floorLabel},
               [](benchmark::State& state) { RunPieceFloor(state, burst, burst.stream.size()); }),
    };
    for (benchmark::internal::Benchmark* benchmark : registered) {
        benchmark->Iterations(1)->Repetitions(settings.burstRepetitions)->UseRealTime();
    }
}

void RegisterPool(const Settings& settings)
{
    const std::string futexLabel = "one futex wake system call";
    Row row{kScaleGroup, "pool: a packet counted up and down, no worker waiting"};
    row.comparisons = {{KeyOf(kScaleGroup, futexLabel)}};
    row.targets = {{"no wake-up: cheaper than one wake call", [futexLabel](const Measured& self, const Results& all) {
                        const auto futex = all.find(KeyOf(kScaleGroup, futexLabel));
                        return futex != all.end() && self.nsPerPacket < futex->second.nsPerPacket;
                    }}};
    AddRow(row, RunPoolCount)->MinTime(settings.codecMinSeconds)->UseRealTime();
    AddRow({kScaleGroup, futexLabel, false}, RunFutexWake)->MinTime(settings.codecMinSeconds)->UseRealTime();
}

}  // namespace

void RegisterScale(const Settings& settings)
{
    RegisterClients(settings);
    RegisterThreads(settings);
    RegisterLargePublish(settings);
    RegisterBurst(settings);
    RegisterPool(settings);
}

}  // namespace bench
