// A network thread and a worker thread driving the pool, as a host with one of each runs the receive
// path, in both body modes, beside the contract floor of two threads: a block made on one thread
// and freed on the other.
#include "AllocationCount.h"
#include "Runs.h"
#include "Scale.h"

#include <MQTTProtocol.h>

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace bench {

namespace {

// The network thread stays at most this many packets ahead of the worker: in block mode every
// queued packet holds a mapping of its own.
constexpr uint64_t kMaxOutstanding = 4096;
constexpr int kWaitMilliseconds = 100;
const std::string kWorkerSleeps = "worker sleeps";
const char* const kThreadsLabel = "network thread and worker thread through the pool, 100 clients";
const char* const kTwoThreadFloorLabel = "contract floor of two threads: block made on one, freed on the other";

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
    const std::vector<size_t> completed = CompletedByPiece(workload, kScalePiece);
    uint64_t sent = 0;
    bool fed = true;
    for (size_t piece = 0; piece < completed.size(); piece++) {
        const size_t at = piece * kScalePiece;
        const size_t size = std::min(kScalePiece, workload.stream.size() - at);
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

Row ThreadsRow(int bodyMode)
{
    Row row{kScaleGroup, InModeLabel(kThreadsLabel, bodyMode)};
    const std::string clientsKey = KeyOf(kScaleGroup, InModeLabel(ClientsLabel(kThreadedClients), bodyMode));
    if (bodyMode == MQTTPROTOCOL_BODY_COMPACT) {
        row.comparisons = {
            {KeyOf(kScaleGroup, kScaleCopyFloor)},
            {KeyOf(kScaleGroup, InModeLabel(kThreadsLabel, MQTTPROTOCOL_BODY_BLOCK)), Comparison::Style::FasterThan},
            {clientsKey}};
    } else {
        row.comparisons = {{KeyOf(kScaleGroup, kTwoThreadFloorLabel)}, {clientsKey}};
    }
    row.note = [](const Measured& measured) {
        char text[96];
        std::snprintf(text, sizeof(text), "worker slept %.3f times a packet", measured.perPacket.at(kWorkerSleeps));
        return std::string(text);
    };
    return row;
}

}  // namespace

void RegisterThreads(const Settings& settings)
{
    const int perClient = settings.threadedPackets / kThreadedClients;
    const auto threads = [perClient](benchmark::State& state) {
        RunNetworkAndWorker(state, kThreadedClients, perClient);
    };
    const std::vector<benchmark::internal::Benchmark*> registered = {
        AddRow(ThreadsRow(MQTTPROTOCOL_BODY_BLOCK), threads),
        AddRow(ThreadsRow(MQTTPROTOCOL_BODY_COMPACT), InBodyMode(MQTTPROTOCOL_BODY_COMPACT, threads)),
        AddRow({kScaleGroup, kTwoThreadFloorLabel},
               [perClient](benchmark::State& state) { RunTwoThreadFloor(state, kThreadedClients, perClient); }),
    };
    for (benchmark::internal::Benchmark* benchmark : registered) {
        benchmark->Iterations(1)->Repetitions(settings.repetitions)->UseRealTime();
    }
}

}  // namespace bench
