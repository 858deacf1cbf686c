// Stops a benchmark whose work fails: its time would mean nothing.
#ifndef BENCH_EXPECT_H
#define BENCH_EXPECT_H

#include <stdexcept>
#include <string>
#include <string_view>

namespace kavel::bench {

// Throws std::runtime_error with `what` if `succeeded` is false.
inline void Expect(bool succeeded, std::string_view what)
{
    if (!succeeded) {
        throw std::runtime_error(std::string(what));
    }
}

} // namespace kavel::bench

#endif
