// The steering rules of this box as the kernel has them.
#ifndef KAVEL_AGENT_RULES_NFTABLES_H
#define KAVEL_AGENT_RULES_NFTABLES_H

#include <cstdint>
#include <optional>

namespace kavel::agent {

struct InstalledRules {
    bool dns = false;  // the DNS-table rule of the VPN
    bool dnat = false; // the DNAT rule of the box; looked for in VPN 0 alone
};

// What is installed for a VPN; nothing when the kernel cannot be asked, which is logged.
std::optional<InstalledRules> FindInstalledRules(std::uint32_t vpnId);

// Lets go of namespaces that are no VPN's any more.
void CloseStaleRuleContexts();

} // namespace kavel::agent

#endif
