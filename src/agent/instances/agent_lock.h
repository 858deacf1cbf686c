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
    // `pid` is 0 when it is not known.
    explicit AlreadyRunning(pid_t pid)
        : std::runtime_error(pid != 0 ? "already running as pid " + std::to_string(pid) : "already running")
    {
    }
};

// Held for as long as the object lives. The kernel releases it with the process, however that ends. The file has mode
// 0600 and belongs to the agent's user, whatever it was before: a user who may read it could hold a read lock on it and
// block the next start.
class AgentLock {
  public:
    // Locks the file at `path` and writes the process id into it. Throws AlreadyRunning if another process holds the
    // lock, or if one serves the control socket at `controlSocket`: an agent whose lock file was removed. Throws
    // std::system_error for other failures.
    explicit AgentLock(const std::string &controlSocket, std::string path = "/run/kavel/agent.pid");

  private:
    void Open();
    [[nodiscard]] pid_t FindHolder() const;
    void Acquire() const;
    void WritePid() const;

    std::string path_;
    UniqueFd file_;
};

} // namespace kavel::agent

#endif
