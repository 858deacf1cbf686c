#include "base/child_reaper.h"

#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>

#include "failure.h"

namespace kavel::agent {
namespace {

std::string EndText(int status)
{
    return WIFSIGNALED(status) ? "killed by signal " + std::to_string(WTERMSIG(status))
                               : "exited with " + std::to_string(WEXITSTATUS(status));
}

} // namespace

ChildReaper::ChildReaper(EventLoop &loop)
{
    sigset_t handled;
    sigemptyset(&handled);
    sigaddset(&handled, SIGCHLD);
    if (::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0 || ::sigprocmask(SIG_BLOCK, &handled, nullptr) != 0) {
        ThrowLastErrno("signals");
    }
    source_ = loop.AddSignal(SIGCHLD, [this] { Reap(); });
    Reap(); // those that ended before the signal was blocked
}

// One signal may stand for several children.
void ChildReaper::Reap()
{
    int status = 0;
    for (pid_t pid = 0; (pid = ::waitpid(-1, &status, WNOHANG)) > 0;) {
        ended_.emplace_back(pid, status);
        if (ended_.size() > kKept) {
            ended_.pop_front();
        }
    }
}

std::optional<std::string> ChildReaper::EndOf(pid_t pid)
{
    Reap();
    const auto found = std::ranges::find(ended_.rbegin(), ended_.rend(), pid, &std::pair<pid_t, int>::first);
    return found == ended_.rend() ? std::nullopt : std::optional(EndText(found->second));
}

} // namespace kavel::agent
