// Commands that change no configuration: flush, and log level.
#ifndef KAVEL_CTL_OPERATOR_COMMANDS_H
#define KAVEL_CTL_OPERATOR_COMMANDS_H

#include <cstdint>
#include <optional>
#include <string>

#include "session.h"

namespace kavel::ctl {

// Has the instance of a VPN empty its cache.
int Flush(const Session &session, std::uint32_t vpn);

// Has the agent log lines of `level` and of the more important ones, for `time` ("90", "90s", "10m", "24h") or until it
// reads its configuration again. Without a level: prints which one holds.
int LogLevel(const Session &session, const std::optional<std::string> &level, const std::optional<std::string> &time);

} // namespace kavel::ctl

#endif
