// Host and module are built separately and share records. The offsets below are computed by hand from the widths and
// the order of the fields, with the alignment of plain C. Where it depends on the processor, the offsets are given for
// its pointers and its alignment of 64 bits.
#include <bit>
#include <cstddef>
#include <cstring>

#include <gtest/gtest.h>

#include "vqCtrlAdvancedDns.h"
#include "vqNetio.h"
#include "vqRoute.h"
#include "vqRule.h"
#include "vqStore.h"

namespace {

// The two links at the beginning of a node.
constexpr std::size_t kLinks = 2 * sizeof(void *);

// i386 alone aligns 64 bits in a structure to 4 bytes.
#ifdef __i386__
constexpr std::size_t kTimeStamp = 36;
#else
constexpr std::size_t kTimeStamp = 40;
#endif

TEST(Layout, ScalarsAre32Bits)
{
    EXPECT_EQ(sizeof(BOOL), 4U);
    EXPECT_EQ(sizeof(VQ_ERR_T), 4U);
    EXPECT_EQ(sizeof(VQ_CTRL_DNSMASQ_OPERATION), 4U);
    EXPECT_EQ(sizeof(VQ_SQL_CONF_OP), 4U);
    EXPECT_EQ(sizeof(VQ_SQL_CONF_TBL), 4U);
    EXPECT_EQ(sizeof(VQ_IN_ADDR_TYPE), 4U);
    EXPECT_EQ(FALSE, 0U);
    EXPECT_EQ(TRUE, 1U);
}

TEST(Layout, AnEnumerationHoldsAny32BitValue)
{
    EXPECT_EQ(static_cast<uint32_t>(static_cast<VQ_CTRL_DNSMASQ_OPERATION>(0xffffffffU)), 0xffffffffU);
    EXPECT_EQ(static_cast<uint32_t>(static_cast<BOOL>(0x80000001U)), 0x80000001U);
}

TEST(Layout, OperationValues)
{
    EXPECT_EQ(VQ_CTRL_DNSMASQ_OP_RELOAD, 0U);
    EXPECT_EQ(VQ_CTRL_DNSMASQ_OP_REBOOT, 1U);
    EXPECT_EQ(VQ_CTRL_DNSMASQ_OP_MAX, 2U);
    EXPECT_EQ(VQ_DNSMASQ_OP_RELOAD, 0U);
    EXPECT_EQ(VQ_DNSMASQ_OP_REBOOT, 1U);
    EXPECT_EQ(VQ_DNSMASQ_OP_MAX, 2U);
}

TEST(Layout, Items)
{
    EXPECT_EQ(offsetof(VQ_CTRL_DNS_HOST_CONF, Ip), 0U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNS_HOST_CONF, Domain), 4U);
    EXPECT_EQ(sizeof(VQ_CTRL_DNS_HOST_CONF), 260U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNS_MX_HOST_CONF, TargetDomain), 0U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNS_MX_HOST_CONF, SourceDomain), 256U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNS_MX_HOST_CONF, Preference), 512U);
    EXPECT_EQ(sizeof(VQ_CTRL_DNS_MX_HOST_CONF), 516U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNS_SERVER_CONF, DnsServerIp), 0U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNS_SERVER_CONF, Ifname), 4U);
    EXPECT_EQ(sizeof(VQ_CTRL_DNS_SERVER_CONF), 20U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNS_PROXY_CONF, Domain), 0U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNS_PROXY_CONF, ServerIp), 256U);
    EXPECT_EQ(sizeof(VQ_CTRL_DNS_PROXY_CONF), 260U);
}

TEST(Layout, Record)
{
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_CONF, Enable), 0U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_CONF, Op), 4U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_CONF, PersistentFlag), 8U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_CONF, VpnId), 12U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_CONF, DnsHostNum), 16U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_CONF, DnsMxHostNum), 18U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_CONF, DnsServerNum), 20U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_CONF, DnsProxyNum), 22U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_CONF, DnsHost), 24U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_CONF, DnsMxHost), 266264U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_CONF, DnsServer), 794648U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_CONF, DnsProxy), 794808U);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_CONF, LocalIp), 17834168U);
    EXPECT_EQ(sizeof(VQ_CTRL_DNSMASQ_CONF), 17834172U);
}

