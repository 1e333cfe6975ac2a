// W1 to W4: the library on each workload, in each body mode, beside baselines that do, per packet,
// only what the block contract, the literal design and a plain copy must do.
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
constexpr double kCompactCopyLimit = 10;
constexpr double kCompactSpeedup = 50;

const char* const kContractFloor = "contract floor";
const char* const kPieceFloor = "contract floor, a piece's blocks held together";
const char* const kLiteralMapped = "literal design";
const char* const kLiteralHeap = "literal design, block reused from the heap";
const char* const kCopyFloor = "copy floor";

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

std::vector<Target> WorkloadTargets(const std::string& group)
{
    const std::string key = KeyOf(group, LibraryLabel(MQTTPROTOCOL_BODY_BLOCK));
    return {
        AtMostTimes("≤ 1.30× contract floor", key, KeyOf(group, kContractFloor), kFloorLimit),
        AtLeastFaster("≥ 8× faster than the literal design, even from the heap", key, KeyOf(group, kLiteralHeap),
                      kLiteralSpeedup),
    };
}

Row BlockRow(const WorkloadCase& workloadCase)
{
    const std::string group = workloadCase.group;
    Row row(group, LibraryLabel(MQTTPROTOCOL_BODY_BLOCK));
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

Row CompactRow(const WorkloadCase& workloadCase)
{
    const std::string group = workloadCase.group;
    const std::string key = KeyOf(group, LibraryLabel(MQTTPROTOCOL_BODY_COMPACT));
    const std::string blockKey = KeyOf(group, LibraryLabel(MQTTPROTOCOL_BODY_BLOCK));
    Row row(group, LibraryLabel(MQTTPROTOCOL_BODY_COMPACT));
    row.comparisons = {{KeyOf(group, kCopyFloor)}, {blockKey, Comparison::Style::FasterThan}};
    if (workloadCase.judged) {
        row.targets = {
            AtMostTimes("≤ 10× copy floor", key, KeyOf(group, kCopyFloor), kCompactCopyLimit),
            AtLeastFaster("≥ 50× faster than block mode", key, blockKey, kCompactSpeedup),
        };
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
        return
            [workload, count, perPacket](benchmark::State& state) { RunBaseline(state, workload(), count, perPacket); };
    };
    const auto library = [workload, pieceSize](benchmark::State& state) { RunOneClient(state, workload(), pieceSize); };
    const std::vector<benchmark::internal::Benchmark*> registered = {
        AddRow(BlockRow(workloadCase), library),
        AddRow(CompactRow(workloadCase), InBodyMode(MQTTPROTOCOL_BODY_COMPACT, library)),
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
        const int packets = workloadCase.kind == StreamKind::LargeQos1 ? settings.largePackets : settings.smallPackets;
        RegisterWorkload(workloadCase, packets, settings);
    }
}

}  // namespace bench
