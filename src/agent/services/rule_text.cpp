#include "services/rule_text.h"

#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <span>
#include <sstream>

namespace kavel::agent {
namespace {

constexpr std::array<const char *, 2> kDnsMatches{"udp dport 53", "tcp dport 53"};

// As nftables lists them: IsDnsInstalled compares.
constexpr const char *kPreroutingStart =
    "chain prerouting {\ntype nat hook prerouting priority dstnat; policy accept;\n";
constexpr const char *kRedirect = "counter redirect to :53";
constexpr const char *kInputStart = "chain input {\ntype filter hook input priority filter; policy accept;\n";

[[noreturn]] void RefuseInvalid(const std::string &text)
{
    throw RuleError(EINVAL, text);
}

[[noreturn]] void RefuseUnsupported(const std::string &text)
{
    throw RuleError(EOPNOTSUPP, text);
}

bool AnySet(std::initializer_list<unsigned> values)
{
    return std::ranges::any_of(values, [](unsigned value) { return value != 0; });
}

void CheckCounts(const VQ_CONF_RULE_MATCH &match)
{
    for (const std::uint8_t count : {match.DstPortNum, match.ProtoNum, match.InPortNum, match.OutPortNum}) {
        if (count > VQ_CONF_RULE_ENTRY_MAX) {
            RefuseInvalid("a list of " + std::to_string(count) + " entries is over its limit");
        }
    }
}

// Refuses every match and action that no rule of this host can have.
void RefuseUnknownFields(const VQ_CONF_RULE &rule)
{
    const VQ_CONF_RULE_MATCH &match = rule.Match;
    if (AnySet({match.SrcIpNum, match.DstIpNum, match.SrcPortNum, match.DscpNum, match.TransIdNum, match.RegNum,
                match.SrcIpSetFlag, match.DstIpSetFlag, match.AcsNameFlag, match.InVpnFlag, match.InPolicyFlag})) {
        RefuseUnsupported("it matches by more than protocol, destination port and interface type");
    }
    const VQ_CONF_RULE_ACTIONS &actions = rule.Actions;
    if (AnySet({actions.SnatFlag, actions.AcceFlag, actions.AuthedFlag, actions.SetRegFlag, actions.SetVpnFlag,
                actions.SetDscpFlag, actions.InboundRateLimitId, actions.OutboundRateLimitId})) {
        RefuseUnsupported("it does more than to change where traffic goes");
    }
}

void CheckDns(const VQ_CONF_RULE &rule)
{
    const VQ_CONF_RULE_MATCH &match = rule.Match;
    const VQ_CONF_RULE_ACTIONS &actions = rule.Actions;
    CheckCounts(match);
    RefuseUnknownFields(rule);
    // A deletion names no VPN: it finds the namespace by the id.
    if (rule.Id != rule.VpnId + kDnsRuleIdOffset) {
        RefuseInvalid("it is not the rule of vpn " + std::to_string(rule.VpnId));
    }
    if (AnySet({match.DstPortNum, match.ProtoNum, match.InPortNum, actions.DnatFlag}) || match.OutPortNum != 1 ||
        match.OutPort[0].Type != VQ_CONF_DP_IF_TYPE_LOCAL || actions.OutputNum != 1 ||
        actions.OutputArray[0].Type != VQ_CONF_DP_IF_TYPE_LOCAL) {
        RefuseUnsupported("a DNS-table rule can only lead to the box itself");
    }
}

void CheckNat(const VQ_CONF_RULE_ACTION_NAT &nat)
{
    if (nat.IpNum != 1 || nat.IpType != VQ_IN_ADDR_TYPE_IPV4 || nat.PortRange.LowerPort != 0 ||
        nat.PortRange.UpperPort != 0) {
        RefuseUnsupported("it does not go to one IPv4 address with the port kept");
    }
    if (nat.Ip[0] == INADDR_ANY) {
        RefuseInvalid("it goes to 0.0.0.0");
    }
}

void CheckDnat(const VQ_CONF_RULE &rule)
{
    const VQ_CONF_RULE_MATCH &match = rule.Match;
    CheckCounts(match);
    RefuseUnknownFields(rule);
    if (AnySet({match.OutPortNum, rule.Actions.OutputNum}) || rule.Actions.DnatFlag == 0) {
        RefuseUnsupported("a DNAT rule can only rewrite the destination");
    }
    CheckNat(rule.Actions.NatInfo);
    if (match.InPortNum != 1 || match.InPort[0].Type != VQ_CONF_DP_IF_TYPE_VQCONN_C2P || match.InPort[0].Id != 0) {
        RefuseUnsupported("it is not for the CPE-to-POP interfaces");
    }
    if (match.ProtoNum == 0 || match.DstPortNum == 0) {
        RefuseUnsupported("it names no protocol or no port");
    }
}

std::string ProtocolName(std::uint8_t protocol)
{
    switch (protocol) {
    case IPPROTO_UDP:
        return "udp";
    case IPPROTO_TCP:
        return "tcp";
    default:
        RefuseUnsupported("protocol " + std::to_string(protocol) + " has no ports");
    }
}

std::string PortText(const VQ_CONF_RULE_PORT_RANGE &range)
{
    if (range.LowerPort > range.UpperPort) {
        RefuseInvalid("a port range ends before it begins");
    }
    const std::string lower = std::to_string(range.LowerPort);
    return range.LowerPort == range.UpperPort ? lower : lower + "-" + std::to_string(range.UpperPort);
}

// "udp dport { 53 }" for each protocol.
std::vector<std::string> DnatMatches(const VQ_CONF_RULE_MATCH &match)
{
    std::string ports;
    for (const VQ_CONF_RULE_PORT_RANGE &range : std::span(match.DstPort, match.DstPortNum)) {
        ports += (ports.empty() ? "" : ", ") + PortText(range);
    }
    std::vector<std::string> matches;
    for (const std::uint8_t protocol : std::span(match.Proto, match.ProtoNum)) {
        matches.push_back(ProtocolName(protocol) + " dport { " + ports + " }");
    }
    return matches;
}

std::string AddressText(std::uint32_t address)
{
    return std::to_string(address >> 24U) + "." + std::to_string(address >> 16U & 0xFFU) + "." +
           std::to_string(address >> 8U & 0xFFU) + "." + std::to_string(address & 0xFFU);
}

// The customer's id is in the name of an empty chain. A removal deletes that chain first, which fails for another
// customer.
std::string CustomerChain(std::uint32_t customerId)
{
    return "customer_" + std::to_string(customerId);
}

std::string OnInterface(const std::string &interface)
{
    return "iifname \"" + interface + "\" ";
}

// A rule for every match on every interface.
template <typename Matches>
std::string RulesOn(const std::vector<std::string> &interfaces, const Matches &matches, const std::string &action)
{
    std::string text;
    for (const std::string &interface : interfaces) {
        for (const auto &match : matches) {
            text.append(OnInterface(interface)).append(match).append(" ").append(action).append("\n");
        }
    }
    return text;
}

std::string AcceptAll(const std::vector<std::string> &interfaces)
{
    std::string text;
    for (const std::string &interface : interfaces) {
        text.append(OnInterface(interface)).append("accept\n");
    }
    return text;
}

// Only what is for the box itself passes the input hook: a query that the box forwards is not dropped. The kernel, not
// this function, decides which interfaces a prefix means; so the others are accepted before the drops.
std::string InputChain(const DnsInterfaces &interfaces)
{
    if (interfaces.wan.empty()) {
        return "";
    }
    return kInputStart + AcceptAll(interfaces.lan) + AcceptAll(interfaces.c2p) +
           RulesOn(interfaces.wan, kDnsMatches, "drop") + "}\n";
}

// A rule without LAN interfaces still gets its chain: it is installed, and matches nothing.
std::string DnsChains(const DnsInterfaces &interfaces)
{
    return kPreroutingStart + RulesOn(interfaces.lan, kDnsMatches, kRedirect) + "}\n" + InputChain(interfaces);
}

// Deleting a table that does not exist fails, so it is added first.
std::string DeleteIfThere(const std::string &table)
{
    return "add table " + table + "\ndelete table " + table + "\n";
}

std::string CreateText(const VQ_CONF_RULE &rule, const std::string &chains)
{
    const std::string table = RuleTable(KeyOf(rule));
    return DeleteIfThere(table) + "table " + table + " {\nchain " + CustomerChain(rule.CustomerId) + " {\n}\n" +
           chains + "}\n";
}

std::string DeleteText(const std::string &table, std::uint32_t customerId)
{
    return "delete chain " + table + " " + CustomerChain(customerId) + "\ndelete table " + table + "\n";
}

// The lines of a text without their indentation.
std::vector<std::string_view> LinesOf(std::string_view text)
{
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
        lines.push_back(line);
    }
    return lines;
}

// What a counter has counted stands behind it in a listing: "counter packets 3 bytes 180".
struct CountedLine {
    std::string rule; // without the numbers
    std::uint64_t packets = 0;
};

CountedLine WithoutNumbers(std::string_view line)
{
    constexpr std::string_view kCounter = "counter packets ";
    const std::size_t at = line.find(kCounter);
    if (at == std::string_view::npos) {
        return {std::string(line)};
    }
    std::istringstream numbers{std::string(line.substr(at + kCounter.size()))};
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
    std::string word;
    if (!(numbers >> packets >> word >> bytes) || word != "bytes") {
        return {std::string(line)};
    }
    std::string rest;
    std::getline(numbers, rest);
    return {std::string(line.substr(0, at)) + "counter" + rest, packets};
}

// Whether the lines of `expected` are lines of `listing`, in the same order; there may be others between them.
bool ContainsLines(std::string_view listing, std::string_view expected)
{
    std::vector<std::string> lines;
    std::ranges::transform(LinesOf(listing), std::back_inserter(lines),
                           [](std::string_view line) { return WithoutNumbers(line).rule; });
    auto next = lines.begin();
    return std::ranges::all_of(LinesOf(expected), [&](std::string_view line) {
        const auto found = std::find(next, lines.end(), line);
        next = found == lines.end() ? found : std::next(found);
        return found != lines.end();
    });
}

} // namespace

