// The request for metrics.
#include <cerrno>
#include <utility>

#include "socket/metrics_document.h"
#include "socket/requests.h"

namespace kavel::agent {
namespace {

// As many as there can be clients. Clients that have disconnected do not cancel theirs.
constexpr std::size_t kMetricsMax = 64;

} // namespace

AgentMetrics Requests::OwnMetrics() const
{
    return {.status = StatusOfAgent(facts_),
            .startTime = static_cast<std::uint64_t>(startTime_),
            .storeFailures = host_.store.Failures(),
            .isStarting = supervisor_.Progress().has_value()};
}

void Requests::BeginMetrics(const Respond &respond)
{
    if (metrics_.size() >= kMetricsMax) {
        respond(RefusalForNow(-EBUSY,
                              "the agent handles " + std::to_string(kMetricsMax) + " requests for metrics already"));
        return;
    }
    const auto pending = metrics_.insert(metrics_.end(), PendingQuery<MetricsQuery>{respond, std::nullopt});
    pending->query.emplace(
        loop_, host_, instances_, supervisor_, ServedVpns(), [this, pending](const MetricsQuery::Collected &collected) {
            Answer answer;
            answer.metrics = MetricsDocument(OwnMetrics(), collected.vpns, collected.counters, messages_);
            pending->respond(answer);
            metrics_.erase(pending);
        });
}

} // namespace kavel::agent
