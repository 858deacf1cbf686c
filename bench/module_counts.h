// What a piece of work asks of the memory: counted in a run of its own, since counting takes time.
#ifndef BENCH_MODULE_COUNTS_H
#define BENCH_MODULE_COUNTS_H

#include <cstddef>
#include <cstdint>

namespace kavel::bench {

struct Counts {
    std::uint64_t allocations = 0;  // by anybody, libraries too
    std::int64_t liveBytes = 0;     // allocated and not yet released
    std::int64_t peakBytes = 0;     // the most that was
    std::uint64_t copiedBytes = 0;  // block copies and formatted text, outside of libraries
    std::uint64_t clearedBytes = 0; // filled by the module, or asked for zeroed
};

void StartCounting();
Counts StopCounting();
// For text that no block copy shows.
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
