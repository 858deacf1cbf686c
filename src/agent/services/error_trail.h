// The error messages that the module reported, and the one among them that says why a call failed.
#ifndef KAVEL_AGENT_ERROR_TRAIL_H
#define KAVEL_AGENT_ERROR_TRAIL_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

namespace kavel::agent {

// The newest 64 error messages of the module, oldest first, without prefix and trailing line feed.
class ErrorTrail {
  public:
    void Add(std::string message);
    void Clear() { messages_.clear(); }

    // The message that says why a call of the module ended in `result`, a negated errno: the innermost of those that
    // pass the same number up. Nothing when there is none.
    [[nodiscard]] std::optional<std::string> Cause(std::int32_t result) const;

    // The oldest message that is about a failure. Nothing when there is none.
    [[nodiscard]] std::optional<std::string> First() const;

  private:
    std::deque<std::string> messages_;
};

} // namespace kavel::agent

#endif
