// Which processes have a port.
#ifndef KAVEL_AGENT_PORT_OWNERS_H
#define KAVEL_AGENT_PORT_OWNERS_H

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "base/netns.h"

namespace kavel::agent {

struct PortOwner {
    pid_t pid = 0;
    bool overTcp = false;
    bool operator==(const PortOwner &) const = default;
};

// The processes that listen on a TCP port of the VPN's namespace, or have the UDP port, over IPv4 or IPv6. Reads the
// descriptors of all processes: those of processes that this one may not look into are left out. A namespace that
// cannot be entered throws std::system_error.
[[nodiscard]] std::vector<PortOwner> OwnersOfPort(const Namespaces &namespaces, std::uint32_t vpnId,
                                                  std::uint16_t port);

} // namespace kavel::agent

#endif
