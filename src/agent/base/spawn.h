// Starts programs in the background.
#ifndef KAVEL_AGENT_SPAWN_H
#define KAVEL_AGENT_SPAWN_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace kavel::agent {

inline constexpr int kNowhere = -1;

// What the new process gets. A descriptor that is kNowhere: /dev/null, or none.
struct SpawnOptions {
    int output = kNowhere;  // its standard output
    int errors = kNowhere;  // its standard error
    int kept = kNowhere;    // it keeps this one, as the first descriptor after the standard ones
    bool inEnglish = false; // its messages are read by the agent
};

// Starts a program with the default signal mask and dispositions, in a session of its own and in the root directory: it
// may outlive the agent and keeps nothing of it but what `options` say. `arguments` begins with the program's name. The
// caller, or the ChildReaper, waits for it. Throws std::system_error.
[[nodiscard]] pid_t SpawnDetached(const char *program, std::vector<std::string> arguments, const SpawnOptions &options);

} // namespace kavel::agent

#endif