RuleKey KeyOf(const VQ_CONF_RULE &rule)
{
    return {static_cast<VQ_CONF_RULE_TBL_TYPE>(rule.Table), rule.Zone, rule.Id};
}

std::string TableName(const RuleKey &key)
{
    const std::string kind = key.table == VQ_CONF_RULE_TBL_TYPE_DNS ? "dns" : "dnat";
    return "kavel_" + kind + "_" + std::to_string(key.zone) + "_" + std::to_string(key.id);
}

std::string RuleTable(const RuleKey &key)
{
    return (key.table == VQ_CONF_RULE_TBL_TYPE_DNS ? "inet " : "ip ") + TableName(key);
}

std::string OlderRuleTable(const RuleKey &key)
{
    return "ip " + TableName(key);
}

std::string InstallDnsText(const VQ_CONF_RULE &rule, const DnsInterfaces &interfaces)
{
    CheckDns(rule);
    return DeleteIfThere(OlderRuleTable(KeyOf(rule))) + CreateText(rule, DnsChains(interfaces));
}

std::string InstallDnatText(const VQ_CONF_RULE &rule, const std::vector<std::string> &c2p)
{
    CheckDnat(rule);
    const std::string action = "dnat to " + AddressText(rule.Actions.NatInfo.Ip[0]);
    return CreateText(rule, kPreroutingStart + RulesOn(c2p, DnatMatches(rule.Match), action) + "}\n");
}

