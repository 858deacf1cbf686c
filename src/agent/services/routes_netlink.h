// The IPv4 routes of the VPNs and the policy rule that brings their table into play.
#ifndef KAVEL_AGENT_ROUTES_NETLINK_H
#define KAVEL_AGENT_ROUTES_NETLINK_H

#include <cstdint>

namespace kavel::agent {

// The table with the host routes of an instance, the same number in every VPN.
inline constexpr std::uint32_t kDnsRouteTable = 199;

// Makes sure that the VPN's namespace looks routes up in kDnsRouteTable. 0 or a negated errno.
int EnsurePolicyRule(std::uint32_t vpnId);

// The number of IPv4 routes in `table` of the VPN, or a negated errno.
int CountRoutes(std::uint32_t vpnId, std::uint32_t table);

} // namespace kavel::agent

#endif
