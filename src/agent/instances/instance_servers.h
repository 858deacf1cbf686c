// The DNS servers that an instance asks, as its files name them.
#ifndef KAVEL_AGENT_INSTANCE_SERVERS_H
#define KAVEL_AGENT_INSTANCE_SERVERS_H

#include <cstdint>
#include <string>
#include <vector>

#include "instances/dns_probe.h"
#include "instances/instances.h"

namespace kavel::agent {

struct InstanceServer {
    std::string address;   // IPv4 or IPv6, in text
    std::string interface; // queries leave through this one; empty: any
    std::string domain;    // of a forward: one of those that it is asked for; empty: it is an upstream server

    [[nodiscard]] bool IsForward() const { return !domain.empty(); }
    // "10.7.0.53", "203.0.113.53 through wan0".
    [[nodiscard]] std::string Name() const;
    [[nodiscard]] DnsTarget Target(std::uint32_t vpnId) const;
};

// The upstream servers, each once, by rising name. Words that are no address are left out.
[[nodiscard]] std::vector<InstanceServer> UpstreamsOf(const Instances &instances, std::uint32_t vpnId);

// The servers of the forwards, each address once, in the order of the file; `most` of them at most.
[[nodiscard]] std::vector<InstanceServer> ForwardServersOf(const Instances &instances, std::uint32_t vpnId,
                                                           std::size_t most);

} // namespace kavel::agent

#endif
