#include "backoff.h"

#include <algorithm>

namespace kavel::broker {

std::chrono::milliseconds Backoff::Next()
{
    const std::chrono::milliseconds range = range_;
    range_ = std::min(range_ * 2, kLast);
    std::uniform_int_distribution<std::chrono::milliseconds::rep> delay(range.count() / 2, range.count());
    return std::chrono::milliseconds(delay(random_));
}

} // namespace kavel::broker
