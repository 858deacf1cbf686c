// Nothing is worth timing that did not work.
#ifndef BENCH_EXPECT_H
#define BENCH_EXPECT_H

#include <stdexcept>
#include <string>
#include <string_view>

namespace kavel::bench {

// Throws std::runtime_error with `what` unless it worked.
inline void Expect(bool worked, std::string_view what)
{
    if (!worked) {
        throw std::runtime_error(std::string(what));
    }
}

} // namespace kavel::bench

#endif
