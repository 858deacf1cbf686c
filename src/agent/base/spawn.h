// Starts programs in the background.
#ifndef KAVEL_AGENT_SPAWN_H
#define KAVEL_AGENT_SPAWN_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace kavel::agent {

inline constexpr int kNowhere = -1;

// Descriptors of the new process. kNowhere: /dev/null, or none.
struct SpawnFiles {
    int output = kNowhere; // its standard output
    int errors = kNowhere; // its standard error
    int kept = kNowhere;   // keeps open, as the first descriptor after the standard ones
};

// Starts a program with the default signal mask and dispositions, in a session of its own and in the root directory: it
// may outlive the agent and keeps nothing of it but `files`. `arguments` begins with the program's name. The caller, or
// the ChildReaper, waits for it. Throws std::system_error.
[[nodiscard]] pid_t SpawnDetached(const char *program, std::vector<std::string> arguments, const SpawnFiles &files);

} // namespace kavel::agent

#endif
