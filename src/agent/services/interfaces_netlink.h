// Interfaces inside the namespaces of the VPNs.
#ifndef KAVEL_AGENT_INTERFACES_NETLINK_H
#define KAVEL_AGENT_INTERFACES_NETLINK_H

#include <cstdint>
#include <string>

namespace kavel::agent {

// The interface's index in the VPN's namespace, or a negated errno.
int InterfaceIndex(std::uint32_t vpnId, const std::string &name);

// Queries to an instance's loopback address need the interface up. 0 or a negated errno.
int BringLoopbackUp(std::uint32_t vpnId);

} // namespace kavel::agent

#endif
