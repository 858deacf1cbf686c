// Benchmarks of the agent's services, each with the least that the same work costs (its floor).
#ifndef BENCH_SERVICES_H
#define BENCH_SERVICES_H

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "expect.h"
#include "pairs.h"

namespace kavel::bench {

// The configuration has the VPNs 1 to kLastVpn. Only kVpn has a namespace, with the LAN interface kLan.
inline constexpr std::uint32_t kVpn = 7;
inline constexpr std::uint32_t kLastVpn = 1000;
inline constexpr const char *kLan = "lan0";

struct Setting {
    std::size_t pairs;
    std::filesystem::path directory; // for files that are written durably; should be on a disk
};

std::vector<Comparison> CompareRoutes(const Setting &setting);
std::vector<Comparison> CompareRules(const Setting &setting);
std::vector<Comparison> CompareFiles(const Setting &setting);
std::vector<Comparison> CompareStore(const Setting &setting);
std::vector<Comparison> CompareMemory(const Setting &setting);

// Runs a program in the calling thread's namespace and waits for it. Throws if it fails.
void RunProgram(std::vector<std::string> words);

// The number of repetitions of both for a sample of at least 0.4 s, which limits the noise of clock, scheduler and
// disk.
template <typename Ours, typename Floor>
std::size_t RepetitionsFor(Ours &&ours, Floor &&floor)
{
    constexpr double kSampleSeconds = 0.4;
    std::size_t repetitions = 0;
    for (double spent = 0; spent < kSampleSeconds; ++repetitions) {
        spent += SecondsOf(ours) + SecondsOf(floor);
    }
    return repetitions;
}

// Measures work that may be too short to be timed once.
template <typename Ours, typename Floor>
Comparison Compare(const Setting &setting, Comparison comparison, Ours &&ours, Floor &&floor)
{
    const std::size_t repetitions = RepetitionsFor(ours, floor);
    for (std::size_t pair = 0; pair < setting.pairs; ++pair) {
        AppendPair(comparison, repetitions, ours, floor);
    }
    return comparison;
}

} // namespace kavel::bench

#endif
