// W1 to W4: the library on each workload beside baselines that do, per packet, only what the block
// contract, the literal design and a plain copy must do.
#include "Runs.h"
#include "Settings.h"
#include "Table.h"

#include <MQTTProtocol.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace bench {

namespace {

struct WorkloadCase
{
    const char* group;
    StreamKind kind;
    size_t pieceSize;
    bool judged;  // W1, W3 and W4 carry the targets
};

constexpr size_t kLargePiece = 65536;
constexpr size_t kSegmentPiece = 1460;
constexpr double kFloorLimit = 1.3;
constexpr double kLiteralSpeedup = 8;

const char* const kLibrary = "library";
const char* const kContractFloor = "contract floor";
const char* const kPieceFloor = "contract floor, a piece's blocks held together";
const char* const kLiteralMapped = "literal design";
const char* const kLiteralHeap = "literal design, block reused from the heap";
const char* const kCopyFloor = "copy floor";

// What a baseline does with one packet's body; false when memory ran out.
using PerPacket = bool (*)(const char* body, uint32_t length);

// Copies a body into a block just allocated, then frees the block; false when there was none.
bool FillAndFree(char* block, const char* body, uint32_t length)
{
    if (block == nullptr) {
        return false;
    }
    std::memcpy(block, body, length);
    benchmark::DoNotOptimize(block);
    std::free(block);
    return true;
}

// Per packet: calloc a block, copy the body, free the block.
bool ContractFloor(const char* body, uint32_t length)
{
    return FillAndFree(static_cast<char*>(std::calloc(1, MQTTPROTOCOL_PACKET_BLOCK_SIZE)), body, length);
}

// Per packet: malloc a block, clear it with memset, copy the body, free the block. Under the block
// size's mmap threshold every block is a fresh mapping, and memset faults in all its pages.
bool LiteralMapped(const char* body, uint32_t length)
{
    char* block = static_cast<char*>(std::malloc(MQTTPROTOCOL_PACKET_BLOCK_SIZE));
    if (block != nullptr) {
        // The compiler would otherwise fold malloc and memset into calloc, the contract floor.
        benchmark::DoNotOptimize(block);
        std::memset(block, 0, MQTTPROTOCOL_PACKET_BLOCK_SIZE);
    }
    return FillAndFree(block, body, length);
}

// The literal design as glibc's default threshold runs it: after the first free the blocks come from
// the heap, the same memory each time, so only the memset and the copy remain.
bool LiteralHeap(const char* body, uint32_t length)
{
    static std::vector<char> reused(MQTTPROTOCOL_PACKET_BLOCK_SIZE, 1);
    char* block = reused.data();
    benchmark::DoNotOptimize(block);
    std::memset(block, 0, MQTTPROTOCOL_PACKET_BLOCK_SIZE);
    std::memcpy(block, body, length);
    benchmark::DoNotOptimize(block);
    return true;
}

// Per packet: malloc as many bytes as the body, copy it, free them.
bool CopyFloor(const char* body, uint32_t length)
{
    return FillAndFree(static_cast<char*>(std::malloc(length)), body, length);
}

void RunBaseline(benchmark::State& state, const Workload& workload, size_t count, PerPacket perPacket)
{
    const Meter meter;
    for (auto _ : state) {
        for (size_t i = 0; i < count; i++) {
            if (!perPacket(BodyOf(workload, i), workload.packets[i].bodyLength)) {
                state.SkipWithError("out of memory");
                break;
            }
        }
    }
    AccountPackets(state, meter, workload, count);
}

std::vector<Target> WorkloadTargets(const std::string& group)
{
    const std::string key = KeyOf(group, kLibrary);
    const std::string floorKey = KeyOf(group, kContractFloor);
    const std::string literalKey = KeyOf(group, kLiteralHeap);
    return {
        {"≤ 1.30× contract floor",
         [key, floorKey](const Measured&, const Results& all) {
             const double ratio = TimeRatio(all, key, floorKey);
             return ratio > 0 && ratio <= kFloorLimit;
         }},
        {"≥ 8× faster than the literal design, even from the heap",
         [key, literalKey](const Measured&, const Results& all) {
             return TimeRatio(all, literalKey, key) >= kLiteralSpeedup;
         }},
    };
}

Row LibraryRow(const WorkloadCase& workloadCase)
{
    const std::string group = workloadCase.group;
    Row row(group, kLibrary);
    row.comparisons = {{KeyOf(group, kContractFloor)},
                       {KeyOf(group, kPieceFloor)},
                       {KeyOf(group, kLiteralMapped), Comparison::Style::FasterThan},
                       {KeyOf(group, kLiteralHeap), Comparison::Style::FasterThan},
                       {KeyOf(group, kCopyFloor)}};
    if (workloadCase.judged) {
        row.targets = WorkloadTargets(group);
    }
    return row;
}

void RegisterWorkload(const WorkloadCase& workloadCase, int packets, const Settings& settings)
{
    const std::string group = workloadCase.group;
    const size_t pieceSize = workloadCase.pieceSize;
    const auto workload = [kind = workloadCase.kind, packets]() -> const Workload& { return StreamOf(kind, packets); };
    const auto sample = [packets](int wanted) { return static_cast<size_t>(std::min(wanted, packets)); };
    const auto baseline = [workload](size_t count, PerPacket perPacket) {
        return [workload, count, perPacket](benchmark::State& state) {
            RunBaseline(state, workload(), count, perPacket);
        };
    };
    const std::vector<benchmark::internal::Benchmark*> registered = {
        AddRow(LibraryRow(workloadCase),
               [workload, pieceSize](benchmark::State& state) { RunOneClient(state, workload(), pieceSize); }),
        AddRow({group, kContractFloor}, baseline(sample(packets), ContractFloor)),
        AddRow({group, kPieceFloor},
               [workload, pieceSize](benchmark::State& state) { RunPieceFloor(state, workload(), pieceSize); }),
        AddRow({group, kLiteralMapped}, baseline(sample(settings.literalMappedSample), LiteralMapped)),
        AddRow({group, kLiteralHeap}, baseline(sample(settings.literalHeapSample), LiteralHeap)),
        AddRow({group, kCopyFloor}, baseline(sample(packets), CopyFloor)),
    };
    for (benchmark::internal::Benchmark* benchmark : registered) {
        benchmark->Iterations(1)->Repetitions(settings.repetitions)->UseRealTime();
    }
}

}  // namespace

void RegisterWorkloads(const Settings& settings)
{
    const WorkloadCase cases[] = {
        {"W1", StreamKind::SmallQos1, kLargePiece, true},
        {"W2", StreamKind::LargeQos1, kLargePiece, false},
        {"W3", StreamKind::SmallQos1, kSegmentPiece, true},
        {"W4", StreamKind::PingAndQos0, kLargePiece, true},
    };
    for (const WorkloadCase& workloadCase : cases) {
        const int packets =
            workloadCase.kind == StreamKind::LargeQos1 ? settings.largePackets : settings.smallPackets;
        RegisterWorkload(workloadCase, packets, settings);
    }
}

}  // namespace bench
