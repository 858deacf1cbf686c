#include "services/rule_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "scratch.h"

namespace kavel::agent {
namespace {

constexpr std::uint32_t kVpn = 7;
constexpr std::uint32_t kRuleAddress = 0x0A'01'02'FFU; // 10.1.2.255

const ThrownError kNone{};
const ThrownError kMatchesMore{EOPNOTSUPP, "it matches by more than protocol, destination port and interface type"};
const ThrownError kDoesMore{EOPNOTSUPP, "it does more than to change where traffic goes"};
const ThrownError kNotToTheBox{EOPNOTSUPP, "a DNS-table rule can only lead to the box itself"};
const ThrownError kNotDnat{EOPNOTSUPP, "a DNAT rule can only rewrite the destination"};
const ThrownError kNotOneAddress{EOPNOTSUPP, "it does not go to one IPv4 address with the port kept"};
const ThrownError kNotC2p{EOPNOTSUPP, "it is not for the CPE-to-POP interfaces"};
const ThrownError kNoProtocolOrPort{EOPNOTSUPP, "it names no protocol or no port"};

// The rule that leads the DNS traffic of a VPN to the box.
VQ_CONF_RULE DnsRule()
{
    VQ_CONF_RULE rule{};
    rule.Table = VQ_CONF_RULE_TBL_TYPE_DNS;
    rule.VpnId = kVpn;
    rule.Id = kVpn + kDnsRuleIdOffset;
    rule.CustomerId = 42;
    rule.Match.OutPortNum = 1;
    rule.Match.OutPort[0].Type = VQ_CONF_DP_IF_TYPE_LOCAL;
    rule.Actions.OutputNum = 1;
    rule.Actions.OutputArray[0].Type = VQ_CONF_DP_IF_TYPE_LOCAL;
    return rule;
}

// The rule that leads the DNS traffic of CPEs to one address of a POP.
VQ_CONF_RULE DnatRule()
{
    VQ_CONF_RULE rule{};
    rule.Table = VQ_CONF_RULE_TBL_TYPE_DNAT;
    rule.Id = VQ_DNAT_TBL_ZONE0_RULE_ID_DNSMASQ;
    rule.CustomerId = 42;
    rule.Match.InPortNum = 1;
    rule.Match.InPort[0].Type = VQ_CONF_DP_IF_TYPE_VQCONN_C2P;
    rule.Match.ProtoNum = 2;
    rule.Match.Proto[0] = IPPROTO_UDP;
    rule.Match.Proto[1] = IPPROTO_TCP;
    rule.Match.DstPortNum = 1;
    rule.Match.DstPort[0] = {53, 53};
    rule.Actions.DnatFlag = 1;
    rule.Actions.NatInfo.IpNum = 1;
    rule.Actions.NatInfo.IpType = VQ_IN_ADDR_TYPE_IPV4;
    rule.Actions.NatInfo.Ip[0] = kRuleAddress;
    return rule;
}

using Change = std::function<void(VQ_CONF_RULE &)>;

ThrownError DnsRefusal(const Change &change)
{
    VQ_CONF_RULE rule = DnsRule();
    change(rule);
    return FailureOf([&] { (void)InstallDnsText(rule, {{"lan0"}, {}, {}}); });
}

ThrownError DnatRefusal(const Change &change)
{
    VQ_CONF_RULE rule = DnatRule();
    change(rule);
    return FailureOf([&] { (void)InstallDnatText(rule, {"c2p0"}); });
}

TEST(RuleText, ADnsRuleRedirectsPort53OnEveryInterface)
{
    EXPECT_EQ(InstallDnsText(DnsRule(), {{"lan0", "lan1"}, {}, {}}),
              "add table ip kavel_dns_0_9\n"
              "delete table ip kavel_dns_0_9\n"
              "add table inet kavel_dns_0_9\n"
              "delete table inet kavel_dns_0_9\n"
              "table inet kavel_dns_0_9 {\n"
              "chain customer_42 {\n"
              "}\n"
              "chain prerouting {\n"
              "type nat hook prerouting priority dstnat; policy accept;\n"
              "iifname \"lan0\" udp dport 53 counter redirect to :53\n"
              "iifname \"lan0\" tcp dport 53 counter redirect to :53\n"
              "iifname \"lan1\" udp dport 53 counter redirect to :53\n"
              "iifname \"lan1\" tcp dport 53 counter redirect to :53\n"
              "}\n"
              "}\n");
}

TEST(RuleText, ADnsRuleDropsPort53OfAWanAfterItHasAcceptedTheOtherInterfaces)
{
    EXPECT_THAT(InstallDnsText(DnsRule(), {{"lan0", "br-*"}, {"c2p*"}, {"wan0", "ppp*"}}),
                testing::EndsWith("iifname \"br-*\" tcp dport 53 counter redirect to :53\n"
                                  "}\n"
                                  "chain input {\n"
                                  "type filter hook input priority filter; policy accept;\n"
                                  "iifname \"lan0\" accept\n"
                                  "iifname \"br-*\" accept\n"
                                  "iifname \"c2p*\" accept\n"
                                  "iifname \"wan0\" udp dport 53 drop\n"
                                  "iifname \"wan0\" tcp dport 53 drop\n"
                                  "iifname \"ppp*\" udp dport 53 drop\n"
                                  "iifname \"ppp*\" tcp dport 53 drop\n"
                                  "}\n"
                                  "}\n"));
}

TEST(RuleText, ADnsRuleWithoutLanStillDropsPort53OfAWan)
{
    EXPECT_THAT(InstallDnsText(DnsRule(), {{}, {}, {"wan0"}}),
                testing::EndsWith("type nat hook prerouting priority dstnat; policy accept;\n"
                                  "}\n"
                                  "chain input {\n"
                                  "type filter hook input priority filter; policy accept;\n"
                                  "iifname \"wan0\" udp dport 53 drop\n"
                                  "iifname \"wan0\" tcp dport 53 drop\n"
                                  "}\n"
                                  "}\n"));
}

TEST(RuleText, ADnatRuleRewritesTheDestinationOnEveryInterface)
{
    EXPECT_EQ(InstallDnatText(DnatRule(), {"c2p0", "c2p*"}),
              "add table ip kavel_dnat_0_3\n"
              "delete table ip kavel_dnat_0_3\n"
              "table ip kavel_dnat_0_3 {\n"
              "chain customer_42 {\n"
              "}\n"
              "chain prerouting {\n"
              "type nat hook prerouting priority dstnat; policy accept;\n"
              "iifname \"c2p0\" udp dport { 53 } dnat to 10.1.2.255\n"
              "iifname \"c2p0\" tcp dport { 53 } dnat to 10.1.2.255\n"
              "iifname \"c2p*\" udp dport { 53 } dnat to 10.1.2.255\n"
              "iifname \"c2p*\" tcp dport { 53 } dnat to 10.1.2.255\n"
              "}\n"
              "}\n");
}

TEST(RuleText, ARuleWithoutInterfacesIsInstalledAndMatchesNothing)
{
    const std::string end = "policy accept;\n}\n}\n";
    EXPECT_THAT(InstallDnsText(DnsRule(), {{}, {"c2p0"}, {}}), testing::EndsWith(end));
    EXPECT_THAT(InstallDnatText(DnatRule(), {}), testing::EndsWith(end));
}

TEST(RuleText, ADnatRuleListsItsPortsAndRanges)
{
    VQ_CONF_RULE rule = DnatRule();
    rule.Match.ProtoNum = 1;
    rule.Match.DstPortNum = 3;
    rule.Match.DstPort[0] = {0, 0};
    rule.Match.DstPort[1] = {53, 54};
    rule.Match.DstPort[2] = {5353, 65535};
    EXPECT_THAT(InstallDnatText(rule, {"c2p0"}),
                testing::HasSubstr("iifname \"c2p0\" udp dport { 0, 53-54, 5353-65535 } dnat to 10.1.2.255\n}\n"));
}

TEST(RuleText, ARuleIsIdentifiedByTableZoneAndId)
{
    VQ_CONF_RULE rule = DnatRule();
    rule.Zone = 255;
    rule.Id = 4294967295;
    const RuleKey key = KeyOf(rule);
    EXPECT_EQ(key.table, VQ_CONF_RULE_TBL_TYPE_DNAT);
    EXPECT_EQ(key.zone, 255U);
    EXPECT_EQ(key.id, 4294967295U);
    EXPECT_EQ(TableName(key), "kavel_dnat_255_4294967295");
    EXPECT_EQ(RuleTable(key), "ip kavel_dnat_255_4294967295");
    const RuleKey dns{VQ_CONF_RULE_TBL_TYPE_DNS, 0, 9};
    EXPECT_EQ(TableName(dns), "kavel_dns_0_9");
    EXPECT_EQ(RuleTable(dns), "inet kavel_dns_0_9");
    EXPECT_EQ(OlderRuleTable(dns), "ip kavel_dns_0_9");
}

TEST(RuleText, ARemovalDeletesTheCustomersChainBeforeTheTable)
{
    EXPECT_EQ(RemoveText({VQ_CONF_RULE_TBL_TYPE_DNS, 0, 9}, 42), "delete chain inet kavel_dns_0_9 customer_42\n"
                                                                 "delete table inet kavel_dns_0_9\n"
                                                                 "add table ip kavel_dns_0_9\n"
                                                                 "delete table ip kavel_dns_0_9\n");
    EXPECT_EQ(RemoveOlderText({VQ_CONF_RULE_TBL_TYPE_DNS, 0, 9}, 42), "delete chain ip kavel_dns_0_9 customer_42\n"
                                                                      "delete table ip kavel_dns_0_9\n");
    EXPECT_EQ(RemoveText({VQ_CONF_RULE_TBL_TYPE_DNAT, 3, 2}, 4294967295U),
              "delete chain ip kavel_dnat_3_2 customer_4294967295\n"
              "delete table ip kavel_dnat_3_2\n");
}

const DnsInterfaces kInterfaces{{"lan0"}, {"c2p*"}, {"wan0"}};

// The table of a DNS-table rule for kInterfaces, as nftables lists it.
const std::vector<std::string> kDnsListing{
    "table inet kavel_dns_0_9 {",
    "\tchain customer_42 {",
    "\t}",
    "",
    "\tchain prerouting {",
    "\t\ttype nat hook prerouting priority dstnat; policy accept;",
    "\t\tiifname \"lan0\" udp dport 53 counter packets 0 bytes 0 redirect to :53",
    "\t\tiifname \"lan0\" tcp dport 53 counter packets 12 bytes 18446744073709551615 redirect to :53",
    "\t}",
    "",
    "\tchain input {",
    "\t\ttype filter hook input priority filter; policy accept;",
    "\t\tiifname \"lan0\" accept",
    "\t\tiifname \"c2p*\" accept",
    "\t\tiifname \"wan0\" udp dport 53 drop",
    "\t\tiifname \"wan0\" tcp dport 53 drop",
    "\t}",
    "}"};

std::string Joined(const std::vector<std::string> &lines)
{
    std::string text;
    for (const std::string &line : lines) {
        text += line + "\n";
    }
    return text;
}

TEST(RuleText, AListingWithEveryLineIsAnInstalledDnsRule)
{
    EXPECT_TRUE(IsDnsInstalled(Joined(kDnsListing), kInterfaces));
    EXPECT_TRUE(IsDnsInstalled(Joined(kDnsListing), {{"lan0"}, {}, {}})) << "the input chain is not expected then";
}

// Without closing braces, which every listing has. The customer's chain steers nothing.
TEST(RuleText, AListingThatLacksALineIsNoInstalledDnsRule)
{
    constexpr std::size_t kPrerouting = 4;
    std::size_t tried = 0;
    for (std::size_t i = kPrerouting; i < kDnsListing.size(); ++i) {
        std::vector<std::string> lines = kDnsListing;
        lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(i));
        if (!kDnsListing[i].empty() && !kDnsListing[i].ends_with('}')) {
            EXPECT_FALSE(IsDnsInstalled(Joined(lines), kInterfaces)) << kDnsListing[i];
            ++tried;
        }
    }
    EXPECT_EQ(tried, 10U);
    EXPECT_FALSE(IsDnsInstalled("", kInterfaces));
    EXPECT_FALSE(IsDnsInstalled("", {})) << "the chain is expected without interfaces, too";
}

TEST(RuleText, AListingWithMoreRulesIsAnInstalledDnsRule)
{
    std::vector<std::string> lines = kDnsListing;
    lines.insert(lines.begin() + 6, "\t\tip saddr 10.0.0.9 accept");
    EXPECT_TRUE(IsDnsInstalled(Joined(lines), kInterfaces));
}

TEST(RuleText, AListingWithAChangedRuleIsNoInstalledDnsRule)
{
    const std::vector<std::pair<std::size_t, std::string>> changes{
        {5, "\t\ttype nat hook prerouting priority dstnat; policy drop;"},
        {6, "\t\tiifname \"lan0\" udp dport 53 counter packets 0 bytes 0 redirect to :5353"},
        {6, "\t\tiifname \"lan0\" udp dport 53 redirect to :53"},
        {6, "\t\tiifname \"lan0\" udp dport 53 counter packets 0 redirect to :53"},
        {7, "\t\tiifname \"lan1\" tcp dport 53 counter packets 0 bytes 0 redirect to :53"},
        {14, "\t\tiifname \"wan0\" udp dport 53 accept"}};
    for (const auto &[line, text] : changes) {
        std::vector<std::string> lines = kDnsListing;
        lines.at(line) = text;
        EXPECT_FALSE(IsDnsInstalled(Joined(lines), kInterfaces)) << text;
    }
}

TEST(RuleText, TheRedirectedPacketsAreThoseOfAllRedirectingRules)
{
    EXPECT_EQ(RedirectedPackets(Joined(kDnsListing)), 12U);
    std::vector<std::string> lines = kDnsListing;
    lines.at(6) = "\t\tiifname \"lan0\" udp dport 53 counter packets 4294967296 bytes 1 redirect to :53";
    lines.insert(lines.begin() + 8, "\t\tiifname \"lan9\" udp dport 5353 counter packets 7 bytes 9 accept");
    EXPECT_EQ(RedirectedPackets(Joined(lines)), 4294967308U);
    EXPECT_EQ(RedirectedPackets("iifname \"lan0\" udp dport 53 redirect to :53\n"), 0U) << "an older agent's";
    EXPECT_EQ(RedirectedPackets(""), 0U);
}

TEST(RuleText, AnAcceptBehindTheDropsIsNoInstalledDnsRule)
{
    std::vector<std::string> lines = kDnsListing;
    std::swap(lines.at(13), lines.at(14));
    EXPECT_FALSE(IsDnsInstalled(Joined(lines), kInterfaces));
}

TEST(RuleText, AnInstalledDnatRuleRewritesOnEveryInterface)
{
    const std::string start = "table ip kavel_dnat_0_3 {\n\tchain prerouting {\n";
    const std::string hook = "\t\ttype nat hook prerouting priority dstnat; policy accept;\n";
    const std::string rule = "\t\tiifname \"c2p*\" udp dport 53 dnat to 10.1.2.255\n";
    const std::string end = "\t}\n}\n";
    EXPECT_TRUE(IsDnatInstalled(start + hook + rule + end, {"c2p*"}));
    EXPECT_TRUE(IsDnatInstalled(start + hook + end, {}));
    EXPECT_FALSE(IsDnatInstalled(start + hook + end, {"c2p*"}));
    EXPECT_FALSE(IsDnatInstalled(start + hook + rule + end, {"c2p*", "c2p"}));
    EXPECT_FALSE(IsDnatInstalled(start + hook + "\t\tiifname \"c2p*\" udp dport 53 accept\n" + end, {"c2p*"}));
    EXPECT_FALSE(IsDnatInstalled(start + rule + end, {"c2p*"})) << "a chain without a hook sees no packet";
    EXPECT_FALSE(IsDnatInstalled("", {}));
}

TEST(RuleText, TheSampleRulesAreAccepted)
{
    EXPECT_EQ(DnsRefusal([](VQ_CONF_RULE & /*rule*/) {}), kNone);
    EXPECT_EQ(DnatRefusal([](VQ_CONF_RULE & /*rule*/) {}), kNone);
}

TEST(RuleText, RefusesAListOverItsLimit)
{
    const std::vector<std::pair<std::uint8_t VQ_CONF_RULE_MATCH::*, const char *>> lists{
        {&VQ_CONF_RULE_MATCH::DstPortNum, "destination ports"},
        {&VQ_CONF_RULE_MATCH::ProtoNum, "protocols"},
        {&VQ_CONF_RULE_MATCH::InPortNum, "input interfaces"},
        {&VQ_CONF_RULE_MATCH::OutPortNum, "output interfaces"}};
    const ThrownError tooLong{EINVAL, "a list of 65 entries is over its limit"};
    for (const auto &[list, name] : lists) {
        const Change change = [member = list](VQ_CONF_RULE &rule) { rule.Match.*member = 65; };
        EXPECT_EQ(DnsRefusal(change), tooLong) << name;
        EXPECT_EQ(DnatRefusal(change), tooLong) << name;
    }
}

TEST(RuleText, AcceptsAListAtItsLimit)
{
    EXPECT_EQ(DnatRefusal([](VQ_CONF_RULE &rule) { rule.Match.DstPortNum = VQ_CONF_RULE_ENTRY_MAX; }), kNone);
}

TEST(RuleText, RefusesEveryMatchThatThisHostDoesNotHave)
{
    const std::vector<Change> changes{[](VQ_CONF_RULE &rule) { rule.Match.SrcIpNum = 1; },
                                      [](VQ_CONF_RULE &rule) { rule.Match.DstIpNum = 1; },
                                      [](VQ_CONF_RULE &rule) { rule.Match.SrcPortNum = 1; },
                                      [](VQ_CONF_RULE &rule) { rule.Match.DscpNum = 1; },
                                      [](VQ_CONF_RULE &rule) { rule.Match.TransIdNum = 1; },
                                      [](VQ_CONF_RULE &rule) { rule.Match.RegNum = 1; },
                                      [](VQ_CONF_RULE &rule) { rule.Match.SrcIpSetFlag = 1; },
                                      [](VQ_CONF_RULE &rule) { rule.Match.DstIpSetFlag = 1; },
                                      [](VQ_CONF_RULE &rule) { rule.Match.AcsNameFlag = 1; },
                                      [](VQ_CONF_RULE &rule) { rule.Match.InVpnFlag = 1; },
                                      [](VQ_CONF_RULE &rule) { rule.Match.InPolicyFlag = 1; }};
    for (std::size_t i = 0; i < changes.size(); ++i) {
        EXPECT_EQ(DnsRefusal(changes[i]), kMatchesMore) << i;
        EXPECT_EQ(DnatRefusal(changes[i]), kMatchesMore) << i;
    }
}

TEST(RuleText, RefusesEveryActionThatThisHostDoesNotHave)
{
    const std::vector<Change> changes{[](VQ_CONF_RULE &rule) { rule.Actions.SnatFlag = 1; },
                                      [](VQ_CONF_RULE &rule) { rule.Actions.AcceFlag = 1; },
                                      [](VQ_CONF_RULE &rule) { rule.Actions.AuthedFlag = 1; },
                                      [](VQ_CONF_RULE &rule) { rule.Actions.SetRegFlag = 1; },
                                      [](VQ_CONF_RULE &rule) { rule.Actions.SetVpnFlag = 1; },
                                      [](VQ_CONF_RULE &rule) { rule.Actions.SetDscpFlag = 1; },
                                      [](VQ_CONF_RULE &rule) { rule.Actions.InboundRateLimitId = 1; },
                                      [](VQ_CONF_RULE &rule) { rule.Actions.OutboundRateLimitId = 1; }};
    for (std::size_t i = 0; i < changes.size(); ++i) {
        EXPECT_EQ(DnsRefusal(changes[i]), kDoesMore) << i;
        EXPECT_EQ(DnatRefusal(changes[i]), kDoesMore) << i;
    }
}

// A deletion finds the namespace by the id alone.
TEST(RuleText, RefusesADnsRuleWhoseIdIsNotThatOfItsVpn)
{
    EXPECT_EQ(DnsRefusal([](VQ_CONF_RULE &rule) { ++rule.Id; }), (ThrownError{EINVAL, "it is not the rule of vpn 7"}));
    EXPECT_EQ(DnsRefusal([](VQ_CONF_RULE &rule) { rule.VpnId = 8; }),
              (ThrownError{EINVAL, "it is not the rule of vpn 8"}));
}

TEST(RuleText, TheIdOfADnsRuleWrapsAtTheLargestVpn)
{
    EXPECT_EQ(DnsRefusal([](VQ_CONF_RULE &rule) {
                  rule.VpnId = 4294967295U;
                  rule.Id = 1;
              }),
              kNone);
}

TEST(RuleText, RefusesADnsRuleThatDoesNotLeadToTheBoxAlone)
{
    const std::vector<Change> changes{
        [](VQ_CONF_RULE &rule) { rule.Match.DstPortNum = 1; },
        [](VQ_CONF_RULE &rule) { rule.Match.ProtoNum = 1; },
        [](VQ_CONF_RULE &rule) { rule.Match.InPortNum = 1; },
        [](VQ_CONF_RULE &rule) { rule.Actions.DnatFlag = 1; },
        [](VQ_CONF_RULE &rule) { rule.Match.OutPortNum = 0; },
        [](VQ_CONF_RULE &rule) { rule.Match.OutPortNum = 2; },
        [](VQ_CONF_RULE &rule) { rule.Match.OutPort[0].Type = VQ_CONF_DP_IF_TYPE_WAN; },
        [](VQ_CONF_RULE &rule) { rule.Actions.OutputNum = 0; },
        [](VQ_CONF_RULE &rule) { rule.Actions.OutputNum = 2; },
        [](VQ_CONF_RULE &rule) { rule.Actions.OutputArray[0].Type = VQ_CONF_DP_IF_TYPE_DROP; }};
    for (std::size_t i = 0; i < changes.size(); ++i) {
        EXPECT_EQ(DnsRefusal(changes[i]), kNotToTheBox) << i;
    }
}

TEST(RuleText, RefusesADnatRuleThatDoesAnythingElse)
{
    EXPECT_EQ(DnatRefusal([](VQ_CONF_RULE &rule) { rule.Match.OutPortNum = 1; }), kNotDnat);
    EXPECT_EQ(DnatRefusal([](VQ_CONF_RULE &rule) { rule.Actions.OutputNum = 1; }), kNotDnat);
    EXPECT_EQ(DnatRefusal([](VQ_CONF_RULE &rule) { rule.Actions.DnatFlag = 0; }), kNotDnat);
}

TEST(RuleText, RefusesADestinationThatIsNotOneIpv4AddressWithTheSamePort)
{
    const std::vector<Change> changes{[](VQ_CONF_RULE &rule) { rule.Actions.NatInfo.IpNum = 0; },
                                      [](VQ_CONF_RULE &rule) { rule.Actions.NatInfo.IpNum = 2; },
                                      [](VQ_CONF_RULE &rule) { rule.Actions.NatInfo.IpType = VQ_IN_ADDR_TYPE_IPV6; },
                                      [](VQ_CONF_RULE &rule) {
                                          rule.Actions.NatInfo.PortRange = {53, 0};
                                      },
                                      [](VQ_CONF_RULE &rule) {
                                          rule.Actions.NatInfo.PortRange = {0, 53};
                                      }};
    for (std::size_t i = 0; i < changes.size(); ++i) {
        EXPECT_EQ(DnatRefusal(changes[i]), kNotOneAddress) << i;
    }
}

TEST(RuleText, RefusesADestinationOfZero)
{
    EXPECT_EQ(DnatRefusal([](VQ_CONF_RULE &rule) { rule.Actions.NatInfo.Ip[0] = 0; }),
              (ThrownError{EINVAL, "it goes to 0.0.0.0"}));
}

TEST(RuleText, RefusesADnatRuleForOtherInterfaces)
{
    const std::vector<Change> changes{
        [](VQ_CONF_RULE &rule) { rule.Match.InPortNum = 0; }, [](VQ_CONF_RULE &rule) { rule.Match.InPortNum = 2; },
        [](VQ_CONF_RULE &rule) { rule.Match.InPort[0].Type = VQ_CONF_DP_IF_TYPE_VQCONN_C2C; },
        [](VQ_CONF_RULE &rule) { rule.Match.InPort[0].Id = 1; }};
    for (std::size_t i = 0; i < changes.size(); ++i) {
        EXPECT_EQ(DnatRefusal(changes[i]), kNotC2p) << i;
    }
}

TEST(RuleText, RefusesADnatRuleWithoutProtocolOrPort)
{
    EXPECT_EQ(DnatRefusal([](VQ_CONF_RULE &rule) { rule.Match.ProtoNum = 0; }), kNoProtocolOrPort);
    EXPECT_EQ(DnatRefusal([](VQ_CONF_RULE &rule) { rule.Match.DstPortNum = 0; }), kNoProtocolOrPort);
}

TEST(RuleText, RefusesAProtocolWithoutPorts)
{
    EXPECT_EQ(DnatRefusal([](VQ_CONF_RULE &rule) { rule.Match.Proto[1] = IPPROTO_ICMP; }),
              (ThrownError{EOPNOTSUPP, "protocol 1 has no ports"}));
}

TEST(RuleText, RefusesAPortRangeThatEndsBeforeItBegins)
{
    EXPECT_EQ(DnatRefusal([](VQ_CONF_RULE &rule) {
                  rule.Match.DstPort[0] = {54, 53};
              }),
              (ThrownError{EINVAL, "a port range ends before it begins"}));
}

} // namespace
} // namespace kavel::agent
