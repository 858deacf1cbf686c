// How many publications may be sent now.
#ifndef KAVEL_FLEET_RATE_LIMIT_H
#define KAVEL_FLEET_RATE_LIMIT_H

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace kavel::fleet {

// Spreads sendings over time: each takes 1/`perSecond` of a second. Time that was not used is lost, except for 50 ms: a
// timer may come late.
class RateLimit {
  public:
    using Clock = std::chrono::steady_clock;

    // 0: without a limit.
    explicit RateLimit(std::uint32_t perSecond)
        : interval_(perSecond == 0 ? Clock::duration::zero() : Clock::duration(std::chrono::seconds(1)) / perSecond)
    {
    }

    // Whether something may be sent at `now`. If so, it counts as sent.
    [[nodiscard]] bool Take(Clock::time_point now)
    {
        if (interval_ == Clock::duration::zero()) {
            return true;
        }
        if (next_ > now) {
            return false;
        }
        next_ = std::max(next_, now - kSlack) + interval_;
        return true;
    }

    // When the next may be sent.
    [[nodiscard]] Clock::time_point Next() const { return next_; }

  private:
    static constexpr std::chrono::milliseconds kSlack{50};

    Clock::duration interval_;
    Clock::time_point next_ = Clock::time_point::min();
};

} // namespace kavel::fleet

#endif
