// A level of the log that an operator has chosen, in place of the configured one.
#ifndef KAVEL_AGENT_LOG_OVERRIDE_H
#define KAVEL_AGENT_LOG_OVERRIDE_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "event_loop.h"
#include "log.h"

namespace kavel::agent {

// A level that was chosen for a time holds until the time is over, also when the configuration is read again in
// between. One that was chosen without a time holds until the configuration is read again. Neither outlives the agent.
// Each change is logged, whatever the level is.
class LogOverride {
  public:
    // `configured`: the level that holds now. `loop` must outlive this object. Throws std::system_error.
    LogOverride(EventLoop &loop, LogLevel configured);

    // `by` says who has chosen it: "pid 123, uid 0 (vqctl)".
    void Set(LogLevel level, std::optional<std::chrono::seconds> time, const std::string &by);

    // The configuration was read again and has this level.
    void ConfigurationRead(LogLevel configured);

    [[nodiscard]] LogLevel Level() const { return chosen_.value_or(configured_); }
    [[nodiscard]] LogLevel Configured() const { return configured_; }
    // When the configured level holds again, as Unix time in seconds; nothing when no time is set.
    [[nodiscard]] std::optional<std::int64_t> Until() const { return until_; }

  private:
    void End();

    EventSource end_;
    LogLevel configured_;
    std::optional<LogLevel> chosen_;
    std::optional<std::int64_t> until_;
};

} // namespace kavel::agent

#endif
