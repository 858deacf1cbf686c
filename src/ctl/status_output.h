// The output of `vqctl status`: a table for people, JSON for programs.
#ifndef KAVEL_CTL_STATUS_OUTPUT_H
#define KAVEL_CTL_STATUS_OUTPUT_H

#include <cstdint>
#include <span>
#include <string>

#include "control.pb-c.h"

namespace kavel::ctl {

using StatusList = std::span<const Kavel__VpnStatus *const>;

// "45s", "3m12s", "2h05m", "4d03h".
std::string UptimeText(std::uint64_t seconds);

// "512B", "1.8M"; the units are powers of 1024.
std::string MemoryText(std::uint64_t bytes);

struct StatusView {
    std::uint64_t now = 0;      // Unix time in seconds: the times of the status are shown relative to it
    bool withRevisions = false; // below the table: the revision of the message in force
    bool colour = false;        // of the states
};

// A row for each VPN. Below the rows, for each VPN: its problems, how often its instance ended and how often something
// was repaired (one line each, if it ever happened), and its revision. The state of a VPN is "failed" when it has
// problems, "starting" while its instance has not written a pid file, "running" when its process is alive, and
// "stopped" otherwise.
std::string StatusTable(StatusList vpns, const StatusView &view);

// An array with one object for each VPN. The members are the fields of VpnStatus in control.proto, under the same
// names, and `state`, the word in the table. An optional field that is absent is null; `starting` is false then.
// What has happened to the VPN (`ends` to `next_start_time` in control.proto) and the revision have no member when they
// are absent. What must not reach a terminal is escaped.
std::string StatusJson(StatusList vpns);

// The line "starting: 120 of 300 VPNs are back".
std::string StartText(const Kavel__Start &start);

// Whether any VPN has a problem. "starting", an instance that ended and a repair are none.
bool AnyProblem(StatusList vpns);

// Whether `fd` is a terminal and the environment variable NO_COLOR is unset or empty.
bool WantsColour(int fd);

} // namespace kavel::ctl

#endif
