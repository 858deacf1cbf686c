// What keeps a VPN from resolving, as far as it is seen without asking anybody: on the box, at once.
#ifndef KAVEL_AGENT_DIAGNOSIS_H
#define KAVEL_AGENT_DIAGNOSIS_H

#include <vector>

#include "instances/findings.h"
#include "instances/instances.h"
#include "instances/status.h"
#include "services/host.h"

namespace kavel::agent {

// Beside the problems that StatusOfVpn() tells: interfaces, links, the rule of the route table, the servers in the
// files, what dnsmasq's user can read, names that are not served, and what waits for a restart. Empty for a VPN that is
// not meant to run, or has no namespace. What cannot be read is logged for debugging and is no finding.
[[nodiscard]] std::vector<Finding> FindFaults(Host &host, const Instances &instances, const VpnStatus &status);

// Limits of the box that keep instances from starting, and the lock of the store. They concern every VPN.
[[nodiscard]] std::vector<Finding> FindFaultsOfBox(Host &host);

} // namespace kavel::agent

#endif
