// Reaps the children that a process inherits.
#ifndef KAVEL_AGENT_CHILD_REAPER_H
#define KAVEL_AGENT_CHILD_REAPER_H

#include "base/event_loop.h"

namespace kavel::agent {

// Reaps every child that has ended, now and while the loop runs, for as long as the returned source lives. Process 1 of
// a box or a container needs this: it becomes the parent of every process whose parent has ended. A child whose result
// the agent needs must be waited for before the loop runs again. SIGCHLD is blocked from now on. Throws
// std::system_error.
[[nodiscard]] EventSource ReapChildren(EventLoop &loop);

} // namespace kavel::agent

#endif
