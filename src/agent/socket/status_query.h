// Answers a status request without blocking the loop.
#ifndef KAVEL_AGENT_STATUS_QUERY_H
#define KAVEL_AGENT_STATUS_QUERY_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <vector>

#include "event_loop.h"
#include "instances/dns_probe.h"
#include "instances/instances.h"
#include "instances/status.h"
#include "services/host.h"
#include "supervision/supervisor.h"

namespace kavel::agent {

// Which VPNs a status is about. All of them include the instances of VPNs that are not configured, and VPN 0: on a CPE
// only if there is something in force, stored, running or wrong.
struct StatusScope {
    std::vector<std::uint32_t> vpnIds;
    bool isAll = false;
};

// Asks every instance over DNS, and then reads the state of a few VPNs per iteration of the loop. Destroying it cancels
// it.
class StatusQuery {
  public:
    using OnEnd = std::function<void(std::vector<VpnStatus> statuses)>;

    // The loop calls `onEnd` once, which may destroy this object. The references must outlive this object. Throws
    // std::system_error.
    StatusQuery(EventLoop &loop, Host &host, const Instances &instances, const Supervisor &supervisor,
                StatusScope scope, OnEnd onEnd);

  private:
    void BeginReading(const DnsAnswers &answering);
    void ReadSome();
    [[nodiscard]] VpnStatus Read(std::uint32_t vpnId);
    [[nodiscard]] std::optional<SentHistoryEntry> LastNumbered(std::uint32_t vpnId);
    void AddBoxFaults(std::vector<Finding> &problems);
    void End();

    Host &host_;
    const Instances &instances_;
    const Supervisor &supervisor_;
    StatusScope scope_;
    OnEnd onEnd_;
    std::set<std::uint32_t> wasStarting_; // when the instances were asked
    std::set<std::uint32_t> answering_;
    StoredRecords stored_;
    std::vector<VpnStatus> statuses_;
    EventSource reading_;
    DnsProbe probe_;
};

} // namespace kavel::agent

#endif
