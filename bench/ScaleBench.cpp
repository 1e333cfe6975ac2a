// How the receive path scales: many clients with interleaved pieces, a network thread and a worker
// thread driving the pool, one packet as large as a block allows, a burst of PINGREQs in one call,
// and the pool's own count of a packet with nobody waiting.
#include "AllocationCount.h"
#include "Runs.h"
#include "Receive.h"
#include "Settings.h"
#include "Table.h"

#include <MQTTProtocol.h>

#include <linux/futex.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace bench {

namespace {

const std::string kGroup = "scale";
constexpr size_t kSegmentPiece = 1460;
// Every client gets at least two pieces, so that each holds a packet still arriving between its turns.
constexpr int kMinPacketsPerClient = 26;
constexpr int kThreadedClients = 100;
constexpr int kManyClients = 10000;
// The network thread stays at most this many packets ahead of the worker: every queued packet holds
// a mapping of its own.
constexpr uint64_t kMaxOutstanding = 4096;
constexpr int kWaitMilliseconds = 100;
constexpr uint32_t kLargeWireLength = MQTTPROTOCOL_PACKET_BLOCK_SIZE - 16;
constexpr int kBurstPingreqs = 50000;
constexpr double kFlatLimit = 1.15;
constexpr double kLargeLimitMegabytes = 1000;
const std::string kWorkerSleeps = "worker sleeps";

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

// Accounts for every client's run through a workload in every iteration.
void AccountRuns(benchmark::State& state, const Meter& meter, const Workload& workload, int clientCount,
                 double otherAllocations = 0)
{
    const auto runs = static_cast<double>(state.iterations()) * clientCount;
    meter.Account(state, runs * static_cast<double>(workload.packets.size()),
                  runs * WireBytes(workload, workload.packets.size()), otherAllocations);
}

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
        for (size_t at = 0; at < size; at += kSegmentPiece) {
            for (const Client& client : clients) {
                fed &= FeedPieces(client.Address(), workload.stream, at, std::min(at + kSegmentPiece, size),
                                  kSegmentPiece, receiver);
            }
        }
        if (!fed || !(receiver.TakeSum() == Repeated(workload.expected, clientCount))) {
            state.SkipWithError("a piece was refused or the checksum does not match");
        }
    }
    AccountRuns(state, meter, workload, clientCount);
}

long VoluntarySwitches()
{
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw;
}

struct WorkerReadings
{
    long sleeps = 0;
    unsigned long long allocations = 0;
};

// The worker: waits on pool index 0, lists the ready clients and takes each one's packets.
WorkerReadings Work(uint64_t total, std::atomic<uint64_t>& taken, Receiver& receiver)
{
    const long switchesBefore = VoluntarySwitches();
    const unsigned long long allocationsBefore = BenchAllocationCount();
    while (taken.load(std::memory_order_relaxed) < total) {
        TAVRIN_HOPPER_TASKEVENT** ready = nullptr;
        int count = 0;
        if (!MQTTProtocol_Parse_WaitEvent(0, kWaitMilliseconds) || !MQTTProtocol_Parse_GetPool(0, &ready, &count)) {
            continue;
        }
        for (int i = 0; i < count; i++) {
            for (int k = 0; k < ready[i]->nPktCount && receiver.TakeOne(ready[i]->tszClientAddr); k++) {
                taken.fetch_add(1, std::memory_order_release);
            }
        }
        Keel_OperatorMemory_Free(reinterpret_cast<void***>(&ready), count);
    }
    return {VoluntarySwitches() - switchesBefore, BenchAllocationCount() - allocationsBefore};
}

// The network thread: every client's next piece in turn, never too far ahead of the worker.
bool FeedNetwork(const std::vector<Client>& clients, const Workload& workload, std::atomic<uint64_t>& taken)
{
    const std::vector<size_t> completed = CompletedByPiece(workload, kSegmentPiece);
    uint64_t sent = 0;
    bool fed = true;
    for (size_t piece = 0; piece < completed.size(); piece++) {
        const size_t at = piece * kSegmentPiece;
        const size_t size = std::min(kSegmentPiece, workload.stream.size() - at);
        for (const Client& client : clients) {
            while (sent - taken.load(std::memory_order_acquire) > kMaxOutstanding) {
                std::this_thread::yield();
            }
            fed &= MQTTProtocol_Parse_Send(client.Address(), workload.stream.data() + at, static_cast<int>(size));
            sent += completed[piece] - (piece == 0 ? 0 : completed[piece - 1]);
        }
    }
    return fed;
}

