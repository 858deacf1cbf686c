#include <cerrno>
#include <cstring>
#include <memory>

#include "contract_test.h"
#include "vqRule.h"

namespace kavel::contract {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint16_t kDnsPort = 53;
constexpr std::uint8_t kUdp = 17;
constexpr std::uint32_t kDnsIdOffset = 2;

// A rule as the module builds it.
std::unique_ptr<VQ_CONF_RULE> NewRule(VQ_CONF_RULE_TBL_TYPE table, std::uint32_t id, std::uint32_t customer)
{
    auto rule = std::make_unique<VQ_CONF_RULE>();
    rule->OpType = VQ_CONF_RULE_OP_TYPE_INSERT;
    rule->Table = static_cast<std::uint8_t>(table);
    rule->Id = id;
    rule->PreId = 1;
    rule->CustomerId = customer;
    return rule;
}

VQ_ERR_T AddDns(std::uint32_t vpn, std::uint32_t customer)
{
    const auto rule = NewRule(VQ_CONF_RULE_TBL_TYPE_DNS, vpn + kDnsIdOffset, customer);
    rule->VpnId = vpn;
    rule->Match.OutPortNum = 1;
    rule->Match.OutPort[0].Type = VQ_CONF_DP_IF_TYPE_LOCAL;
    rule->Actions.OutputNum = 1;
    rule->Actions.OutputArray[0].Type = VQ_CONF_DP_IF_TYPE_LOCAL;
    rule->Actions.OutputArray[0].Priority = 1;
    return VQ_RtcRuleConfAdd(rule.get(), VQ_IMC_OP_TYPE_RULE_DNS_INSERT, FALSE, TRUE);
}

VQ_ERR_T DeleteDns(std::uint32_t vpn, std::uint32_t customer)
{
    return VQ_RtcRuleConfDel(0, vpn + kDnsIdOffset, customer, VQ_IMC_OP_TYPE_RULE_DNS_DELETE, TRUE);
}

VQ_ERR_T AddDnat(std::uint32_t target, std::uint32_t customer = 0)
{
    const auto rule = NewRule(VQ_CONF_RULE_TBL_TYPE_DNAT, VQ_DNAT_TBL_ZONE0_RULE_ID_DNSMASQ, customer);
    rule->Match.DstPortNum = 1;
    rule->Match.DstPort[0] = {kDnsPort, kDnsPort};
    rule->Match.ProtoNum = 1;
    rule->Match.Proto[0] = kUdp;
    rule->Match.InPortNum = 1;
    rule->Match.InPort[0].Type = VQ_CONF_DP_IF_TYPE_VQCONN_C2P;
    rule->Actions.DnatFlag = 1;
    rule->Actions.NatInfo.Ip[0] = target;
    rule->Actions.NatInfo.IpNum = 1;
    rule->Actions.NatInfo.IpType = VQ_IN_ADDR_TYPE_IPV4;
    return VQ_RtcRuleConfAdd(rule.get(), VQ_IMC_OP_TYPE_RULE_DNAT_INSERT, FALSE, TRUE);
}

VQ_ERR_T DeleteDnat(std::uint32_t customer = 0)
{
    return VQ_RtcRuleConfDel(0, VQ_DNAT_TBL_ZONE0_RULE_ID_DNSMASQ, customer, VQ_IMC_OP_TYPE_RULE_DNAT_DELETE, TRUE);
}

class Rules : public ContractTest {
  protected:
    // The world clears the tables that were read.
    void SetUp() override { ASSERT_THAT(world().Rules(), IsEmpty()); }
};

TEST_F(Rules, DnsRuleIsAddedAndDeleted)
{
    PROMISE(kRuleDns);
    PROMISE(kRuleDelete);
    EXPECT_GE(AddDns(kVpn, kCustomerOfVpn), 0);
    EXPECT_THAT(world().Rules(), ElementsAre("dns zone 0 id 9 customer 42"));
    EXPECT_GE(DeleteDns(kVpn, kCustomerOfVpn), 0);
    EXPECT_THAT(world().Rules(), IsEmpty());
}

TEST_F(Rules, DnatRuleIsAddedAndDeleted)
{
    PROMISE(kRuleDnat);
    EXPECT_GE(AddDnat(Ip(10, 0, 0, 1)), 0);
    EXPECT_THAT(world().Rules(), ElementsAre("dnat zone 0 id 3 customer 0"));
    EXPECT_GE(DeleteDnat(), 0);
    EXPECT_THAT(world().Rules(), IsEmpty());
}

TEST_F(Rules, RuleAddedTwiceExistsOnce)
{
    PROMISE(kRuleDnsReplaces);
    for (int round = 0; round < 3; ++round) {
        EXPECT_GE(AddDns(kVpn, kCustomerOfVpn), 0);
        EXPECT_GE(AddDnat(Ip(10, 0, 0, 1)), 0);
    }
    EXPECT_GE(AddDnat(Ip(10, 0, 0, 2)), 0);
    EXPECT_THAT(world().Rules(), ElementsAre("dnat zone 0 id 3 customer 0", "dns zone 0 id 9 customer 42"));
    EXPECT_GE(DeleteDns(kVpn, kCustomerOfVpn), 0);
    EXPECT_GE(DeleteDnat(), 0);
    EXPECT_THAT(world().Rules(), IsEmpty());
}

TEST_F(Rules, DeletingAMissingRuleIsNotFound)
{
    PROMISE(kRuleDeleteMissing);
    EXPECT_EQ(DeleteDns(kVpn, kCustomerOfVpn), -ENOENT);
    EXPECT_EQ(DeleteDnat(), -ENOENT);
    EXPECT_GE(AddDns(kVpn, kCustomerOfVpn), 0);
    EXPECT_EQ(DeleteDns(kOtherVpn, kCustomerOfVpn), -ENOENT);
    EXPECT_EQ(DeleteDnat(), -ENOENT);
    EXPECT_THAT(world().Rules(), ElementsAre("dns zone 0 id 9 customer 42"));
}

TEST_F(Rules, SecondDeleteIsNotFound)
{
    EXPECT_GE(AddDns(kVpn, kCustomerOfVpn), 0);
    EXPECT_GE(AddDnat(Ip(10, 0, 0, 1)), 0);
    EXPECT_GE(DeleteDns(kVpn, kCustomerOfVpn), 0);
    EXPECT_GE(DeleteDnat(), 0);
    EXPECT_EQ(DeleteDns(kVpn, kCustomerOfVpn), -ENOENT);
    EXPECT_EQ(DeleteDnat(), -ENOENT);
}

TEST_F(Rules, RuleOfAnotherCustomerIsNotDeleted)
{
    PROMISE(kRuleDeleteCustomer);
    EXPECT_GE(AddDns(kVpn, kCustomerOfVpn), 0);
    EXPECT_GE(AddDnat(Ip(10, 0, 0, 1)), 0);
    EXPECT_EQ(DeleteDns(kVpn, kCustomer), -ENOENT);
    EXPECT_EQ(DeleteDnat(kCustomer), -ENOENT);
    EXPECT_THAT(world().Rules(), ElementsAre("dnat zone 0 id 3 customer 0", "dns zone 0 id 9 customer 42"));
}

// The operation code names the table.
TEST_F(Rules, RuleOfAnotherTableIsNotDeleted)
{
    PROMISE(kRuleDeleteOtherTable);
    EXPECT_GE(AddDns(kVpn, kCustomerOfVpn), 0);
    EXPECT_LT(VQ_RtcRuleConfDel(0, kVpn + kDnsIdOffset, kCustomerOfVpn, VQ_IMC_OP_TYPE_RULE_DNAT_DELETE, TRUE), 0);
    EXPECT_THAT(world().Rules(), ElementsAre("dns zone 0 id 9 customer 42"));
}

TEST_F(Rules, RecordStaysThePropertyOfTheCaller)
{
    PROMISE(kRuleRecordKept);
    const auto rule = NewRule(VQ_CONF_RULE_TBL_TYPE_DNAT, VQ_DNAT_TBL_ZONE0_RULE_ID_DNSMASQ, 0);
    rule->Actions.DnatFlag = 1;
    rule->Actions.NatInfo.Ip[0] = Ip(10, 0, 0, 1);
    rule->Actions.NatInfo.IpNum = 1;
    rule->Match.DstPortNum = 1;
    rule->Match.DstPort[0] = {kDnsPort, kDnsPort};
    rule->Match.ProtoNum = 1;
    rule->Match.Proto[0] = kUdp;
    rule->Match.InPortNum = 1;
    rule->Match.InPort[0].Type = VQ_CONF_DP_IF_TYPE_VQCONN_C2P;
    const auto copy = std::make_unique<VQ_CONF_RULE>(*rule);
    EXPECT_GE(VQ_RtcRuleConfAdd(rule.get(), VQ_IMC_OP_TYPE_RULE_DNAT_INSERT, FALSE, TRUE), 0);
    EXPECT_EQ(std::memcmp(rule.get(), copy.get(), sizeof(VQ_CONF_RULE)), 0);
    std::memset(rule.get(), 0xFF, sizeof(VQ_CONF_RULE));
    EXPECT_GE(DeleteDnat(), 0);
}

// An id is unique within table and zone, whoever owns it.
TEST_F(Rules, AddingWithAnotherCustomerReplacesTheRule)
{
    EXPECT_GE(AddDns(kVpn, kCustomer), 0);
    EXPECT_GE(AddDns(kVpn, kCustomerOfVpn), 0);
    EXPECT_THAT(world().Rules(), ElementsAre("dns zone 0 id 9 customer 42"));
    EXPECT_EQ(DeleteDns(kVpn, kCustomer), -ENOENT);
    EXPECT_GE(DeleteDns(kVpn, kCustomerOfVpn), 0);
}

TEST_F(Rules, VpnsHaveSeparateRules)
{
    PROMISE(kRuleBox);
    for (const std::uint32_t vpn : {0U, kVpn, kOtherVpn, kLastVpn}) {
        EXPECT_GE(AddDns(vpn, kCustomer), 0) << vpn;
    }
    EXPECT_GE(AddDnat(Ip(10, 0, 0, 1)), 0);
    EXPECT_THAT(world().Rules(),
                ElementsAre("dnat zone 0 id 3 customer 0", "dns zone 0 id 1 customer 1", "dns zone 0 id 10 customer 1",
                            "dns zone 0 id 2 customer 1", "dns zone 0 id 9 customer 1"));
    EXPECT_GE(DeleteDns(kOtherVpn, kCustomer), 0);
    EXPECT_THAT(world().Rules(), ElementsAre("dnat zone 0 id 3 customer 0", "dns zone 0 id 1 customer 1",
                                             "dns zone 0 id 2 customer 1", "dns zone 0 id 9 customer 1"));
}

TEST_F(Rules, UnknownVpnIsRefused)
{
    EXPECT_EQ(AddDns(kUnknownVpn, kCustomer), -ENOENT);
    EXPECT_EQ(DeleteDns(kUnknownVpn, kCustomer), -ENOENT);
    EXPECT_THAT(world().Rules(), IsEmpty());
}

class Customers : public ContractTest {};

TEST_F(Customers, VpnWithACustomerReturnsIt)
{
    PROMISE(kRuleCustomer);
    std::uint32_t customer = 0;
    EXPECT_GE(VQ_GetCustomerIdByVpnId(kVpn, &customer), 0);
    EXPECT_EQ(customer, kCustomerOfVpn);
}

TEST_F(Customers, VpnWithoutACustomerLeavesTheOutputUnchanged)
{
    PROMISE(kRuleCustomerUnknown);
    for (const std::uint32_t vpn : {0U, kOtherVpn, kUnknownVpn}) {
        std::uint32_t customer = 12345;
        EXPECT_LT(VQ_GetCustomerIdByVpnId(vpn, &customer), 0) << vpn;
        EXPECT_EQ(customer, 12345U) << vpn;
    }
}

TEST_F(Customers, BoxHasItsOwnCustomer)
{
    PROMISE(kRuleCustomerBox);
    EXPECT_EQ(VQ_PlatformGetCustomerId(), kCustomer);
}

} // namespace
} // namespace kavel::contract
