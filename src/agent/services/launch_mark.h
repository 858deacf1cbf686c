// Marks of launches that are under way. An agent that is killed in the middle of one leaves the mark: the next agent
// waits until the launch is visible among the processes, and knows that nobody has confirmed it.
#ifndef KAVEL_AGENT_LAUNCH_MARK_H
#define KAVEL_AGENT_LAUNCH_MARK_H

#include <cstdint>
#include <string>
#include <string_view>

#include "unique_fd.h"

namespace kavel::agent {

inline constexpr std::string_view kLaunchMark = "launch"; // the kind of state file

// Leaves the mark in `path`. The descriptor holds a lock on it, for the agent and for the processes of the launch that
// inherit it; dnsmasq closes it first of all. Nothing when the directory does not exist. Throws std::system_error.
[[nodiscard]] UniqueFd LeaveLaunchMark(const std::string &path);

// Whether the agent that left the mark, or a process that it has launched and that is not dnsmasq yet, still holds it.
[[nodiscard]] bool IsLaunchMarkHeld(const std::string &path);

} // namespace kavel::agent

#endif
