// Reaps the children that nobody waits for: the instances, whose shell has ended, are children of this process.
#ifndef KAVEL_AGENT_CHILD_REAPER_H
#define KAVEL_AGENT_CHILD_REAPER_H

#include <sys/types.h>

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <utility>

#include "event_loop.h"

namespace kavel::agent {

class ChildReaper {
  public:
    // Makes this process the parent of what its children leave behind, and reaps as long as the object lives. Children
    // that a caller waits for itself must be waited for before the loop runs again. `loop` must outlive this object.
    // Throws std::system_error.
    explicit ChildReaper(EventLoop &loop);

    // How the process ended, in plain words: "killed by signal 9", "exited with 2". Nothing when it was no child of
    // this agent, or when many others have ended since.
    [[nodiscard]] std::optional<std::string> EndOf(pid_t pid);

  private:
    static constexpr std::size_t kKept = 256;

    void Reap();

    std::deque<std::pair<pid_t, int>> ended_; // pid and wait status, the newest at the back
    EventSource source_;
};

} // namespace kavel::agent

#endif
