// The commands that tell what a message changes, and that take a change back.
#ifndef KAVEL_CTL_CHANGE_COMMANDS_H
#define KAVEL_CTL_CHANGE_COMMANDS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "session.h"

namespace kavel::ctl {

// Prints for each file what its message would change, and whether this needs a restart of the instance. If any file is
// bad, nothing is asked. Returns kRefused when something would change, or when a message would be refused.
int Diff(const Session &session, const Messages &files);

// Applies a message of the VPN's history again. `number` counts from 1, the newest message; without it, it is the
// newest one that was applied, was not undone, and differs from what is in force. The instance is restarted if it does
// not run or the changes need it.
int Rollback(const Session &session, std::uint32_t vpn, std::optional<std::uint32_t> number);

} // namespace kavel::ctl

#endif
