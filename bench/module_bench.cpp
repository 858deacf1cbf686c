// Measures the module's work and its floors. With --out it measures pairs and writes them to a file. Without, every
// case is a benchmark of the benchmark library, with that library's options, for example to look at a single one.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>

#include "module_cases.h"
#include "module_counts.h"
#include "module_host.h"
#include "pairs.h"

namespace kavel::bench {

namespace {

struct Effort {
    std::size_t pairs;
    double secondsPerValue; // minimum
};

constexpr Effort kUsual{7, 0.1};
constexpr Effort kQuick{5, 0.02};

void Log(const Comparison &comparison)
{
    std::vector<double> ratios;
    for (std::size_t i = 0; i < comparison.ours.size(); ++i) {
        ratios.push_back(comparison.ours[i] / comparison.floor[i]);
    }
    std::sort(ratios.begin(), ratios.end());
    static_cast<void>(std::fprintf(stderr, "%-40s %6ju  %.4g %s  %.3f (%.3f to %.3f)\n", comparison.work.c_str(),
                                   static_cast<std::uintmax_t>(comparison.n), comparison.ours.front(),
                                   comparison.unit.c_str(), ratios[ratios.size() / 2], ratios.front(), ratios.back()));
}

// Short work runs in batches, so that the cost of reading the clock is negligible.
Comparison TimesOf(const Case &work, const Effort &effort)
{
    constexpr double kBatchSeconds = 0.002;
    Comparison out{work.name, work.n, "s", work.floorName, work.target, {}, {}};
    work.floor();
    const double once = SecondsOf<CpuClock>(work.ours);
    const auto batch = static_cast<std::size_t>(std::max(1.0, std::ceil(kBatchSeconds / once)));
    const auto repetitions =
        static_cast<std::size_t>(std::max(1.0, std::ceil(effort.secondsPerValue / once / static_cast<double>(batch))));
    const auto inBatches = [batch](const std::function<void()> &each) {
        return [&each, batch] {
            for (std::size_t done = 0; done < batch; ++done) {
                each();
            }
        };
    };
    for (std::size_t i = 0; i < effort.pairs; ++i) {
        AppendPair<CpuClock>(out, repetitions, inBatches(work.ours), inBatches(work.floor));
        out.ours.back() /= static_cast<double>(batch);
        out.floor.back() /= static_cast<double>(batch);
    }
    Log(out);
    return out;
}

// A single pair: the counts do not vary.
std::vector<Comparison> MemoryOf(const Case &work)
{
    std::vector<Comparison> out;
    for (const auto &[name, unit] : std::array<std::array<const char *, 2>, 4>{
             {{"allocations", "count"}, {"peak memory", "bytes"}, {"copied", "bytes"}, {"cleared", "bytes"}}}) {
        out.push_back({work.name + ": " + name, work.n, unit, work.floorName, std::nullopt, {}, {}});
    }
    const auto append = [&out](const Counts &counts, std::vector<double> Comparison::*values) {
        const std::array<double, 4> told{static_cast<double>(counts.allocations), static_cast<double>(counts.peakBytes),
                                         static_cast<double>(counts.copiedBytes),
                                         static_cast<double>(counts.clearedBytes)};
        for (std::size_t i = 0; i < told.size(); ++i) {
            (out[i].*values).push_back(told[i]);
        }
    };
    append(CountsOf(work.ours), &Comparison::ours);
    append(CountsOf(work.floor), &Comparison::floor);
    return out;
}

void WritePairs(const Cases &cases, const Effort &effort, const std::string &path)
{
    std::vector<Comparison> out;
    for (const Case &each : cases.full) {
        out.push_back(TimesOf(each, effort));
        const std::vector<Comparison> counts = MemoryOf(each);
        out.insert(out.end(), counts.begin(), counts.end());
    }
    for (const Case &each : cases.growing) {
        out.push_back(TimesOf(each, effort));
    }
    WriteJson(path, out);
}

void RegisterBenchmark(const std::string &name, const std::function<void()> &work)
{
    benchmark::RegisterBenchmark(name.c_str(), [&work](benchmark::State &state) {
        for ([[maybe_unused]] auto each : state) {
            work();
        }
    });
}

void RunBenchmarks(const Cases &cases)
{
    for (const auto *list : {&cases.full, &cases.growing}) {
        for (const Case &each : *list) {
            const std::string name = each.name + '/' + std::to_string(each.n);
            RegisterBenchmark(name + "/ours", each.ours);
            RegisterBenchmark(name + "/floor", each.floor);
        }
    }
    benchmark::RunSpecifiedBenchmarks();
}

// The argument of --out; empty without one.
std::string OutPath(int count, char **arguments)
{
    const auto *end = arguments + count;
    const auto *found = std::find(arguments, arguments + count, std::string_view("--out"));
    return found == end || found + 1 == end ? "" : *(found + 1);
}

void Run(int count, char **arguments)
{
    const NullHost host;
    const Cases cases;
    const std::string path = OutPath(count, arguments);
    if (path.empty()) {
        benchmark::Initialize(&count, arguments);
        RunBenchmarks(cases);
        return;
    }
    const bool quick = std::find(arguments, arguments + count, std::string_view("--quick")) != arguments + count;
    WritePairs(cases, quick ? kQuick : kUsual, path);
}

} // namespace

} // namespace kavel::bench

int main(int argc, char **argv)
{
    try {
        kavel::bench::Run(argc, argv);
        return 0;
    } catch (const std::exception &error) {
        static_cast<void>(std::fprintf(stderr, "bench_module: %s\n", error.what()));
        return 1;
    }
}
