// The signals by which a user ends a command.
#ifndef KAVEL_CTL_SIGNALS_H
#define KAVEL_CTL_SIGNALS_H

#include <csignal>
#include <optional>

#include "unique_fd.h"

namespace kavel::ctl {

// While it exists, SIGINT and SIGTERM do not end the program but make Fd() readable; one that the program ignores stays
// ignored. Works for a program of one thread, or for the thread that makes it.
class SignalWatch {
  public:
    SignalWatch(); // throws std::system_error
    ~SignalWatch();
    SignalWatch(const SignalWatch &) = delete;
    SignalWatch &operator=(const SignalWatch &) = delete;

    [[nodiscard]] int Fd() const { return fd_.Get(); }
    // Whether one has come that Take() has not returned yet.
    [[nodiscard]] bool IsPending() const;
    // The signal that has come, if one has. Returns each once.
    [[nodiscard]] std::optional<int> Take() const;

  private:
    sigset_t watched_{};
    sigset_t before_{};
    UniqueFd fd_;
};

} // namespace kavel::ctl

#endif
