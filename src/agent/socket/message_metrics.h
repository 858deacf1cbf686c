// What became of the messages that clients had applied.
#ifndef KAVEL_AGENT_MESSAGE_METRICS_H
#define KAVEL_AGENT_MESSAGE_METRICS_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "metrics_text.h"
#include "socket/answer.h"

namespace kavel::agent {

class MessageMetrics {
  public:
    // The same respond, which counts the answer and the time from now to it. This object must outlive the result.
    [[nodiscard]] Respond Counting(const Respond &respond);

    // A message for the VPN asks for this revision; without one, nothing is known.
    void AskedFor(std::uint32_t vpnId, const std::optional<std::string> &revision);

    // By what became of them: "applied", "not_running", "still_running", "refused", "not_newer". Each is there from the
    // beginning.
    [[nodiscard]] const std::map<std::string_view, std::uint64_t> &ByResult() const { return byResult_; }
    [[nodiscard]] const Histogram &Durations() const { return durations_; }
    // The revision that the VPN's last message asked for, also of one that was refused.
    [[nodiscard]] const std::map<std::uint32_t, std::string> &WantedRevisions() const { return wanted_; }

  private:
    void Count(const Answer &answer, double seconds);

    std::map<std::string_view, std::uint64_t> byResult_{
        {"applied", 0}, {"not_newer", 0}, {"not_running", 0}, {"refused", 0}, {"still_running", 0}};
    Histogram durations_{{0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10, 30, 60}}; // seconds
    std::map<std::uint32_t, std::string> wanted_;
};

} // namespace kavel::agent

#endif
