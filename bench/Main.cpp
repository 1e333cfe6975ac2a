// The benchmark program: every group in one process, one Markdown table, and a last line with each
// judged workload's ratio to the contract floor.
//
//   ostrel_bench [--quick] [Google Benchmark flags, e.g. --benchmark_filter=W1]
#include "AllocationCount.h"
#include "Settings.h"
#include "Table.h"

#include <MQTTProtocol.h>

#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <vector>

namespace {

// Takes a flag of this program out of the arguments; true when it was there.
bool TakeFlag(int& argc, char** argv, const char* flag)
{
    const int before = argc;
    argc = static_cast<int>(std::remove_if(argv + 1, argv + argc, [flag](const char* argument) {
                                return std::strcmp(argument, flag) == 0;
                            }) -
                            argv);
    return argc != before;
}

// The library pins glibc's mmap threshold at the block size when it makes its first block, so that
// every block is a fresh mapping that calloc does not clear. The baselines must run under the same
// setting whatever order the benchmarks run in, so it is made here, before anything is measured.
void PinProcessSettings() { mallopt(M_MMAP_THRESHOLD, MQTTPROTOCOL_PACKET_BLOCK_SIZE); }

// Allocation counts mean something only if the library's allocations reach the counter.
bool CountsLibraryAllocations()
{
    const unsigned long long before = BenchAllocationCount();
    void** list = nullptr;
    const bool made = Keel_OperatorMemory_Malloc(&list, 1, 1);
    Keel_OperatorMemory_Free(&list, 1);
    return made && BenchAllocationCount() > before;
}

void PrintFloorRatios(const bench::Results& results)
{
    std::printf("\nratio-to-contract-floor:");
    for (const char* group : {"W1", "W3", "W4"}) {
        std::printf(" %s=%.2f", group,
                    bench::TimeRatio(results, bench::KeyOf(group, "library"), bench::KeyOf(group, "contract floor")));
    }
    std::printf("\n");
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
    PrintFloorRatios(reporter.Measurements());
    benchmark::Shutdown();
    MQTTProtocol_Parse_Destory();
    return AnyFailed(reporter.Measurements()) ? 1 : 0;
}
