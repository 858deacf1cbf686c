// The state of the VPNs, for people and for programs.
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

// "512B", "1.8M": in powers of 1024.
std::string MemoryText(std::uint64_t bytes);

// Aligned columns, and the problems below them. `colour` marks the states.
std::string StatusTable(StatusList vpns, bool colour);

// An array with one object for each VPN, under the names of the control protocol.
std::string StatusJson(StatusList vpns);

// Whether any VPN is not as it should be.
bool AnyProblem(StatusList vpns);

// Whether `fd` is a terminal whose user has not asked for plain text.
bool WantsColour(int fd);

} // namespace kavel::ctl

#endif
