// The benchmark program: every group in one process, one Markdown table, and two closing lines with
// each judged workload's ratio to its floor: block mode's to the contract floor, compact mode's to
// the copy floor.
//
//   ostrel_bench [--quick] [Google Benchmark flags, e.g. --benchmark_filter=W1]
#include "AllocationCount.h"
#include "Runs.h"
#include "Settings.h"
#include "Table.h"

#include <MQTTProtocol.h>

#include <malloc.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

namespace {

// Takes a flag of this program out of the arguments; true when it was there.
bool TakeFlag(int& argc, char** argv, const char* flag)
{
    const int before = argc;
    argc = static_cast<int>(std::remove_if(argv + 1, argv + argc,
                                           [flag](const char* argument) { return std::strcmp(argument, flag) == 0; }) -
                            argv);
    return argc != before;
}

// The library in block mode pins glibc's mmap threshold at the block size, and lifts glibc's cap on
// the number of mappings, when it makes its first block: every block is then a fresh mapping that
// calloc does not clear, however many are alive. The baselines and the compact rows must run under
// the same settings whatever order the benchmarks run in, so they are made here, before anything is
// measured.
void PinProcessSettings()
{
    mallopt(M_MMAP_THRESHOLD, MQTTPROTOCOL_PACKET_BLOCK_SIZE);
    mallopt(M_MMAP_MAX, INT_MAX);
}

// Allocation counts mean something only if the library's allocations reach the counter.
bool CountsLibraryAllocations()
{
    const unsigned long long before = BenchAllocationCount();
    void** list = nullptr;
    const bool made = Keel_OperatorMemory_Malloc(&list, 1, 1);
    Keel_OperatorMemory_Free(&list, 1);
    return made && BenchAllocationCount() > before;
}

// One closing line: each judged workload's row `label` beside its row `referenceLabel`.
void PrintRatios(const bench::Results& results, const char* title, const std::string& label,
                 const std::string& referenceLabel)
{
    std::printf("%s:", title);
    for (const char* group : {"W1", "W3", "W4"}) {
        std::printf(" %s=%.2f", group,
                    bench::TimeRatio(results, bench::KeyOf(group, label), bench::KeyOf(group, referenceLabel)));
    }
    std::printf("\n");
}

void PrintClosingLines(const bench::Results& results)
{
    std::printf("\n");
    PrintRatios(results, "ratio-to-contract-floor", bench::LibraryLabel(MQTTPROTOCOL_BODY_BLOCK), "contract floor");
    PrintRatios(results, "compact", bench::LibraryLabel(MQTTPROTOCOL_BODY_COMPACT), "copy floor");
}

bool AnyFailed(const bench::Results& results)
{
    return std::any_of(results.begin(), results.end(), [](const auto& entry) { return !entry.second.error.empty(); });
}

}  // namespace

int main(int argc, char** argv)
{
    const bench::Settings settings = bench::SettingsFor(TakeFlag(argc, argv, "--quick"));
    PinProcessSettings();
    if (!CountsLibraryAllocations()) {
        std::fprintf(stderr, "the library's allocations do not reach the counter\n");
        return 1;
    }
    if (!MQTTProtocol_Parse_Init(1)) {
        std::fprintf(stderr, "the readiness pool could not be made\n");
        return 1;
    }
    bench::RegisterWorkloads(settings);
    bench::RegisterCodec(settings);
    bench::RegisterScale(settings);

    // Repetitions of different benchmarks run in random order, so that a slow spell of the machine
    // does not fall on one side of a comparison.
    std::vector<char*> arguments(argv, argv + argc);
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    arguments.insert(arguments.begin() + 1, interleave);
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 1;
    }
    bench::TableReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    PrintClosingLines(reporter.Measurements());
    benchmark::Shutdown();
    MQTTProtocol_Parse_Destory();
    return AnyFailed(reporter.Measurements()) ? 1 : 0;
}
