// Steering rules as nftables commands. Each rule is a table of its own, so that it can be replaced and removed whole.
#ifndef KAVEL_AGENT_RULE_TEXT_H
#define KAVEL_AGENT_RULE_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "failure.h"
#include "vqRule.h"

namespace kavel::agent {

// A rule that this host cannot install. The text says which property of the rule is the reason.
class RuleError : public Failure {
  public:
    using Failure::Failure;
};

// Identifies a rule of a customer.
struct RuleKey {
    VQ_CONF_RULE_TBL_TYPE table;
    std::uint8_t zone;
    std::uint32_t id;
};

[[nodiscard]] RuleKey KeyOf(const VQ_CONF_RULE &rule);

// A DNS-table rule has the id of its VPN plus this.
inline constexpr std::uint32_t kDnsRuleIdOffset = 2;

// The name of the rule's table, "kavel_dns_0_9".
[[nodiscard]] std::string TableName(const RuleKey &key);

// The family and the name of the rule's table: "inet kavel_dns_0_9", which holds for IPv4 and IPv6, and
// "ip kavel_dnat_0_3", because a DNAT rule goes to one IPv4 address.
[[nodiscard]] std::string RuleTable(const RuleKey &key);

// The table that an older agent installed for the same DNS-table rule: "ip kavel_dns_0_9". It redirects IPv4 queries
// and drops nothing.
[[nodiscard]] std::string OlderRuleTable(const RuleKey &key);

// The interfaces that a DNS-table rule needs: names, or prefixes that end in '*'. An interface that is in `wan` and in
// another list is treated like the interfaces of the other list.
struct DnsInterfaces {
    std::vector<std::string> lan; // what arrives here is redirected to the instance
    std::vector<std::string> c2p; // what arrives here is left to the DNAT rule
    std::vector<std::string> wan; // what arrives here for the box itself is dropped
};

// The commands that install the rule and replace a rule with the same key, also one of an older agent. A DNS-table rule
// is for port 53 over UDP and TCP; a DNAT rule is for traffic that arrives on the interfaces `c2p`. Throw RuleError.
[[nodiscard]] std::string InstallDnsText(const VQ_CONF_RULE &rule, const DnsInterfaces &interfaces);
[[nodiscard]] std::string InstallDnatText(const VQ_CONF_RULE &rule, const std::vector<std::string> &c2p);

// The commands that remove the rule. The kernel refuses them with ENOENT when the rule is not installed or is another
// customer's. Of a DNS-table rule they also remove what an older agent has left.
[[nodiscard]] std::string RemoveText(const RuleKey &key, std::uint32_t customerId);

// The commands that remove a DNS-table rule that an older agent installed. Refused like those of RemoveText.
[[nodiscard]] std::string RemoveOlderText(const RuleKey &key, std::uint32_t customerId);

// Whether the listing of the rule's table ("list table ...") has everything that the installation puts there for these
// interfaces, in the same order. More rules in the same table are ignored, and so is what counters have counted. The
// address, the protocols and the ports of
// a DNAT rule are not known here: it must have a rule for each interface.
[[nodiscard]] bool IsDnsInstalled(std::string_view listing, const DnsInterfaces &interfaces);
[[nodiscard]] bool IsDnatInstalled(std::string_view listing, const std::vector<std::string> &c2p);

// The packets that the redirecting rules of a DNS-table rule have counted, by the listing of its table. The kernel
// passes the first packet of a connection through these rules, and treats the others alike.
[[nodiscard]] std::uint64_t RedirectedPackets(std::string_view listing);

} // namespace kavel::agent

#endif
