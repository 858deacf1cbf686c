// Answers the question why a VPN does not resolve, without blocking the loop.
#ifndef KAVEL_AGENT_WHY_QUERY_H
#define KAVEL_AGENT_WHY_QUERY_H

#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <vector>

#include "event_loop.h"
#include "instances/dns_probe.h"
#include "instances/dry_start.h"
#include "instances/instance_servers.h"
#include "instances/instances.h"
#include "instances/status.h"
#include "services/host.h"
#include "socket/status_query.h"
#include "supervision/supervisor.h"

namespace kavel::agent {

// Begins with the status. Then, for a few VPNs at a time: asks the instance over TCP and every server over UDP, has
// dnsmasq check the files, and looks for other processes on port 53. Destroying it cancels it.
class WhyQuery {
  public:
    // The statuses, whose problems are complete.
    using OnEnd = std::function<void(std::vector<VpnStatus> statuses)>;

    // The loop calls `onEnd` once, which may destroy this object. The references must outlive this object. Throws
    // std::system_error.
    WhyQuery(EventLoop &loop, Host &host, const Instances &instances, const Supervisor &supervisor, StatusScope scope,
             OnEnd onEnd);

  private:
    // A server that is asked for a VPN; without `server` the VPN's own instance, over TCP.
    struct Asked {
        std::size_t position = 0; // of its VPN in statuses_
        std::optional<InstanceServer> server;
    };

    void BeginBatch();
    void BeginProbe();
    void AddTargets(std::size_t position, std::vector<DnsTarget> &targets);
    void BeginDryStart(std::size_t position);
    void EndDryStart(std::size_t position, const std::optional<std::string> &reason);
    void EndProbe(const DnsAnswers &answering);
    void CompareServers(VpnStatus &status, const DnsProbe::Reply &reply) const;
    void JudgeServer(const Asked &asked, std::optional<std::chrono::milliseconds> after);
    void EndPart();
    void EndBatch();
    void AddPortOwners(VpnStatus &status) const;

    EventLoop &loop_;
    Host &host_;
    const Instances &instances_;
    OnEnd onEnd_;
    std::vector<VpnStatus> statuses_;
    std::size_t begin_ = 0; // the batch is from here
    std::size_t end_ = 0;   // to here
    std::vector<Asked> asked_;
    std::size_t pending_ = 0; // parts of the batch: the probe and the dry starts
    EventSource next_;        // deferred: the next batch, or the end
    std::list<std::unique_ptr<DryStart>> dryStarts_;
    std::optional<DnsProbe> probe_;
    std::optional<StatusQuery> status_;
};

} // namespace kavel::agent

#endif
