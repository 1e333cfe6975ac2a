// The benchmark table: every benchmark is one row, registered with how it is shown, what it is set
// beside and which target it is judged by. The reporter gathers the runs and prints the table at
// the end, one Markdown table for the whole program.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace bench {

// One row's figures as measured.
struct Measured
{
    double nsPerPacket = 0;
    double packetsPerSecond = 0;
    double megabytesPerSecond = 0;
    double allocationsPerPacket = 0;
    double userMicrosPerPacket = 0;    // CPU time of the whole process, outside the kernel
    double kernelMicrosPerPacket = 0;  // and inside it
    // Further counters of the benchmark, per packet.
    std::map<std::string, double> perPacket;
    std::string error;  // empty when the run succeeded
};

// Every row's figures by key.
using Results = std::map<std::string, Measured>;

// Sets a row's time per packet beside another row's: "1.03x contract floor" or "11.2x faster than ...".
struct Comparison
{
    enum class Style
    {
        Times,
        FasterThan
    };
    std::string reference;  // the other row's key
    Style style = Style::Times;
};

// A target a row is judged by: what it asks, and whether the figures meet it.
struct Target
{
    std::string text;
    std::function<bool(const Measured& self, const Results& all)> met;
};

struct Row
{
    Row(std::string rowGroup, std::string rowLabel, bool rowShown = true)
        : group(std::move(rowGroup)), label(std::move(rowLabel)), shown(rowShown)
    {
    }

    std::string group;
    std::string label;
    bool shown;  // a row only others are compared with may stay out of the table
    std::vector<Comparison> comparisons;
    std::vector<Target> targets;
    // Anything else worth saying about the row's figures.
    std::function<std::string(const Measured&)> note;
};

std::string KeyOf(const std::string& group, const std::string& label);

// The time per packet of one row divided by another's (a missing or failed row gives 0).
double TimeRatio(const Results& all, const std::string& key, const std::string& referenceKey);

// Targets on a row's time per packet beside another row's: at most `limit` times it, or at least
// `factor` times faster than it. A missing or failed row misses both.
Target AtMostTimes(std::string text, std::string key, std::string referenceKey, double limit);
Target AtLeastFaster(std::string text, std::string key, std::string referenceKey, double factor);

// Registers a benchmark as a row of the table under the key group/label.
benchmark::internal::Benchmark* AddRow(Row row, std::function<void(benchmark::State&)> run);

// What a benchmark spends besides time, from the meter's making to Account: the allocations of the
// thread that makes it and the CPU time of the whole process, user and kernel.
class Meter
{
public:
    Meter();

    // Records what the benchmark did over all its iterations: packets handled, the wire bytes they
    // hold and the meter's readings; otherAllocations are those made on other threads.
    void Account(benchmark::State& state, double packets, double bytes, double otherAllocations = 0) const;

private:
    unsigned long long m_Allocations;
    double m_UserSeconds;
    double m_KernelSeconds;
};

// Records a further count of a benchmark over all its iterations; the table gives it per packet.
void AccountExtra(benchmark::State& state, const std::string& name, double total);

class TableReporter : public benchmark::BenchmarkReporter
{
public:
    bool ReportContext(const Context& context) override;
    void ReportRuns(const std::vector<Run>& runs) override;
    void Finalize() override;

    const Results& Measurements() const { return m_Results; }

private:
    Results m_Results;
};

}  // namespace bench
