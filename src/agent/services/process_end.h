// Ends a process, and nothing but that process.
#ifndef KAVEL_AGENT_PROCESS_END_H
#define KAVEL_AGENT_PROCESS_END_H

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <utility>

#include "unique_fd.h"

namespace kavel::agent {

// A process that stays the same one when its pid is used again. Signals and waits go through a pidfd.
class ProcessHandle {
  public:
    // Nothing when there is no such process, or it has ended. Throws std::system_error on other failures.
    static std::optional<ProcessHandle> Open(pid_t pid);

    [[nodiscard]] pid_t Pid() const { return pid_; }
    // The pidfd, for a loop: it is readable when the process has ended.
    [[nodiscard]] int Fd() const { return handle_.Get(); }

    // A process that has ended already is no failure. Throws std::system_error.
    void Signal(int signal) const;

    // Waits until the process has ended. Whether it did. Throws std::system_error.
    [[nodiscard]] bool EndsWithin(std::chrono::milliseconds timeout) const;

  private:
    ProcessHandle(pid_t pid, UniqueFd handle) : pid_(pid), handle_(std::move(handle)) {}

    pid_t pid_;
    UniqueFd handle_;
};

} // namespace kavel::agent

#endif
