// The IPv4 routes of the VPNs, and the policy rule that selects their table.
#ifndef KAVEL_AGENT_ROUTES_NETLINK_H
#define KAVEL_AGENT_ROUTES_NETLINK_H

#include <cstdint>

#include "services/host.h"

namespace kavel::agent {

// The table with the host routes of an instance, the same number in every VPN.
inline constexpr std::uint32_t kDnsRouteTable = 199;

// Makes the VPN's namespace look routes up in kDnsRouteTable. Whether it did not do so yet. Throws std::system_error.
bool EnsurePolicyRule(Host &host, std::uint32_t vpnId);

// Whether it does so. Throws std::system_error.
[[nodiscard]] bool HasPolicyRule(Host &host, std::uint32_t vpnId);

// Undoes it. A rule that does not exist is no failure. Throws std::system_error.
void RemovePolicyRule(Host &host, std::uint32_t vpnId);

// The number of IPv4 routes in `table` of the VPN. Throws std::system_error.
[[nodiscard]] std::uint32_t CountRoutes(Host &host, std::uint32_t vpnId, std::uint32_t table);

} // namespace kavel::agent

#endif
