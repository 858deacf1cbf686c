// The metrics of the box, as one text.
#ifndef KAVEL_AGENT_METRICS_DOCUMENT_H
#define KAVEL_AGENT_METRICS_DOCUMENT_H

#include <cstdint>
#include <string>
#include <vector>

#include "instances/agent_facts.h"
#include "instances/dns_counters.h"
#include "instances/status.h"
#include "socket/message_metrics.h"

namespace kavel::agent {

struct AgentMetrics {
    AgentStatus status;
    std::uint64_t startTime = 0; // Unix time, seconds
    std::uint64_t storeFailures = 0;
    bool isStarting = false;
};

[[nodiscard]] std::string MetricsDocument(const AgentMetrics &agent, const std::vector<VpnStatus> &vpns,
                                          const DnsCountersQuery::CountersByVpn &counters,
                                          const MessageMetrics &messages);

// Whether the VPN's own instance runs, in its namespace.
[[nodiscard]] bool IsUp(const VpnStatus &vpn);

} // namespace kavel::agent

#endif
