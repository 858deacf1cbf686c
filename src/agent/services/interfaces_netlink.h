// Interfaces inside the namespaces of the VPNs.
#ifndef KAVEL_AGENT_INTERFACES_NETLINK_H
#define KAVEL_AGENT_INTERFACES_NETLINK_H

#include <cstdint>
#include <map>
#include <string>

#include "services/host.h"

namespace kavel::agent {

// The interface's index in the VPN's namespace. Throws std::system_error, with ENODEV when there is no such interface.
[[nodiscard]] int InterfaceIndex(Host &host, std::uint32_t vpnId, const std::string &name);

enum class LinkState { kDown, kNoCarrier, kUp };

// The interfaces in the VPN's namespace, by name. Throws std::system_error.
[[nodiscard]] std::map<std::string, LinkState> LinksOf(Host &host, std::uint32_t vpnId);

// Sets the loopback interface up: queries to an instance's loopback address need it. Whether it was down. Throws
// std::system_error.
bool BringLoopbackUp(Host &host, std::uint32_t vpnId);

} // namespace kavel::agent

#endif