std::string RemoveText(const RuleKey &key, std::uint32_t customerId)
{
    const bool isDns = key.table == VQ_CONF_RULE_TBL_TYPE_DNS;
    return DeleteText(RuleTable(key), customerId) + (isDns ? DeleteIfThere(OlderRuleTable(key)) : "");
}

std::string RemoveOlderText(const RuleKey &key, std::uint32_t customerId)
{
    return DeleteText(OlderRuleTable(key), customerId);
}

bool IsDnsInstalled(std::string_view listing, const DnsInterfaces &interfaces)
{
    return ContainsLines(listing, DnsChains(interfaces));
}

bool IsDnatInstalled(std::string_view listing, const std::vector<std::string> &c2p)
{
    const std::vector<std::string_view> lines = LinesOf(listing);
    const auto isRewritten = [&](const std::string &interface) {
        return std::ranges::any_of(lines, [&](std::string_view line) {
            return line.starts_with(OnInterface(interface)) && line.find(" dnat to ") != std::string_view::npos;
        });
    };
    return ContainsLines(listing, kPreroutingStart) && std::ranges::all_of(c2p, isRewritten);
}

std::uint64_t RedirectedPackets(std::string_view listing)
{
    std::uint64_t packets = 0;
    for (const std::string_view line : LinesOf(listing)) {
        const CountedLine counted = WithoutNumbers(line);
        packets += counted.rule.ends_with(kRedirect) ? counted.packets : 0;
    }
    return packets;
}

} // namespace kavel::agent
