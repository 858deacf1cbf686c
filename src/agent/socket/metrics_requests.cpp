// The request for metrics.
#include <cerrno>
#include <chrono>
#include <utility>

#include "base/procfs.h"
#include "socket/metrics_document.h"
#include "socket/requests.h"

namespace kavel::agent {
namespace {

// As many as there can be clients. Clients that have disconnected do not cancel theirs.
constexpr std::size_t kMetricsMax = 64;

} // namespace

AgentFacts Requests::Facts() const
{
    const auto uptime = std::chrono::duration_cast<std::chrono::seconds>(EventLoop::Clock::now() - startedAt_);
    return {.version = KAVEL_VERSION,
            .startTime = static_cast<std::uint64_t>(startTime_),
            .uptimeSeconds = static_cast<std::uint64_t>(uptime.count()),
            .memoryBytes = OwnMemory(),
            .storeFailures = host_.store.Failures(),
            .isStarting = supervisor_.Progress().has_value()};
}

void Requests::BeginMetrics(const Respond &respond)
{
    if (metrics_.size() >= kMetricsMax) {
        respond(Refusal(-EBUSY, "the agent handles " + std::to_string(kMetricsMax) + " requests for metrics already"));
        return;
    }
    const auto pending = metrics_.insert(metrics_.end(), PendingMetrics{respond, std::nullopt});
    pending->query.emplace(loop_, host_, instances_, supervisor_, ServedVpns(),
                           [this, pending](const MetricsQuery::Collected &collected) {
                               Answer answer;
                               answer.metrics = MetricsDocument(Facts(), collected.vpns, collected.counters, messages_);
                               pending->respond(answer);
                               metrics_.erase(pending);
                           });
}

} // namespace kavel::agent
