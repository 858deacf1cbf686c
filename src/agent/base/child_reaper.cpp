#include "base/child_reaper.h"

#include <sys/wait.h>

#include <csignal>

#include "base/failure.h"

namespace kavel::agent {
namespace {

// One signal may stand for several children.
void ReapEnded()
{
    while (::waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

} // namespace

EventSource ReapChildren(EventLoop &loop)
{
    sigset_t handled;
    sigemptyset(&handled);
    sigaddset(&handled, SIGCHLD);
    if (::sigprocmask(SIG_BLOCK, &handled, nullptr) != 0) {
        ThrowLastErrno("signals");
    }
    EventSource source = loop.AddSignal(SIGCHLD, ReapEnded);
    ReapEnded(); // those that ended before the signal was blocked
    return source;
}

} // namespace kavel::agent
