// The steering rules that are installed in the kernel.
#ifndef KAVEL_AGENT_RULES_NFTABLES_H
#define KAVEL_AGENT_RULES_NFTABLES_H

#include <cstdint>
#include <optional>

#include "base/config.h"
#include "services/host.h"
#include "services/rule_text.h"

namespace kavel::agent {

// A rule counts as installed if its table contains what the agent would install now.
struct InstalledRules {
    bool dns = false;   // the DNS-table rule of the VPN
    bool dnat = false;  // the DNAT rule of the box; looked for in VPN 0 alone
    bool stale = false; // one of them is not installed, but a table of it exists: an older agent's, or a changed one
    // What the DNS-table rule has redirected since it was installed: the first packet of each connection, which is
    // every query of a client that takes a new port for each. Nothing when there is no such rule.
    std::optional<std::uint64_t> redirected;
};

// The rules that are installed for a VPN. Throws std::system_error when the kernel cannot be asked or the VPN is not
// configured.
[[nodiscard]] InstalledRules FindInstalledRules(Host &host, std::uint32_t vpnId);

// The configured interfaces that the DNS-table rule of a VPN needs. Throws RuleError when the VPN is not configured.
[[nodiscard]] DnsInterfaces InterfacesOf(const Config &config, std::uint32_t vpnId);

} // namespace kavel::agent

#endif
