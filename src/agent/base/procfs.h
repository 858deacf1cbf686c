// Reads processes from /proc.
#ifndef KAVEL_AGENT_PROCFS_H
#define KAVEL_AGENT_PROCFS_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kavel::agent {

struct Process {
    bool alive = false;     // it exists and is no zombie
    bool isStopped = false; // by a signal or a debugger
    std::string name;       // as the kernel keeps it, 15 characters at most
    std::string executable;
    std::optional<uid_t> executableOwner; // nothing when others can write the file, too
    std::string commandLine;              // as the kernel keeps it: each argument with its terminator
    pid_t parent = 0;
    uid_t user = 0;              // the effective one
    std::uint64_t startTime = 0; // in clock ticks since the box has started
    std::uint64_t uptimeSeconds = 0;
    std::uint64_t memoryBytes = 0; // resident
};

// The process with this pid; one that is not alive when there is none.
[[nodiscard]] Process InspectProcess(pid_t pid);

// Resident memory of this process, in bytes; 0 when it cannot be read.
[[nodiscard]] std::uint64_t OwnMemory();

// The arguments as the kernel keeps them, each with its terminator. Empty for a zombie.
[[nodiscard]] std::string ReadCommandLine(pid_t pid);

// The processes that this one has forked and that still exist, zombies included.
[[nodiscard]] std::vector<pid_t> ChildrenOf(pid_t pid);

// The ids of all processes.
[[nodiscard]] std::vector<pid_t> AllProcesses();

} // namespace kavel::agent

#endif
