// Lets dnsmasq check the files of an instance, without starting one.
#ifndef KAVEL_AGENT_DRY_START_H
#define KAVEL_AGENT_DRY_START_H

#include <functional>
#include <optional>
#include <string>

#include "event_loop.h"
#include "services/process_end.h"
#include "unique_fd.h"

namespace kavel::agent {

inline constexpr const char *kDnsmasqProgram = "/usr/sbin/dnsmasq";

// Destroying it ends the check.
class DryStart {
  public:
    // What dnsmasq says about the files; nothing when it would start with them, or when it cannot be asked.
    using OnEnd = std::function<void(const std::optional<std::string> &reason)>;

    // Runs `program --test` with the configuration file. The loop calls `onEnd` once, after 2 s at most; it may destroy
    // this object. `loop` must outlive this object. Throws std::system_error.
    DryStart(EventLoop &loop, const char *program, const std::string &configuration, OnEnd onEnd);
    DryStart(const DryStart &) = delete;
    DryStart &operator=(const DryStart &) = delete;
    ~DryStart();

  private:
    void End(bool hasEnded);
    [[nodiscard]] std::optional<std::string> Reason() const;

    UniqueFd output_;
    std::optional<ProcessHandle> process_;
    OnEnd onEnd_;
    EventSource ended_;
    EventSource timer_;
};

} // namespace kavel::agent

#endif
