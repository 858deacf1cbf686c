// What the agent's rules look like in the kernel, which of them it takes for installed, and what becomes of the rules
// of an older agent.
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "contract_test.h"
#include "services/host.h"
#include "services/rules_nftables.h"
#include "vqRule.h"

namespace kavel::contract {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char *kTable = "inet kavel_dns_0_9";
constexpr const char *kOlderTable = "ip kavel_dns_0_9";

// Runs nftables commands in the namespace of a VPN. Returns what they list.
std::string Nft(std::uint32_t vpn, const std::string &commands)
{
    return agent::Host::Current().nftables.Run(vpn, commands + "\n");
}

VQ_ERR_T AddDns(std::uint32_t vpn, std::uint32_t customer)
{
    const auto rule = std::make_unique<VQ_CONF_RULE>();
    rule->OpType = VQ_CONF_RULE_OP_TYPE_INSERT;
    rule->Table = VQ_CONF_RULE_TBL_TYPE_DNS;
    rule->Id = vpn + agent::kDnsRuleIdOffset;
    rule->VpnId = vpn;
    rule->CustomerId = customer;
    rule->Match.OutPortNum = 1;
    rule->Match.OutPort[0].Type = VQ_CONF_DP_IF_TYPE_LOCAL;
    rule->Actions.OutputNum = 1;
    rule->Actions.OutputArray[0].Type = VQ_CONF_DP_IF_TYPE_LOCAL;
    return VQ_RtcRuleConfAdd(rule.get(), VQ_IMC_OP_TYPE_RULE_DNS_INSERT, FALSE, TRUE);
}

VQ_ERR_T DeleteDns(std::uint32_t vpn, std::uint32_t customer)
{
    return VQ_RtcRuleConfDel(0, vpn + agent::kDnsRuleIdOffset, customer, VQ_IMC_OP_TYPE_RULE_DNS_DELETE, TRUE);
}

VQ_ERR_T AddDnat()
{
    const auto rule = std::make_unique<VQ_CONF_RULE>();
    rule->OpType = VQ_CONF_RULE_OP_TYPE_INSERT;
    rule->Table = VQ_CONF_RULE_TBL_TYPE_DNAT;
    rule->Id = VQ_DNAT_TBL_ZONE0_RULE_ID_DNSMASQ;
    rule->Match.DstPortNum = 1;
    rule->Match.DstPort[0] = {53, 53};
    rule->Match.ProtoNum = 1;
    rule->Match.Proto[0] = 17;
    rule->Match.InPortNum = 1;
    rule->Match.InPort[0].Type = VQ_CONF_DP_IF_TYPE_VQCONN_C2P;
    rule->Actions.DnatFlag = 1;
    rule->Actions.NatInfo.Ip[0] = Ip(10, 0, 0, 1);
    rule->Actions.NatInfo.IpNum = 1;
    rule->Actions.NatInfo.IpType = VQ_IN_ADDR_TYPE_IPV4;
    return VQ_RtcRuleConfAdd(rule.get(), VQ_IMC_OP_TYPE_RULE_DNAT_INSERT, FALSE, TRUE);
}

// As an agent did that knew IPv4 only.
void InstallOlderRule(std::uint32_t customer)
{
    Nft(kVpn, std::string("table ") + kOlderTable + " {\nchain customer_" + std::to_string(customer) +
                  " {\n}\nchain prerouting {\ntype nat hook prerouting priority dstnat; policy accept;\n"
                  "iifname \"lan0\" udp dport 53 redirect to :53\n}\n}");
}

agent::InstalledRules Found(std::uint32_t vpn)
{
    return agent::FindInstalledRules(agent::Host::Current(), vpn);
}

class AgentRules : public ContractTest {
  protected:
    // The world clears the tables that were read.
    void SetUp() override { ASSERT_THAT(world().Rules(), IsEmpty()); }
};

TEST_F(AgentRules, DnsRuleRedirectsTheLanAndDropsTheWan)
{
    EXPECT_EQ(AddDns(kVpn, kCustomerOfVpn), 0);
    EXPECT_EQ(Nft(kVpn, "list tables"), std::string("table ") + kTable + "\n");
    EXPECT_THAT(Nft(kVpn, "list ruleset"),
                HasSubstr("\t\ttype nat hook prerouting priority dstnat; policy accept;\n"
                          "\t\tiifname \"lan0\" udp dport 53 counter packets 0 bytes 0 redirect to :53\n"
                          "\t\tiifname \"lan0\" tcp dport 53 counter packets 0 bytes 0 redirect to :53\n"
                          "\t\tiifname \"lan1\" udp dport 53 counter packets 0 bytes 0 redirect to :53\n"
                          "\t\tiifname \"lan1\" tcp dport 53 counter packets 0 bytes 0 redirect to :53\n"
                          "\t}\n"
                          "\n"
                          "\tchain input {\n"
                          "\t\ttype filter hook input priority filter; policy accept;\n"
                          "\t\tiifname \"lan0\" accept\n"
                          "\t\tiifname \"lan1\" accept\n"
                          "\t\tiifname \"wan0\" udp dport 53 drop\n"
                          "\t\tiifname \"wan0\" tcp dport 53 drop\n"
                          "\t\tiifname \"wan1\" udp dport 53 drop\n"
                          "\t\tiifname \"wan1\" tcp dport 53 drop\n"
                          "\t}\n"));
}

TEST_F(AgentRules, DnsRuleOfTheBoxAcceptsItsLanAndC2pBeforeItDropsItsWan)
{
    EXPECT_EQ(AddDns(0, kCustomer), 0);
    EXPECT_THAT(Nft(0, "list ruleset"), HasSubstr("\t\tiifname \"br-*\" accept\n"
                                                  "\t\tiifname \"c2p*\" accept\n"
                                                  "\t\tiifname \"up0\" udp dport 53 drop\n"
                                                  "\t\tiifname \"up0\" tcp dport 53 drop\n"
                                                  "\t\tiifname \"br-9\" udp dport 53 drop\n"
                                                  "\t\tiifname \"br-9\" tcp dport 53 drop\n"
                                                  "\t}\n"));
}

TEST_F(AgentRules, VpnWithoutWanDropsNothing)
{
    EXPECT_EQ(AddDns(kOtherVpn, kCustomer), 0);
    EXPECT_THAT(Nft(kOtherVpn, "list ruleset"), Not(HasSubstr("drop")));
    EXPECT_TRUE(Found(kOtherVpn).dns);
}

TEST_F(AgentRules, InstallationReplacesTheRuleOfAnOlderAgent)
{
    InstallOlderRule(kCustomer);
    EXPECT_EQ(AddDns(kVpn, kCustomerOfVpn), 0);
    EXPECT_EQ(Nft(kVpn, "list tables"), std::string("table ") + kTable + "\n");
}

TEST_F(AgentRules, DeletionFindsTheRuleOfAnOlderAgent)
{
    InstallOlderRule(kCustomerOfVpn);
    EXPECT_EQ(DeleteDns(kVpn, kCustomer), -ENOENT) << "it is another customer's";
    EXPECT_THAT(world().Rules(), ElementsAre("dns zone 0 id 9 customer 42"));
    EXPECT_EQ(DeleteDns(kVpn, kCustomerOfVpn), 0);
    EXPECT_EQ(Nft(kVpn, "list tables"), "");
    EXPECT_EQ(DeleteDns(kVpn, kCustomerOfVpn), -ENOENT);
}

TEST_F(AgentRules, DeletionLeavesNothingOfAnOlderAgentBehind)
{
    EXPECT_EQ(AddDns(kVpn, kCustomerOfVpn), 0);
    InstallOlderRule(kCustomerOfVpn);
    EXPECT_EQ(DeleteDns(kVpn, kCustomerOfVpn), 0);
    EXPECT_EQ(Nft(kVpn, "list tables"), "");
}

TEST_F(AgentRules, RuleIsFoundUntilItIsDeleted)
{
    EXPECT_FALSE(Found(kVpn).dns);
    EXPECT_EQ(AddDns(kVpn, kCustomerOfVpn), 0);
    EXPECT_TRUE(Found(kVpn).dns);
    EXPECT_FALSE(Found(kVpn).stale);
    EXPECT_FALSE(Found(kOtherVpn).dns);
    EXPECT_EQ(DeleteDns(kVpn, kCustomerOfVpn), 0);
    EXPECT_FALSE(Found(kVpn).dns);
    EXPECT_FALSE(Found(kVpn).stale);
}

TEST_F(AgentRules, BoxHasBothRules)
{
    EXPECT_EQ(AddDns(0, kCustomer), 0);
    EXPECT_TRUE(Found(0).dns);
    EXPECT_FALSE(Found(0).dnat);
    EXPECT_EQ(AddDnat(), 0);
    EXPECT_TRUE(Found(0).dns);
    EXPECT_TRUE(Found(0).dnat);
    EXPECT_FALSE(Found(0).stale);
}

TEST_F(AgentRules, RuleOfAnOlderAgentIsStale)
{
    InstallOlderRule(kCustomerOfVpn);
    EXPECT_FALSE(Found(kVpn).dns);
    EXPECT_TRUE(Found(kVpn).stale);
}

TEST_F(AgentRules, ChangedDnsRuleIsStale)
{
    const std::string table = kTable;
    const std::vector<std::string> changes{
        "flush chain " + table + " prerouting",
        "flush chain " + table + " input",
        "delete chain " + table + " input",
        "flush chain " + table + " prerouting\nadd rule " + table + " prerouting iifname \"lan0\" udp dport 53 accept",
        "flush table " + table,
    };
    for (const std::string &change : changes) {
        EXPECT_EQ(AddDns(kVpn, kCustomerOfVpn), 0);
        ASSERT_TRUE(Found(kVpn).dns) << change;
        Nft(kVpn, change);
        EXPECT_FALSE(Found(kVpn).dns) << change;
        EXPECT_TRUE(Found(kVpn).stale) << change;
    }
    EXPECT_EQ(DeleteDns(kVpn, kCustomerOfVpn), 0) << "a stale rule can be deleted";
}

TEST_F(AgentRules, FlushedDnatRuleIsStale)
{
    EXPECT_EQ(AddDnat(), 0);
    Nft(0, "flush chain ip kavel_dnat_0_3 prerouting");
    EXPECT_FALSE(Found(0).dnat);
    EXPECT_TRUE(Found(0).stale);
}

TEST_F(AgentRules, RuleWithAddedRulesIsFound)
{
    EXPECT_EQ(AddDns(kVpn, kCustomerOfVpn), 0);
    Nft(kVpn, std::string("insert rule ") + kTable + " prerouting ip saddr 10.0.0.9 counter accept");
    EXPECT_TRUE(Found(kVpn).dns);
}

} // namespace
} // namespace kavel::contract
