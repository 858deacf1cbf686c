// The log of what is dropped: who can publish can send a million of unusable messages.
#ifndef KAVEL_LINK_DROP_LOG_H
#define KAVEL_LINK_DROP_LOG_H

#include <chrono>
#include <cstdint>
#include <string>

namespace kavel::link {

// Writes kLinesMax lines in each kInterval. The first line after them is preceded by the number of those that were left
// out.
class DropLog {
  public:
    using Time = std::chrono::steady_clock::time_point;

    static constexpr std::uint32_t kLinesMax = 20;
    static constexpr std::chrono::seconds kInterval{60};

    void Write(Time now, const std::string &line);

  private:
    Time begin_{};            // of the interval
    std::uint32_t lines_ = 0; // in it, with those that were left out
};

} // namespace kavel::link

#endif
