// How long to wait before the next attempt, so that 100,000 boxes do not come back at once.
#ifndef KAVEL_BROKER_BACKOFF_H
#define KAVEL_BROKER_BACKOFF_H

#include <chrono>
#include <cstdint>
#include <random>

namespace kavel::broker {

// The range doubles with each failure, from 1 s up to 60 s; the delay is a random one between half of it and all of it.
class Backoff {
  public:
    static constexpr std::chrono::milliseconds kFirst{1000};
    static constexpr std::chrono::milliseconds kLast{60'000};

    explicit Backoff(std::uint32_t seed = std::random_device{}()) : random_(seed) {}

    // The delay before the next attempt.
    [[nodiscard]] std::chrono::milliseconds Next();
    // An attempt has succeeded.
    void Reset() { range_ = kFirst; }

  private:
    std::minstd_rand random_;
    std::chrono::milliseconds range_ = kFirst;
};

} // namespace kavel::broker

#endif
