#include "services/process_end.h"

#include <poll.h>

// Older C libraries forgot to say that these are C functions.
extern "C" {
#include <sys/pidfd.h>
}

#include <cerrno>

#include "base/high_fd.h"
#include "deadline.h"
#include "failure.h"

namespace kavel::agent {

std::optional<ProcessHandle> ProcessHandle::Open(pid_t pid)
{
    UniqueFd handle(::pidfd_open(pid, 0));
    if (!handle) {
        // EINVAL: the id of a thread.
        if (errno == ESRCH || errno == EINVAL || errno == ENOENT) {
            return std::nullopt;
        }
        ThrowLastErrno("pidfd");
    }
    ProcessHandle process(pid, MoveHigh(std::move(handle)));
    return process.EndsWithin(std::chrono::milliseconds(0)) ? std::nullopt : std::optional(std::move(process));
}

void ProcessHandle::Signal(int signal) const
{
    if (::pidfd_send_signal(handle_.Get(), signal, nullptr, 0) != 0 && errno != ESRCH) {
        ThrowLastErrno("signal");
    }
}

bool ProcessHandle::EndsWithin(std::chrono::milliseconds timeout) const
{
    const Deadline deadline(timeout);
    for (;;) {
        pollfd watched{handle_.Get(), POLLIN, 0};
        const int ready = ::poll(&watched, 1, deadline.PollTimeout());
        if (ready < 0 && errno != EINTR) {
            ThrowLastErrno("pidfd");
        }
        if (ready >= 0) {
            return ready > 0;
        }
    }
}

} // namespace kavel::agent
