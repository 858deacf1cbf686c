// The module's work beside its floors. With --out the pairs are taken and written; otherwise the works stand as
// benchmarks of their own, for whoever wants to look at one.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>

#include "module_counts.h"
#include "module_host.h"
#include "module_works.h"
#include "pairs.h"

namespace kavel::bench {

namespace {

struct Effort {
    std::size_t pairs;
    double secondsPerValue; // at least
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

// Short work is done in batches, beside which reading the clock is nothing.
Comparison TimesOf(const Work &work, const Effort &effort)
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

// One pair: what is counted does not vary.
std::vector<Comparison> MemoryOf(const Work &work)
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

void WritePairs(const Works &works, const Effort &effort, const std::string &path)
{
    std::vector<Comparison> out;
    for (const Work &each : works.full) {
        out.push_back(TimesOf(each, effort));
        const std::vector<Comparison> counts = MemoryOf(each);
        out.insert(out.end(), counts.begin(), counts.end());
    }
    for (const Work &each : works.growing) {
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

void RunBenchmarks(const Works &works)
{
    for (const auto *list : {&works.full, &works.growing}) {
        for (const Work &each : *list) {
            const std::string name = each.name + '/' + std::to_string(each.n);
            RegisterBenchmark(name + "/ours", each.ours);
            RegisterBenchmark(name + "/floor", each.floor);
        }
    }
    benchmark::RunSpecifiedBenchmarks();
}

// The text behind "--out"; empty without one.
std::string OutPath(int count, char **arguments)
{
    const auto *end = arguments + count;
    const auto *found = std::find(arguments, arguments + count, std::string_view("--out"));
    return found == end || found + 1 == end ? "" : *(found + 1);
}

void Run(int count, char **arguments)
{
    const NullHost host;
    const Works works;
    const std::string path = OutPath(count, arguments);
    if (path.empty()) {
        benchmark::Initialize(&count, arguments);
        RunBenchmarks(works);
        return;
    }
    const bool quick = std::find(arguments, arguments + count, std::string_view("--quick")) != arguments + count;
    WritePairs(works, quick ? kQuick : kUsual, path);
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
