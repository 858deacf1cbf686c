// Measures a piece of work and its floor alternately, so that other load on the machine affects both.
#ifndef BENCH_PAIRS_H
#define BENCH_PAIRS_H

#include <array>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <optional>
#include <ostream>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kavel::bench {

struct Comparison {
    std::string work;
    std::uint64_t n;  // size of the input; its meaning depends on the work
    std::string unit; // of the values: "s", "bytes", "count" or "queries"
    std::string floorName;
    std::optional<double> target; // aim: the largest ratio of ours to floor
    std::vector<double> ours;
    std::vector<double> floor; // floor[i] is measured next to ours[i]
};

// Processor time of this process, for work that never waits: other load on the machine does not count.
struct CpuClock {
    using duration = std::chrono::nanoseconds;
    using time_point = std::chrono::time_point<CpuClock, duration>;

    static time_point now()
    {
        timespec spent{};
        static_cast<void>(clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &spent));
        return time_point(std::chrono::seconds(spent.tv_sec) + std::chrono::nanoseconds(spent.tv_nsec));
    }
};

template <typename Clock = std::chrono::steady_clock, typename Work>
double SecondsOf(Work &&work)
{
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Appends one pair: the mean seconds of each over `repetitions` (at least 1). Both run alternately, and the one that
// comes first alternates too.
template <typename Clock = std::chrono::steady_clock, typename Ours, typename Floor>
void AppendPair(Comparison &comparison, std::size_t repetitions, Ours &&ours, Floor &&floor)
{
    double oursTotal = 0;
    double floorTotal = 0;
    for (std::size_t i = 0; i < repetitions; ++i) {
        const bool oursFirst = (comparison.ours.size() + i) % 2 == 0;
        oursTotal += oursFirst ? SecondsOf<Clock>(ours) : 0;
        floorTotal += SecondsOf<Clock>(floor);
        oursTotal += oursFirst ? 0 : SecondsOf<Clock>(ours);
    }
    comparison.ours.push_back(oursTotal / static_cast<double>(repetitions));
    comparison.floor.push_back(floorTotal / static_cast<double>(repetitions));
}

inline void PrintValues(std::ostream &out, std::span<const double> values)
{
    const char *separator = "[";
    for (const double value : values) {
        out << std::exchange(separator, ", ") << value;
    }
    out << ']';
}

// The names contain no characters that JSON escapes.
inline void PrintJson(std::ostream &out, const Comparison &comparison)
{
    out << R"({"work": ")" << comparison.work << R"(", "n": )" << comparison.n << R"(, "unit": ")" << comparison.unit
        << R"(", "ours": )";
    PrintValues(out, comparison.ours);
    out << R"(, "floor_name": ")" << comparison.floorName << R"(", "floor": )";
    PrintValues(out, comparison.floor);
    out << R"(, "target": )";
    if (comparison.target) {
        out << *comparison.target << '}';
    } else {
        out << "null}";
    }
}

// Replaces the file with an array of the comparisons. Throws std::runtime_error if the write fails.
inline void WriteJson(const std::string &path, std::span<const Comparison> comparisons)
{
    constexpr int kDigits = 9;
    std::ofstream file(path);
    file.precision(kDigits);
    const char *separator = "[\n";
    for (const Comparison &comparison : comparisons) {
        file << std::exchange(separator, ",\n");
        PrintJson(file, comparison);
    }
    file << "\n]\n";
    if (!file.flush()) {
        throw std::runtime_error(path + ": write failed");
    }
}

} // namespace kavel::bench

#endif
