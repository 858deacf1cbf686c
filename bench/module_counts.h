// Counts memory operations. Counting takes time, so that it has a run of its own.
#ifndef BENCH_MODULE_COUNTS_H
#define BENCH_MODULE_COUNTS_H

#include <cstddef>
#include <cstdint>

namespace kavel::bench {

struct Counts {
    std::uint64_t allocations = 0;  // including those of libraries
    std::int64_t liveBytes = 0;     // allocated and not yet freed
    std::int64_t peakBytes = 0;     // largest value of liveBytes
    std::uint64_t copiedBytes = 0;  // memcpy and formatted text, without libraries
    std::uint64_t clearedBytes = 0; // memset by the module, and calloc
};

void StartCounting();
Counts StopCounting();
// For text that is written without memcpy.
void CountCopied(std::size_t bytes);

template <typename Work>
Counts CountsOf(Work &&work)
{
    StartCounting();
    work();
    return StopCounting();
}

} // namespace kavel::bench

#endif