void RunNetworkAndWorker(benchmark::State& state, int clientCount, int packetsPerClient)
{
    const Workload& workload = StreamOf(StreamKind::SmallQos1, packetsPerClient);
    std::vector<Client> clients(static_cast<size_t>(clientCount));
    Receiver receiver(LongestBody(workload));
    const uint64_t total = workload.packets.size() * static_cast<uint64_t>(clientCount);
    if (!AllInserted(clients)) {
        state.SkipWithError("a session could not be inserted");
    }
    WorkerReadings worker;
    const Meter meter;
    for (auto _ : state) {
        std::atomic<uint64_t> taken{0};
        std::thread thread([&] {
            const WorkerReadings readings = Work(total, taken, receiver);
            worker.sleeps += readings.sleeps;
            worker.allocations += readings.allocations;
        });
        const bool fed = FeedNetwork(clients, workload, taken);
        thread.join();
        if (!fed || !(receiver.TakeSum() == Repeated(workload.expected, clientCount))) {
            state.SkipWithError("a piece was refused or the checksum does not match");
        }
    }
    AccountRuns(state, meter, workload, clientCount, static_cast<double>(worker.allocations));
    AccountExtra(state, kWorkerSleeps, static_cast<double>(worker.sleeps));
}

// Blocks handed from one thread to another, at most a fixed number at a time.
class BlockRing
{
public:
    explicit BlockRing(size_t capacity) : m_Slots(capacity) {}

    bool Push(char* block)
    {
        const size_t tail = m_Tail.load(std::memory_order_relaxed);
        if (tail - m_Head.load(std::memory_order_acquire) == m_Slots.size()) {
            return false;
        }
        m_Slots[tail % m_Slots.size()] = block;
        m_Tail.store(tail + 1, std::memory_order_release);
        return true;
    }

    char* Pop()
    {
        const size_t head = m_Head.load(std::memory_order_relaxed);
        if (head == m_Tail.load(std::memory_order_acquire)) {
            return nullptr;
        }
        char* block = m_Slots[head % m_Slots.size()];
        m_Head.store(head + 1, std::memory_order_release);
        return block;
    }

private:
    std::vector<char*> m_Slots;
    std::atomic<size_t> m_Head{0};
    std::atomic<size_t> m_Tail{0};
};

// Frees `count` blocks as they come out of the ring.
void FreeFromRing(BlockRing& ring, uint64_t count)
{
    for (uint64_t freed = 0; freed < count;) {
        char* block = ring.Pop();
        if (block == nullptr) {
            std::this_thread::yield();
            continue;
        }
        std::free(block);
        freed++;
    }
}

