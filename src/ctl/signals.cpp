#include "signals.h"

#include <cerrno>
#include <poll.h>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

namespace kavel::ctl {

namespace {

// A blocked signal is queued even if it is ignored, as by a shell for a command in the background.
bool IsIgnored(int signal)
{
    struct sigaction action = {};
    return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

} // namespace

SignalWatch::SignalWatch()
{
    ::sigemptyset(&watched_);
    for (const int signal : {SIGINT, SIGTERM}) {
        if (!IsIgnored(signal)) {
            ::sigaddset(&watched_, signal);
        }
    }
    fd_ = UniqueFd(::signalfd(-1, &watched_, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd_) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    ::pthread_sigmask(SIG_BLOCK, &watched_, &before_);
}

SignalWatch::~SignalWatch()
{
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

bool SignalWatch::IsPending() const
{
    pollfd waited{fd_.Get(), POLLIN, 0};
    return ::poll(&waited, 1, 0) == 1;
}

std::optional<int> SignalWatch::Take() const
{
    signalfd_siginfo info{};
    const bool isRead = ::read(fd_.Get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info);
    return isRead ? std::optional(static_cast<int>(info.ssi_signo)) : std::nullopt;
}

} // namespace kavel::ctl
