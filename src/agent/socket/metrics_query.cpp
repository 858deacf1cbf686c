#include "socket/metrics_query.h"

#include <utility>

#include "socket/metrics_document.h"

namespace kavel::agent {

MetricsQuery::MetricsQuery(EventLoop &loop, Host &host, const Instances &instances, const Supervisor &supervisor,
                           std::vector<std::uint32_t> vpnIds, OnEnd onEnd)
    : loop_(loop), host_(host), onEnd_(std::move(onEnd)),
      status_(loop, host, instances, supervisor, {std::move(vpnIds), true},
              [this](std::vector<VpnStatus> vpns) { AskForCounters(std::move(vpns)); })
{
}

void MetricsQuery::AskForCounters(std::vector<VpnStatus> vpns)
{
    vpns_ = std::move(vpns);
    std::vector<std::uint32_t> answering;
    for (const VpnStatus &vpn : vpns_) {
        if (IsUp(vpn) && vpn.fields.answers != 0 && vpn.fields.starting == 0) {
            answering.push_back(vpn.fields.vpn);
        }
    }
    counters_.emplace(loop_, host_, std::move(answering), [this](DnsCountersQuery::CountersByVpn counters) {
        const OnEnd report = std::move(onEnd_);
        report({std::move(vpns_), std::move(counters)});
    });
}

} // namespace kavel::agent