// The contract floor of two threads: every packet's block is made and filled on this thread, as a
// network thread does, and freed on another, as a worker does.
void RunTwoThreadFloor(benchmark::State& state, int clientCount, int packetsPerClient)
{
    const Workload& workload = StreamOf(StreamKind::SmallQos1, packetsPerClient);
    const uint64_t total = workload.packets.size() * static_cast<uint64_t>(clientCount);
    const Meter meter;
    for (auto _ : state) {
        BlockRing ring(kMaxOutstanding);
        std::thread freer([&] { FreeFromRing(ring, total); });
        for (uint64_t i = 0; i < total; i++) {
            const PacketSpan& packet = workload.packets[i % workload.packets.size()];
            char* block = static_cast<char*>(std::calloc(1, MQTTPROTOCOL_PACKET_BLOCK_SIZE));
            std::memcpy(block, workload.stream.data() + packet.start + packet.bodyOffset, packet.bodyLength);
            while (!ring.Push(block)) {
                std::this_thread::yield();
            }
        }
        freer.join();
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

Target FlatTarget(const std::string& oneClientKey, const std::string& key)
{
    return {"flat: ≤ 1.15× 1 client", [oneClientKey, key](const Measured&, const Results& all) {
                const double ratio = TimeRatio(all, key, oneClientKey);
                return ratio > 0 && ratio <= kFlatLimit;
            }};
}

void RegisterClients(const Settings& settings)
{
    const std::string oneClientKey = KeyOf(kGroup, ClientsLabel(1));
    for (const int clients : {1, 100, kManyClients}) {
        const int perClient = std::max(kMinPacketsPerClient, settings.scalePackets / clients);
        Row row{kGroup, ClientsLabel(clients)};
        if (clients > 1) {
            row.comparisons = {{oneClientKey}};
            row.targets = {FlatTarget(oneClientKey, KeyOf(kGroup, row.label))};
        }
        AddRow(row, [clients, perClient](benchmark::State& state) { RunInterleaved(state, clients, perClient); })
            ->Iterations(1)
            ->Repetitions(settings.scaleRepetitions)
            ->UseRealTime();
    }
}

const char* const kThreadsLabel = "network thread and worker thread through the pool, 100 clients";
const char* const kTwoThreadFloorLabel = "contract floor of two threads: block made on one, freed on the other";

Row ThreadsRow()
{
    Row row{kGroup, kThreadsLabel};
    row.comparisons = {{KeyOf(kGroup, kTwoThreadFloorLabel)}, {KeyOf(kGroup, ClientsLabel(kThreadedClients))}};
    row.note = [](const Measured& measured) {
        char text[96];
        std::snprintf(text, sizeof(text), "worker slept %.3f times a packet", measured.perPacket.at(kWorkerSleeps));
        return std::string(text);
    };
    return row;
}

void RegisterThreads(const Settings& settings)
{
    const int perClient = settings.threadedPackets / kThreadedClients;
    AddRow(ThreadsRow(), [perClient](benchmark::State& state) {
        RunNetworkAndWorker(state, kThreadedClients, perClient);
    })->Iterations(1)->Repetitions(settings.repetitions)->UseRealTime();
    AddRow({kGroup, kTwoThreadFloorLabel}, [perClient](benchmark::State& state) {
        RunTwoThreadFloor(state, kThreadedClients, perClient);
    })->Iterations(1)->Repetitions(settings.repetitions)->UseRealTime();
}

void RegisterLargePublish(const Settings& settings)
{
    static const Workload large = OneLargePublish(kLargeWireLength);
    const std::string memcpyLabel = "memcpy of the same 10 MiB − 16 bytes";
    Row row{kGroup, "one 10 MiB − 16-byte PUBLISH in 1,460-byte pieces"};
    row.comparisons = {{KeyOf(kGroup, memcpyLabel)}};
    row.targets = {{"≥ 1 GB/s", [](const Measured& self, const Results&) {
                        return self.megabytesPerSecond >= kLargeLimitMegabytes;
                    }}};
    const std::vector<benchmark::internal::Benchmark*> registered = {
        AddRow(row, [](benchmark::State& state) { RunOneClient(state, large, kSegmentPiece); }),
        AddRow({kGroup, memcpyLabel}, [](benchmark::State& state) { RunMemcpy(state, kLargeWireLength); }),
    };
    for (benchmark::internal::Benchmark* benchmark : registered) {
        benchmark->Iterations(settings.largePublishes)->Repetitions(settings.repetitions)->UseRealTime();
    }
}

void RegisterBurst(const Settings& settings)
{
    static const Workload burst = PingreqBurst(kBurstPingreqs);
    const std::string floorLabel = "contract floor, 50,000 blocks held together";
    Row row{kGroup, "50,000 PINGREQs in one call"};
    row.comparisons = {{KeyOf(kGroup, floorLabel)}, {KeyOf("W4", "contract floor")}};
    const std::vector<benchmark::internal::Benchmark*> registered = {
        AddRow(row, [](benchmark::State& state) { RunOneClient(state, burst, burst.stream.size()); }),
        AddRow({kGroup, floorLabel},
               [](benchmark::State& state) { RunPieceFloor(state, burst, burst.stream.size()); }),
    };
    for (benchmark::internal::Benchmark* benchmark : registered) {
        benchmark->Iterations(1)->Repetitions(settings.burstRepetitions)->UseRealTime();
    }
}

void RegisterPool(const Settings& settings)
{
    const std::string futexLabel = "one futex wake system call";
    Row row{kGroup, "pool: a packet counted up and down, no worker waiting"};
    row.comparisons = {{KeyOf(kGroup, futexLabel)}};
    row.targets = {{"no wake-up: cheaper than one wake call", [futexLabel](const Measured& self, const Results& all) {
                        const auto futex = all.find(KeyOf(kGroup, futexLabel));
                        return futex != all.end() && self.nsPerPacket < futex->second.nsPerPacket;
                    }}};
    AddRow(row, RunPoolCount)->MinTime(settings.codecMinSeconds)->UseRealTime();
    AddRow({kGroup, futexLabel, false}, RunFutexWake)->MinTime(settings.codecMinSeconds)->UseRealTime();
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