TEST(Layout, BothNamesAreTheSameRecord)
{
    EXPECT_TRUE((std::is_same_v<VQ_CTRL_DNSMASQ_CONF, VQ_DNSMASQ_CONF>));
    EXPECT_TRUE((std::is_same_v<VQ_CTRL_DNS_HOST_CONF, VQ_DNS_HOST_CONF>));
    EXPECT_TRUE((std::is_same_v<VQ_CTRL_DNS_MX_HOST_CONF, VQ_DNS_MX_HOST_CONF>));
    EXPECT_TRUE((std::is_same_v<VQ_CTRL_DNS_SERVER_CONF, VQ_DNS_SERVER_CONF>));
    EXPECT_TRUE((std::is_same_v<VQ_CTRL_DNS_PROXY_CONF, VQ_DNS_PROXY_CONF>));
    EXPECT_TRUE(std::is_trivially_copyable_v<VQ_CTRL_DNSMASQ_CONF>);
}

TEST(Layout, StoredRecords)
{
    EXPECT_EQ(offsetof(VQ_DnsmasqConfNode, List), 0U);
    EXPECT_EQ(offsetof(VQ_DnsmasqConfNode, Dnsmasq), kLinks);
    EXPECT_EQ(sizeof(VQ_DnsmasqConfNode), sizeof(void *) == 8 ? 17834192U : 17834180U);
    EXPECT_EQ(offsetof(VQ_PersistentConfList, Head), 0U);
    EXPECT_EQ(offsetof(VQ_PersistentConfList, Count), kLinks);
    EXPECT_EQ(sizeof(VQ_PersistentConfList), sizeof(void *) == 8 ? 24U : 12U);
}

TEST(Layout, Interfaces)
{
    EXPECT_EQ(offsetof(VQ_RTCWanListNode, WanConf), kLinks);
    EXPECT_EQ(sizeof(VQ_RTCWanListNode), sizeof(void *) == 8 ? 24U : 12U);
    EXPECT_EQ(offsetof(VQ_RTCLanListNode, LanConf), kLinks);
    EXPECT_EQ(sizeof(VQ_RTCLanListNode), sizeof(void *) == 8 ? 32U : 24U);
}

TEST(Layout, RouteDescription)
{
    EXPECT_EQ(offsetof(VQ_CONF_IP_MASK, IpType), 16U);
    EXPECT_EQ(offsetof(VQ_CONF_IP_MASK, Mask), 17U);
    EXPECT_EQ(sizeof(VQ_CONF_IP_MASK), 20U);
    EXPECT_EQ(offsetof(VQ_RTC_ROUTE_CONF, TableId), 0U);
    EXPECT_EQ(offsetof(VQ_RTC_ROUTE_CONF, TargetIp), 4U);
    EXPECT_EQ(offsetof(VQ_RTC_ROUTE_CONF, NexthopNum), 24U);
    EXPECT_EQ(offsetof(VQ_RTC_ROUTE_CONF, Nexthop), 28U);
    EXPECT_EQ(offsetof(VQ_RTC_ROUTE_CONF, IfName), 2588U);
    EXPECT_EQ(sizeof(VQ_RTC_ROUTE_CONF), 4636U);
}

TEST(Layout, RuleHeader)
{
    EXPECT_EQ(offsetof(VQ_CONF_RULE, OpType), 0U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE, Table), 1U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE, Zone), 2U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE, RuleVer), 8U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE, VpnId), 12U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE, Id), 16U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE, PreId), 20U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE, PrePersistId), 24U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE, CustomerId), 28U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE, Pad), 32U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE, TimeStamp), kTimeStamp);
    EXPECT_EQ(offsetof(VQ_CONF_RULE, Match), kTimeStamp + 8U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE, Actions), kTimeStamp + 4700U);
    EXPECT_EQ(sizeof(VQ_CONF_RULE), kTimeStamp + 5496U);
}

