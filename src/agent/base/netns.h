// The network namespaces of the VPNs. VPN 0 is the box: the namespace in which the agent was started.
#ifndef KAVEL_AGENT_NETNS_H
#define KAVEL_AGENT_NETNS_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "base/config.h"
#include "unique_fd.h"

namespace kavel::agent {

inline constexpr const char *kNamespaceDirectory = "/run/netns";

struct NamespaceId {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const NamespaceId &) const = default;
};

// Keeps a handle of the calling thread's namespace as the box's own. Once, at start.
void RememberOwnNamespace();

std::string NamespacePath(const Vpn &vpn);

// The identity of the VPN's namespace; nothing when the VPN or its namespace does not exist.
std::optional<NamespaceId> NamespaceOfVpn(std::uint32_t vpnId);

// What changes rarely, and is asked for with every route, is looked at once a round, which is as long as one request
// takes: a namespace or an interface that is replaced meanwhile is seen by the next.
std::uint64_t CurrentRound();
void BeginRound();

std::optional<NamespaceId> NamespaceOfProcess(pid_t pid);

// Keeps the calling thread in the VPN's namespace for a scope. Throws std::system_error when it cannot enter; a thread
// that cannot come back ends the process.
class NamespaceSwitch {
  public:
    explicit NamespaceSwitch(std::uint32_t vpnId);
    NamespaceSwitch(const NamespaceSwitch &) = delete;
    NamespaceSwitch &operator=(const NamespaceSwitch &) = delete;
    ~NamespaceSwitch();

    // Leaves the thread where it is and gives the handle of where it came from.
    [[nodiscard]] UniqueFd Stay();

  private:
    UniqueFd saved_;
};

} // namespace kavel::agent

#endif
