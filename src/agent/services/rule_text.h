// Steering rules as nftables commands. Each rule is a table of its own, so that it can be replaced and removed whole.
#ifndef KAVEL_AGENT_RULE_TEXT_H
#define KAVEL_AGENT_RULE_TEXT_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "vqRule.h"

namespace kavel::agent {

// A rule that this host cannot carry out: `result` is the negated errno, the text says what of it.
class RuleError : public std::runtime_error {
  public:
    RuleError(std::int32_t code, const std::string &text) : std::runtime_error(text), result(code) {}

    std::int32_t result;
};

// What names a rule beside its customer.
struct RuleKey {
    VQ_CONF_RULE_TBL_TYPE table;
    std::uint8_t zone;
    std::uint32_t id;
};

RuleKey KeyOf(const VQ_CONF_RULE &rule);

// A DNS-table rule has the id of its VPN plus this.
inline constexpr std::uint32_t kDnsRuleIdOffset = 2;

// The name of the rule's table, "kavel_dns_0_9".
std::string TableName(const RuleKey &key);

// Installs the rule for traffic that arrives on `interfaces`, in the place of one with the same key. Throws RuleError.
std::string InstallDnsText(const VQ_CONF_RULE &rule, const std::vector<std::string> &interfaces);
std::string InstallDnatText(const VQ_CONF_RULE &rule, const std::vector<std::string> &interfaces);

// Removes the rule; refused by the kernel when it is not there or not the customer's.
std::string RemoveText(const RuleKey &key, std::uint32_t customerId);

} // namespace kavel::agent

#endif