// The flags use bytes 4 and 5, from the least significant bit of a little-endian word, and from the most significant
// bit of a big-endian one. Byte 3 is not used.
TEST(Layout, RuleFlags)
{
    VQ_CONF_RULE Rule{};
    Rule.DualFlag = 1;
    Rule.NoGenFlowFlag = 1;
    unsigned char Bytes[8];
    std::memcpy(Bytes, &Rule, sizeof(Bytes));
    EXPECT_EQ(Bytes[3], 0U);
    constexpr bool IsLittle = std::endian::native == std::endian::little;
    EXPECT_EQ(Bytes[4], IsLittle ? 0x01U : 0x80U);
    EXPECT_EQ(Bytes[5], IsLittle ? 0x02U : 0x40U);
}

TEST(Layout, RuleMatch)
{
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, SrcIpNum), 0U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, OutPortNum), 9U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, Pad), 11U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, InVpnId), 12U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, InPolicyId), 16U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, SrcIp), 20U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, SrcIpSetName), 20U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, DstIp), 1300U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, DstIpSetName), 1300U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, AcsName), 2580U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, SrcPort), 2644U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, DstPort), 2900U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, Proto), 3156U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, Dscp), 3220U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, TransId), 3284U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, Reg), 3412U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, InPort), 3668U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_MATCH, OutPort), 4180U);
    EXPECT_EQ(sizeof(VQ_CONF_RULE_MATCH), 4692U);
}

TEST(Layout, RuleActions)
{
    EXPECT_EQ(offsetof(VQ_CONF_RULE_ACTIONS, OutputNum), 1U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_ACTIONS, OutputStrategy), 2U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_ACTIONS, SetDscpValue), 3U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_ACTIONS, SetRegValue), 4U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_ACTIONS, SetVpnId), 8U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_ACTIONS, InboundRateLimitId), 12U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_ACTIONS, OutboundRateLimitId), 16U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_ACTIONS, OutputArray), 20U);
    EXPECT_EQ(sizeof(VQ_CONF_RULE_OUTPUT), 8U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_ACTIONS, NatInfo), 532U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_ACTION_NAT, IpNum), 256U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_ACTION_NAT, IpType), 257U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_ACTION_NAT, Port), 258U);
    EXPECT_EQ(offsetof(VQ_CONF_RULE_ACTION_NAT, PortRange), 258U);
    EXPECT_EQ(sizeof(VQ_CONF_RULE_ACTION_NAT), 264U);
    EXPECT_EQ(sizeof(VQ_CONF_RULE_ACTIONS), 796U);
}

TEST(Layout, TableOfOperations)
{
    constexpr std::size_t Slot = sizeof(void *);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_OPERATIONS, PbToConfDnsmasq), 0 * Slot);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_OPERATIONS, SetDnsmasqHostConf), 1 * Slot);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_OPERATIONS, SetDnsmasqMxHostConf), 2 * Slot);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_OPERATIONS, SetDnsmasqDnsServerConf), 3 * Slot);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_OPERATIONS, SetDnsmasqResolveConf), 4 * Slot);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_OPERATIONS, SetDnsmasqDnsProxyConf), 5 * Slot);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_OPERATIONS, SetDnsmasqRule), 6 * Slot);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_OPERATIONS, DelDnsmasqRule), 7 * Slot);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_OPERATIONS, ReleaseDnsmasq), 8 * Slot);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_OPERATIONS, DelDnsmasqDb), 9 * Slot);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_OPERATIONS, AddDnsmasqDb), 10 * Slot);
    EXPECT_EQ(offsetof(VQ_CTRL_DNSMASQ_OPERATIONS, RecoverDnsmasqConf), 11 * Slot);
    EXPECT_EQ(sizeof(VQ_CTRL_DNSMASQ_OPERATIONS), 12 * Slot);
}

} // namespace
