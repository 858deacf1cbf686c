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

// A row for each VPN, and the problems below the rows. The state of a VPN is "failed" when it has problems, "starting"
// while its instance has not written a pid file, "running" when its process is alive, and "stopped" otherwise. `colour`
// colours the states.
std::string StatusTable(StatusList vpns, bool colour);

// An array with one object for each VPN. The members are the fields of VpnStatus in control.proto, under the same
// names, and `state`, the word in the table. An optional field that is absent is null; `starting` is false then. What
// must not reach a terminal is escaped.
std::string StatusJson(StatusList vpns);

// Whether any VPN has a problem. "starting" is not one.
bool AnyProblem(StatusList vpns);

// Whether `fd` is a terminal and the environment variable NO_COLOR is unset or empty.
bool WantsColour(int fd);

} // namespace kavel::ctl

#endif
