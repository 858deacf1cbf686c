// The command that waits until boxes have what is wanted.
#ifndef KAVEL_FLEET_WAIT_COMMAND_H
#define KAVEL_FLEET_WAIT_COMMAND_H

#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "box_list.h"
#include "config.h"
#include "console.h"
#include "fleet_state.h"
#include "revision.h"

namespace kavel::fleet {

struct WaitOptions {
    BoxSelection selection; // empty: all boxes
    // Only VPNs whose wanted revision is this one or a later one count, and each box must have one; absent: all VPNs.
    std::optional<broker::Revision> revision;
    std::chrono::seconds timeout{300}; // also for the broker
};

// Returns kDone when every wanted revision is reported as applied and its service is as wanted. After the timeout, or
// as soon as only another message could help, it prints a line for each VPN that is behind and returns kBehind. Throws
// InputError, BrokerError and Interrupted.
int Wait(const Console &console, const BrokerOptions &broker, const WaitOptions &options);

// Which boxes are waited for.
class WaitList {
  public:
    // `boxes`: those that are waited for; empty: all that are known.
    WaitList(std::vector<std::string> boxes, std::optional<broker::Revision> revision)
        : boxes_(std::move(boxes)), revision_(revision)
    {
    }

    // Judges all boxes, or one whose state has changed.
    void JudgeAll(const FleetState &state);
    void JudgeBox(const FleetState &state, const std::string &box);

    // All boxes have what is wanted, or those that do not will not get it by waiting.
    [[nodiscard]] bool IsDone() const { return open_.empty(); }
    [[nodiscard]] bool IsReached() const { return behind_.empty(); }
    [[nodiscard]] const std::set<std::string> &Behind() const { return behind_; }
    [[nodiscard]] std::size_t Total() const { return total_; }

    // A line for each VPN of the box that is behind, or one for the box.
    [[nodiscard]] std::vector<std::string> ReasonsOf(const FleetState &state, const std::string &box) const;

  private:
    [[nodiscard]] bool Counts(const VpnState &vpn) const;

    std::vector<std::string> boxes_;
    std::optional<broker::Revision> revision_;
    std::size_t total_ = 0;
    std::set<std::string> behind_;
    std::set<std::string> open_; // of these: waiting may help
};

} // namespace kavel::fleet

#endif
