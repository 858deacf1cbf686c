// What the broker has about the boxes of a fleet, and the one place that tells which of them are behind.
#ifndef KAVEL_FLEET_FLEET_STATE_H
#define KAVEL_FLEET_FLEET_STATE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "presence.h"
#include "report.h"
#include "revision.h"
#include "session.h"

namespace kavel::fleet {

// A VPN of a box. The texts are single lines from outside: they are not printable yet.
struct VpnState {
    std::optional<broker::Revision> wanted; // absent: nothing is published for it
    std::string wantedProblem;              // why the published message does not count; empty: it does
    std::optional<broker::Report> report;
    std::string reportProblem; // why the report cannot be read; empty: it can, or there is none

    [[nodiscard]] bool IsEmpty() const { return !wanted && wantedProblem.empty() && !report && reportProblem.empty(); }
};

struct BoxState {
    std::optional<broker::Presence> presence; // absent: it never was online
    std::string presenceProblem;              // why its presence cannot be read
    std::map<std::uint32_t, VpnState> vpns;
    bool hasTooManyVpns = false; // more than kVpnsMax: the others are passed over

    [[nodiscard]] bool IsOnline() const { return presence && presence->online; }
    [[nodiscard]] bool IsEmpty() const { return !presence && presenceProblem.empty() && vpns.empty(); }
};

inline constexpr std::size_t kVpnsMax = 4096; // of one box

// How a VPN stands to what is wanted.
enum class Standing {
    kNothingWanted, // nothing is published for it
    kApplied,       // the wanted revision is in force, and its service is as it says
    kRefused,       // the box has refused the wanted revision
    kNotRunning,    // it is in force, but no instance runs, or it is not known yet whether one does
    kStillRunning,  // it switches the service off, but an instance runs
    kNotInForce,    // it was applied, and something else is in force now, or nothing
    kOffline,       // it is not reported, and the box is not online
    kNotReported,   // it is not reported, and the box is online
    kNewer,         // a newer revision is reported than the wanted one
    kUnreadable,    // the report or the published message cannot be read
};

inline constexpr std::size_t kStandings = static_cast<std::size_t>(Standing::kUnreadable) + 1;

// The word in JSON and in metrics: "not_reported".
[[nodiscard]] std::string_view NameOf(Standing standing);

// Whether the VPN is not as it is wanted.
[[nodiscard]] bool IsBehind(Standing standing);

// Whether only another message changes it: waiting does not.
[[nodiscard]] bool IsFinal(Standing standing);

struct Verdict {
    Standing standing = Standing::kNothingWanted;
    std::string text; // for people, one printable line: "refused: dnshosts[0].ip: ..."
};

// `vpn` is one of the VPNs of `box`.
[[nodiscard]] Verdict Judge(const BoxState &box, const VpnState &vpn);

// What is wrong with what a box says of itself: one printable line; empty: nothing.
[[nodiscard]] std::string ProblemOf(const BoxState &box);

class FleetState {
  public:
    // Only the boxes for which `isMeant` is true count; an empty function: all.
    explicit FleetState(std::function<bool(const std::string &box)> isMeant = {}) : isMeant_(std::move(isMeant)) {}

    // Takes over what a message says. Returns the box that it is about; nothing if its topic is none of a fleet, or of
    // a box that does not count. What cannot be read is kept as a problem of the box; an empty payload removes what was
    // there. The payload of a wanted message is not kept.
    std::optional<std::string> Take(const broker::Message &message);

    [[nodiscard]] const std::map<std::string, BoxState> &Boxes() const { return boxes_; }
    // Null: nothing is known about it.
    [[nodiscard]] const BoxState *Find(const std::string &box) const;

  private:
    std::function<bool(const std::string &box)> isMeant_;
    std::map<std::string, BoxState> boxes_;
};

// Counts for a summary and for metrics.
struct FleetCounts {
    std::size_t boxes = 0;
    std::size_t online = 0;
    std::size_t behind = 0; // boxes of which a VPN is behind
    std::map<Standing, std::size_t> vpns = {};
};

[[nodiscard]] FleetCounts CountsOf(const FleetState &state);

// Whether a VPN of the box is behind.
[[nodiscard]] bool IsBehind(const BoxState &box);

} // namespace kavel::fleet

#endif
