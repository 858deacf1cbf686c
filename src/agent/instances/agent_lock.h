// Allows one agent per box.
#ifndef KAVEL_AGENT_AGENT_LOCK_H
#define KAVEL_AGENT_AGENT_LOCK_H

#include <sys/types.h>

#include <stdexcept>
#include <string>

#include "unique_fd.h"

namespace kavel::agent {

class AlreadyRunning : public std::runtime_error {
  public:
    explicit AlreadyRunning(pid_t pid) : std::runtime_error("already running as pid " + std::to_string(pid)) {}
};

// Held for as long as the object lives. The kernel releases it with the process, however that ends.
class AgentLock {
  public:
    // Throws AlreadyRunning, or std::system_error.
    AgentLock();

  private:
    UniqueFd file_;
};

} // namespace kavel::agent

#endif
