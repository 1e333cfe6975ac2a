#include "Table.h"

#include "AllocationCount.h"

#include <sys/resource.h>

#include <cstdio>
#include <iostream>
#include <utility>

namespace bench {

namespace {

using Run = benchmark::BenchmarkReporter::Run;

const std::string kPackets = "packets";
const std::string kBytes = "bytes";
const std::string kAllocations = "allocations";
const std::string kUserSeconds = "user seconds";
const std::string kKernelSeconds = "kernel seconds";

double Seconds(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

rusage ProcessUsage()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage;
}

struct Catalogue
{
    std::vector<std::string> order;
    std::map<std::string, Row> rows;
};

Catalogue& Rows()
{
    static Catalogue catalogue;
    return catalogue;
}

// A figure for the table: whole and with thousands separators from 1,000 on, otherwise with the
// given decimals.
std::string Figure(double value, int decimals)
{
    char text[64];
    if (value < 1000) {
        std::snprintf(text, sizeof(text), "%.*f", decimals, value);
        return text;
    }
    std::snprintf(text, sizeof(text), "%.0f", value);
    const std::string digits = text;
    std::string grouped;
    for (size_t i = 0; i < digits.size(); i++) {
        if (i > 0 && (digits.size() - i) % 3 == 0) {
            grouped += ',';
        }
        grouped += digits[i];
    }
    return grouped;
}

double CounterOf(const Run& run, const std::string& name)
{
    const auto found = run.counters.find(name);
    return found == run.counters.end() ? 0 : found->second.value;
}

Measured MeasuredOf(const Run& run)
{
    Measured measured;
    const double packets = CounterOf(run, kPackets);
    if (run.error_occurred || packets <= 0) {
        measured.error = run.error_occurred ? run.error_message : "no packets counted";
        return measured;
    }
    const double seconds = run.real_accumulated_time / static_cast<double>(run.iterations);
    measured.nsPerPacket = seconds * 1e9 / packets;
    measured.packetsPerSecond = packets / seconds;
    measured.megabytesPerSecond = CounterOf(run, kBytes) / seconds / 1e6;
    measured.allocationsPerPacket = CounterOf(run, kAllocations) / packets;
    measured.userMicrosPerPacket = CounterOf(run, kUserSeconds) * 1e6 / packets;
    measured.kernelMicrosPerPacket = CounterOf(run, kKernelSeconds) * 1e6 / packets;
    for (const auto& [name, counter] : run.counters) {
        if (name != kPackets && name != kBytes && name != kAllocations && name != kUserSeconds &&
            name != kKernelSeconds) {
            measured.perPacket[name] = counter.value / packets;
        }
    }
    return measured;
}

std::string ComparisonText(const Comparison& comparison, const std::string& key, const Results& all)
{
    const double ratio = TimeRatio(all, key, comparison.reference);
    const Row& reference = Rows().rows.at(comparison.reference);
    if (ratio <= 0) {
        return "(" + reference.label + " not measured)";
    }
    if (comparison.style == Comparison::Style::FasterThan) {
        return Figure(1 / ratio, 1) + "× faster than " + reference.label;
    }
    std::string text = Figure(ratio, 2) + "× " + reference.label;
    if (!reference.shown) {
        text += " (" + Figure(all.at(comparison.reference).nsPerPacket, 1) + " ns)";
    }
    return text;
}

std::string Joined(const std::vector<std::string>& parts)
{
    std::string joined;
    for (const std::string& part : parts) {
        joined += (joined.empty() ? "" : "; ") + part;
    }
    return joined;
}

std::string ComparedText(const std::string& key, const Row& row, const Measured& measured, const Results& all)
{
    std::vector<std::string> parts;
    for (const Comparison& comparison : row.comparisons) {
        parts.push_back(ComparisonText(comparison, key, all));
    }
    if (row.note) {
        parts.push_back(row.note(measured));
    }
    return Joined(parts);
}

std::string TargetText(const Row& row, const Measured& measured, const Results& all)
{
    std::vector<std::string> parts;
    for (const Target& target : row.targets) {
        parts.push_back(target.text + (target.met(measured, all) ? ": met" : ": **missed**"));
    }
    return Joined(parts);
}

void PrintRow(std::ostream& out, const std::string& key, const Row& row, const Results& all)
{
    const Measured& measured = all.at(key);
    out << "| " << row.group << " | " << row.label << " | ";
    if (!measured.error.empty()) {
        out << "failed: " << measured.error << " | | | | | | |\n";
        return;
    }
    out << Figure(measured.nsPerPacket, 1) << " | " << Figure(measured.packetsPerSecond, 0) << " | "
        << Figure(measured.megabytesPerSecond, 1) << " | " << Figure(measured.allocationsPerPacket, 2) << " | "
        << Figure(measured.userMicrosPerPacket, 2) << " + " << Figure(measured.kernelMicrosPerPacket, 2) << " | "
        << ComparedText(key, row, measured, all) << " | " << TargetText(row, measured, all) << " |\n";
}

}  // namespace

std::string KeyOf(const std::string& group, const std::string& label) { return group + "/" + label; }

double TimeRatio(const Results& all, const std::string& key, const std::string& referenceKey)
{
    const auto self = all.find(key);
    const auto reference = all.find(referenceKey);
    if (self == all.end() || reference == all.end() || !self->second.error.empty() ||
        !reference->second.error.empty()) {
        return 0;
    }
    return self->second.nsPerPacket / reference->second.nsPerPacket;
}

Target AtMostTimes(std::string text, std::string key, std::string referenceKey, double limit)
{
    return {std::move(text),
            [key = std::move(key), referenceKey = std::move(referenceKey), limit](const Measured&, const Results& all) {
                const double ratio = TimeRatio(all, key, referenceKey);
                return ratio > 0 && ratio <= limit;
            }};
}

Target AtLeastFaster(std::string text, std::string key, std::string referenceKey, double factor)
{
    return {std::move(text),
            [key = std::move(key), referenceKey = std::move(referenceKey), factor](
                const Measured&, const Results& all) { return TimeRatio(all, referenceKey, key) >= factor; }};
}

benchmark::internal::Benchmark* AddRow(Row row, std::function<void(benchmark::State&)> run)
{
    const std::string key = KeyOf(row.group, row.label);
    Rows().order.push_back(key);
    Rows().rows.emplace(key, std::move(row));
    return benchmark::RegisterBenchmark(key.c_str(), std::move(run));
}

Meter::Meter() : m_Allocations(BenchAllocationCount())
{
    const rusage usage = ProcessUsage();
    m_UserSeconds = Seconds(usage.ru_utime);
    m_KernelSeconds = Seconds(usage.ru_stime);
}

void Meter::Account(benchmark::State& state, double packets, double bytes, double otherAllocations) const
{
    const rusage usage = ProcessUsage();
    AccountExtra(state, kPackets, packets);
    AccountExtra(state, kBytes, bytes);
    AccountExtra(state, kAllocations, static_cast<double>(BenchAllocationCount() - m_Allocations) + otherAllocations);
    AccountExtra(state, kUserSeconds, Seconds(usage.ru_utime) - m_UserSeconds);
    AccountExtra(state, kKernelSeconds, Seconds(usage.ru_stime) - m_KernelSeconds);
}

void AccountExtra(benchmark::State& state, const std::string& name, double total)
{
    state.counters[name] = benchmark::Counter(total, benchmark::Counter::kAvgIterations);
}

bool TableReporter::ReportContext(const Context& context)
{
    GetOutputStream() << "Measured on " << context.cpu_info.num_cpus << " CPUs at "
                      << Figure(context.cpu_info.cycles_per_second / 1e6, 0) << " MHz.\n\n";
    return true;
}

void TableReporter::ReportRuns(const std::vector<Run>& runs)
{
    for (const Run& run : runs) {
        const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
        if (run.run_type == Run::RT_Aggregate && !median) {
            continue;
        }
        // A failed repetition is kept: the row then says why instead of showing the others.
        Measured& kept = m_Results[run.run_name.function_name];
        if (kept.error.empty()) {
            kept = MeasuredOf(run);
        }
    }
    // A benchmark with repetitions reports its runs, then their aggregates: one progress line.
    if (!runs.empty() && runs.front().run_type == Run::RT_Iteration) {
        GetErrorStream() << "measured " << runs.front().run_name.function_name << "\n";
    }
}

void TableReporter::Finalize()
{
    std::ostream& out = GetOutputStream();
    out << "| Group | Case | ns/packet | packets/s | MB/s | allocs/packet | CPU µs/packet, user + kernel | Compared "
           "with | Target |\n"
        << "|---|---|--:|--:|--:|--:|--:|---|---|\n";
    for (const std::string& key : Rows().order) {
        const Row& row = Rows().rows.at(key);
        if (row.shown && m_Results.count(key) != 0) {
            PrintRow(out, key, row, m_Results);
        }
    }
}

}  // namespace bench
