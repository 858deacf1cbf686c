// Real processes for the tests of the process services.
#ifndef CONTRACT_PROCESS_LAB_H
#define CONTRACT_PROCESS_LAB_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "unique_fd.h"

namespace kavel::contract {

// Kills the processes that it started when it is destroyed.
class ProcessLab {
  public:
    ProcessLab() = default;
    ProcessLab(const ProcessLab &) = delete;
    ProcessLab &operator=(const ProcessLab &) = delete;
    ~ProcessLab();

    // A shell that has the arguments of a DNS instance, and waits. Without `endsWhenAsked` it ignores SIGTERM.
    pid_t StartInstance(std::uint32_t vpn, bool endsWhenAsked);
    // Another program that waits.
    pid_t StartStranger();
    pid_t EndedProcess();
    pid_t Zombie();

    // False for a zombie.
    static bool IsRunning(pid_t pid);

  private:
    // Returns when the shell has written a line.
    pid_t StartShell(std::vector<std::string> words);

    std::vector<pid_t> children_;
    std::vector<UniqueFd> inputs_;
};

} // namespace kavel::contract

#endif
