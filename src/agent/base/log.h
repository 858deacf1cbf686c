// The agent's log on standard error, and what the module reported while one message was handled.
#ifndef KAVEL_AGENT_LOG_H
#define KAVEL_AGENT_LOG_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

namespace kavel::agent {

enum class LogLevel { kError, kWarning, kNotice, kDebug };

std::optional<LogLevel> LogLevelByName(std::string_view name);

// Lines that matter less than `threshold` are not written.
void SetLogThreshold(LogLevel threshold);

// Writes one line; a trailing line feed in the text is neither needed nor doubled.
void Log(LogLevel level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// While one lives, lines of the module are not written; its errors are kept in ModuleErrors() all the same.
class ModuleSilence {
  public:
    ModuleSilence();
    ModuleSilence(const ModuleSilence &) = delete;
    ModuleSilence &operator=(const ModuleSilence &) = delete;
    ~ModuleSilence();
};

// The error messages of the module, oldest first, without prefix.
class ErrorTrail {
  public:
    void Add(std::string message);
    void Clear() { messages_.clear(); }

    // The message that says why a call of the module ended in `result`: the innermost of those that pass the same
    // number up. Empty when there is none.
    [[nodiscard]] std::string Cause(std::int32_t result) const;

  private:
    static constexpr std::size_t kMessagesMax = 64;

    std::deque<std::string> messages_;
};

// What the module has reported since the last Clear().
ErrorTrail &ModuleErrors();

} // namespace kavel::agent

#endif
