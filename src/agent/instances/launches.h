// Instances that were launched and are on their way up.
#ifndef KAVEL_AGENT_LAUNCHES_H
#define KAVEL_AGENT_LAUNCHES_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <vector>

#include "unique_fd.h"

namespace kavel::agent {

// An instance writes its pid file once it holds its ports: then it is up. It is given up as soon as no process of it is
// left, and at the latest after its patience.
class Launches {
  public:
    using Ended = std::function<void(bool isUp)>;

    // Throws std::system_error.
    Launches();

    // Can be read when it is time to Look().
    [[nodiscard]] int Fd() const { return both_.Get(); }

    // The VPN has none under way. `ended` is called once, possibly before this returns.
    void Add(std::uint32_t vpnId, std::chrono::milliseconds patience, Ended ended);

    // Ends those that are up or given up.
    void Look();

    // Returns once the VPN, or every one, has none under way; others may end meanwhile.
    void Await(std::uint32_t vpnId);
    void AwaitAll();

  private:
    using Clock = std::chrono::steady_clock;

    struct Launch {
        Clock::time_point since;
        Clock::time_point deadline;
        bool wasSeen; // a process of it, when it was checked last
        Ended ended;
    };

    // The VPNs whose pid files were written.
    [[nodiscard]] std::set<std::uint32_t> TakeNews() const;
    void CheckSilent();
    [[nodiscard]] std::vector<std::uint32_t> SilentOnesThatEnded(Clock::time_point now);
    void End(std::uint32_t vpnId, bool isUp);
    void SetTimer(Clock::duration delay) const;
    void AwaitNews();

    std::map<std::uint32_t, Launch> launches_;
    UniqueFd pidFiles_; // tells of them as they are written; empty when the box has no inotify instance left
    UniqueFd timer_;
    UniqueFd both_;
};

// Waits until launched instances have ended their launch. Those that did not come up.
std::set<std::uint32_t> AwaitStarts(Launches &launches, const std::set<std::uint32_t> &vpnIds,
                                    std::chrono::milliseconds patience);

} // namespace kavel::agent

#endif
