// Instances that were launched and have not written their pid file yet.
#ifndef KAVEL_AGENT_PENDING_LAUNCHES_H
#define KAVEL_AGENT_PENDING_LAUNCHES_H

#include <sys/inotify.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "event_loop.h"
#include "instances/instances.h"
#include "services/launch_output.h"

namespace kavel::agent {

// How a launch ended. kCancelled: the agent stops waiting; the instance may still come up.
enum class LaunchOutcome { kRunning, kFailed, kCancelled };

// dnsmasq writes its pid file when it holds its ports: then the instance runs, and the agent takes the pid file. A
// launch has failed as soon as dnsmasq has said why it ends, or no process of it is left, and when its timeout has
// passed. Its output is kept until the next launch, or until the instance runs.
class PendingLaunches {
  public:
    using OnEnd = std::function<void(LaunchOutcome outcome)>;

    // Throws std::system_error. The references must outlive this object.
    PendingLaunches(EventLoop &loop, const Instances &instances, LaunchOutputs &outputs);

    // Watches a launch of the VPN, which must have none pending. `onEnd` is called once: by the loop, or before this
    // returns when the instance runs already.
    void Add(std::uint32_t vpnId, std::chrono::milliseconds timeout, OnEnd onEnd);

    [[nodiscard]] bool IsPending(std::uint32_t vpnId) const { return launches_.contains(vpnId); }
    [[nodiscard]] bool IsEmpty() const { return launches_.empty(); }

    // Called for each launch that has ended, after its own `onEnd`.
    using Observer = std::function<void(std::uint32_t vpnId, LaunchOutcome outcome)>;
    void Observe(Observer observer) { observer_ = std::move(observer); }

    // Ends every launch as kCancelled.
    void CancelAll();

  private:
    using Clock = std::chrono::steady_clock;

    struct Launch {
        Clock::time_point since;
        Clock::time_point deadline;
        bool hadProcess; // in the last check
        OnEnd onEnd;
    };

    void ProcessEvents(const inotify_event &event);
    [[nodiscard]] bool IsRunning(std::uint32_t vpnId);
    void CheckQuiet();
    [[nodiscard]] std::vector<std::uint32_t> EndedQuietLaunches(Clock::time_point now);
    void End(std::uint32_t vpnId, LaunchOutcome outcome);
    void Report(std::uint32_t vpnId, LaunchOutcome outcome);

    const Instances &instances_;
    LaunchOutputs &outputs_;
    std::map<std::uint32_t, Launch> launches_;
    Observer observer_;
    std::optional<EventSource> pidFiles_; // nothing when the user has no inotify instance left: the timer serves alone
    EventSource timer_;
};

} // namespace kavel::agent

#endif
