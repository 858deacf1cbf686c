// `vqctl status`.
#ifndef KAVEL_CTL_STATUS_COMMAND_H
#define KAVEL_CTL_STATUS_COMMAND_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "session.h"

namespace kavel::ctl {

struct StatusOptions {
    std::optional<std::uint32_t> vpn = std::nullopt;          // nothing: all VPNs
    bool problemsOnly = false;                                // only VPNs with problems
    std::optional<std::string> columns = std::nullopt;        // "vpn,state,memory"; "help": print their names
    std::optional<std::string> sort = std::nullopt;           // "memory"; "-memory": in descending order
    std::optional<std::chrono::seconds> watch = std::nullopt; // print again after this time, until a signal
    bool isTerminal = false;                                  // --watch clears it before it prints again
};

// Prints the state of one VPN, or of all. While the agent is starting, the output begins with how far the start is.
// With `watch` it does not return: SIGINT and SIGTERM end the process with the exit code of the last state. It returns
// only if standard output cannot be written.
int Status(const Session &session, const StatusOptions &options);

} // namespace kavel::ctl

#endif
