// What /proc tells about a process.
#ifndef KAVEL_AGENT_PROCFS_H
#define KAVEL_AGENT_PROCFS_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kavel::agent {

struct Process {
    bool alive = false; // it exists and is no zombie
    std::string name;   // as the kernel keeps it, 15 characters at most
    std::string executable;
    std::vector<std::string> arguments;
    std::uint64_t uptimeSeconds = 0;
    std::uint64_t memoryBytes = 0; // resident

    [[nodiscard]] bool HasArgument(std::string_view argument) const;
    // In any of the arguments.
    [[nodiscard]] bool Mentions(std::string_view text) const;
};

Process InspectProcess(pid_t pid);

// The arguments as the kernel keeps them, each with its terminator. Empty for a zombie.
std::string ReadCommandLine(pid_t pid);

// Every process id there is.
std::vector<pid_t> AllProcesses();

} // namespace kavel::agent

#endif
