// Steering rules through nftables.
#include "services/rules_nftables.h"

#include <cerrno>
#include <string>
#include <string_view>
#include <vector>

#include "base/nftables.h"
#include "failure.h"
#include "log.h"
#include "vqRule.h"

namespace kavel::agent {
namespace {

std::string Describe(std::uint32_t vpnId, const RuleKey &key)
{
    return "vpn " + std::to_string(vpnId) + ": rule " + TableName(key);
}

void LogFailure(const std::string &subject, const char *operation, const std::system_error &failure)
{
    Log(LogLevel::kError, "%s cannot be %s: %s", subject.c_str(), operation, failure.what());
}

// The VPN in whose namespace a rule is installed, and the rule's commands.
struct Plan {
    std::uint32_t vpnId;
    std::string commands;
};

Plan PlanOf(const Config &config, const VQ_CONF_RULE &rule, std::uint16_t op)
{
    if (rule.OpType != VQ_CONF_RULE_OP_TYPE_INSERT) {
        throw RuleError(EOPNOTSUPP, "it is not an insertion");
    }
    if (op == VQ_IMC_OP_TYPE_RULE_DNS_INSERT && rule.Table == VQ_CONF_RULE_TBL_TYPE_DNS) {
        return {rule.VpnId, InstallDnsText(rule, InterfacesOf(config, rule.VpnId))};
    }
    if (op == VQ_IMC_OP_TYPE_RULE_DNAT_INSERT && rule.Table == VQ_CONF_RULE_TBL_TYPE_DNAT) {
        return {0, InstallDnatText(rule, config.c2p)};
    }
    throw RuleError(EOPNOTSUPP,
                    "operation " + std::to_string(op) + " is not known for table " + std::to_string(rule.Table));
}

int Install(Host &host, const VQ_CONF_RULE &rule, std::uint16_t op)
{
    try {
        const Plan plan = PlanOf(host.config, rule, op);
        host.nftables.Run(plan.vpnId, plan.commands);
        return 0;
    } catch (const std::system_error &failure) {
        LogFailure(Describe(rule.VpnId, KeyOf(rule)), "installed", failure);
        throw;
    }
}

// Returns false when nothing was removed because the rule is not installed or is another customer's.
bool TryRemove(Host &host, std::uint32_t vpnId, const std::string &commands)
{
    try {
        host.nftables.Run(vpnId, commands);
        return true;
    } catch (const std::system_error &failure) {
        if (failure.code().value() != ENOENT) {
            throw;
        }
        return false;
    }
}

int Remove(Host &host, std::uint32_t vpnId, const RuleKey &key, std::uint32_t customerId)
{
    const std::string subject = Describe(vpnId, key);
    try {
        if (TryRemove(host, vpnId, RemoveText(key, customerId)) ||
            (key.table == VQ_CONF_RULE_TBL_TYPE_DNS && TryRemove(host, vpnId, RemoveOlderText(key, customerId)))) {
            return 0;
        }
    } catch (const std::system_error &failure) {
        LogFailure(subject, "removed", failure);
        throw;
    }
    // Not an error: the module may remove a rule that was never installed.
    Log(LogLevel::kNotice, "%s is not installed for customer %u", subject.c_str(), customerId);
    return -ENOENT;
}

// Whether `table` is in the output of "list tables".
bool Lists(std::string_view tables, const std::string &table)
{
    return tables.find("table " + table + "\n") != std::string_view::npos;
}

// The listing of a table; empty when it is not in `tables`. Listing a table that does not exist fails without an errno.
std::string ListingOf(Host &host, std::uint32_t vpnId, std::string_view tables, const std::string &table)
{
    return Lists(tables, table) ? host.nftables.Run(vpnId, "list table " + table + "\n") : std::string();
}

} // namespace

InstalledRules FindInstalledRules(Host &host, std::uint32_t vpnId)
{
    const std::string tables = host.nftables.Run(vpnId, "list tables\n");
    const RuleKey dnsKey{VQ_CONF_RULE_TBL_TYPE_DNS, 0, vpnId + kDnsRuleIdOffset};
    const std::string dns = ListingOf(host, vpnId, tables, RuleTable(dnsKey));
    InstalledRules found;
    found.dns = IsDnsInstalled(dns, InterfacesOf(host.config, vpnId));
    if (!dns.empty()) {
        found.redirected = RedirectedPackets(dns);
    }
    found.stale = !found.dns && (!dns.empty() || Lists(tables, OlderRuleTable(dnsKey)));
    if (vpnId == 0) {
        const RuleKey dnatKey{VQ_CONF_RULE_TBL_TYPE_DNAT, 0, VQ_DNAT_TBL_ZONE0_RULE_ID_DNSMASQ};
        const std::string dnat = ListingOf(host, vpnId, tables, RuleTable(dnatKey));
        found.dnat = IsDnatInstalled(dnat, host.config.c2p);
        found.stale = found.stale || (!found.dnat && !dnat.empty());
    }
    return found;
}

DnsInterfaces InterfacesOf(const Config &config, std::uint32_t vpnId)
{
    if (vpnId == 0) {
        return {config.lan, config.c2p, config.wan};
    }
    const Vpn *vpn = config.Find(vpnId);
    if (vpn == nullptr) {
        throw RuleError(ENOENT, "the VPN is not configured");
    }
    DnsInterfaces interfaces{vpn->lan, {}, {}};
    for (const Wan &wan : vpn->wan) {
        interfaces.wan.push_back(wan.name);
    }
    return interfaces;
}

} // namespace kavel::agent

using namespace kavel;
using namespace kavel::agent;

extern "C" {

VQ_ERR_T VQ_RtcRuleConfAdd(VQ_CONF_RULE *rule, uint16_t op, BOOL /*flag1*/, BOOL /*flag2*/)
{
    return rule == nullptr ? -EINVAL : ResultOf([&] { return Install(Host::Current(), *rule, op); });
}

VQ_ERR_T VQ_RtcRuleConfDel(uint8_t zone, uint32_t ruleId, uint32_t customerId, uint16_t op, BOOL /*flag*/)
{
    return ResultOf([&] {
        Host &host = Host::Current();
        switch (op) {
        case VQ_IMC_OP_TYPE_RULE_DNS_DELETE:
            return Remove(host, ruleId - kDnsRuleIdOffset, {VQ_CONF_RULE_TBL_TYPE_DNS, zone, ruleId}, customerId);
        case VQ_IMC_OP_TYPE_RULE_DNAT_DELETE:
            return Remove(host, 0, {VQ_CONF_RULE_TBL_TYPE_DNAT, zone, ruleId}, customerId);
        default:
            Log(LogLevel::kError, "rule %u cannot be removed: operation %u is not known", ruleId, unsigned{op});
            return -EOPNOTSUPP;
        }
    });
}
}
