// A point in time until which something may take.
#ifndef KAVEL_COMMON_DEADLINE_H
#define KAVEL_COMMON_DEADLINE_H

#include <algorithm>
#include <chrono>
#include <limits>

namespace kavel {

// Uses the steady clock, so that a change of the system time does not move it.
class Deadline {
  public:
    using Clock = std::chrono::steady_clock;

    // `timeout` from now. A timeout that the clock cannot represent never ends; a negative one has passed.
    explicit Deadline(std::chrono::milliseconds timeout) : time_(TimeAfter(timeout)) {}

    [[nodiscard]] bool HasPassed() const { return Clock::now() >= time_; }

    // The time left, rounded up to milliseconds so that a wait does not end early; 0 when the deadline has passed.
    [[nodiscard]] std::chrono::milliseconds Remaining() const
    {
        using std::chrono::milliseconds;
        return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(time_ - Clock::now()));
    }

    // Remaining() as the timeout of poll() and its like: milliseconds, 0 to INT_MAX. A wait may have to be repeated.
    [[nodiscard]] int PollTimeout() const
    {
        constexpr std::chrono::milliseconds::rep kLongest = std::numeric_limits<int>::max();
        return static_cast<int>(std::min(Remaining().count(), kLongest));
    }

  private:
    static Clock::time_point TimeAfter(std::chrono::milliseconds timeout)
    {
        const Clock::time_point now = Clock::now();
        const auto longest = std::chrono::floor<std::chrono::milliseconds>(Clock::time_point::max() - now);
        return now + std::clamp(timeout, -longest, longest);
    }

    Clock::time_point time_;
};

} // namespace kavel

#endif
