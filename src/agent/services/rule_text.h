// Steering rules as nftables commands. Each rule is a table of its own, so that it can be replaced and removed whole.
#ifndef KAVEL_AGENT_RULE_TEXT_H
#define KAVEL_AGENT_RULE_TEXT_H

#include <cstdint>
#include <string>
#include <vector>

#include "base/failure.h"
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

// The commands that install the rule for traffic that arrives on `interfaces`, and replace a rule with the same key.
// Throw RuleError.
[[nodiscard]] std::string InstallDnsText(const VQ_CONF_RULE &rule, const std::vector<std::string> &interfaces);
[[nodiscard]] std::string InstallDnatText(const VQ_CONF_RULE &rule, const std::vector<std::string> &interfaces);

// The commands that remove the rule. The kernel refuses them with ENOENT when the rule is not installed or is another
// customer's.
[[nodiscard]] std::string RemoveText(const RuleKey &key, std::uint32_t customerId);

} // namespace kavel::agent

#endif
