// Collects the metrics without blocking the loop.
#ifndef KAVEL_AGENT_METRICS_QUERY_H
#define KAVEL_AGENT_METRICS_QUERY_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "event_loop.h"
#include "instances/dns_counters.h"
#include "instances/instances.h"
#include "instances/status.h"
#include "services/host.h"
#include "socket/status_query.h"
#include "supervision/supervisor.h"

namespace kavel::agent {

// Takes the status of all VPNs, and then asks the instances that answer for their counters. Destroying it cancels it.
class MetricsQuery {
  public:
    struct Collected {
        std::vector<VpnStatus> vpns;
        DnsCountersQuery::CountersByVpn counters;
    };
    using OnEnd = std::function<void(Collected collected)>;

    // The loop calls `onEnd` once, which may destroy this object. The references must outlive this object. Throws
    // std::system_error.
    MetricsQuery(EventLoop &loop, Host &host, const Instances &instances, const Supervisor &supervisor,
                 std::vector<std::uint32_t> vpnIds, OnEnd onEnd);

  private:
    void AskForCounters(std::vector<VpnStatus> vpns);

    EventLoop &loop_;
    Host &host_;
    OnEnd onEnd_;
    std::vector<VpnStatus> vpns_;
    std::optional<DnsCountersQuery> counters_;
    StatusQuery status_;
};

} // namespace kavel::agent

#endif
