#include "socket/message_metrics.h"

#include <chrono>

namespace kavel::agent {
namespace {

std::string_view ResultName(const Answer &answer)
{
    if (answer.result < 0) {
        return answer.isNotNewer ? "not_newer" : "refused";
    }
    const bool isRunning = answer.running.value_or(false);
    if (answer.enabled.value_or(isRunning) == isRunning) {
        return "applied";
    }
    return isRunning ? "still_running" : "not_running";
}

} // namespace

Respond MessageMetrics::Counting(const Respond &respond)
{
    using Clock = std::chrono::steady_clock;
    return [this, respond, begun = Clock::now()](const Answer &answer) {
        Count(answer, std::chrono::duration<double>(Clock::now() - begun).count());
        respond(answer);
    };
}

void MessageMetrics::Count(const Answer &answer, double seconds)
{
    ++byResult_[ResultName(answer)];
    durations_.Observe(seconds);
}

void MessageMetrics::AskedFor(std::uint32_t vpnId, const std::optional<std::string> &revision)
{
    if (revision) {
        wanted_[vpnId] = *revision;
    } else {
        wanted_.erase(vpnId);
    }
}

} // namespace kavel::agent
