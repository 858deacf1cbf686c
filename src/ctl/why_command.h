// vqctl why: what keeps a name from resolving, and what mends it.
#ifndef KAVEL_CTL_WHY_COMMAND_H
#define KAVEL_CTL_WHY_COMMAND_H

#include <cstdint>
#include <optional>

#include "session.h"

namespace kavel::ctl {

// Prints two lines for each finding about one VPN, or about all; nothing when all is well. Returns kRefused when there
// are findings, and kStarting while the agent is starting. Throws AgentError.
int Why(const Session &session, std::optional<std::uint32_t> vpn);

} // namespace kavel::ctl

#endif
