/* The layouts that hosts and module must agree on. This file is compiled as C11 and, through layouts.cpp, as C++20. */
#include "vqCtrlAdvancedDns.h"
#include "vqDnsmasqConf.h"
#include "vqErrno.h"
#include "vqFile.h"
#include "vqLog.h"
#include "vqMemory.h"
#include "vqNetio.h"
#include "vqNetns.h"
#include "vqPlatform.h"
#include "vqProcess.h"
#include "vqRoute.h"
#include "vqRule.h"
#include "vqSafeStr.h"
#include "vqStore.h"

#ifdef __cplusplus
#define CHECK(Condition) static_assert(Condition)
#else
#define CHECK(Condition) _Static_assert(Condition, #Condition)
#endif

/* Both languages must have the same layout. The offsets are computed by hand from the widths of the fields. */
CHECK(sizeof(BOOL) == 4);
CHECK(sizeof(VQ_CTRL_DNSMASQ_OPERATION) == 4);
CHECK(sizeof(VQ_SQL_CONF_TBL) == 4);
CHECK(sizeof(VQ_CTRL_DNS_HOST_CONF) == 260);
CHECK(sizeof(VQ_CTRL_DNS_MX_HOST_CONF) == 516);
CHECK(sizeof(VQ_CTRL_DNS_SERVER_CONF) == 20);
CHECK(sizeof(VQ_CTRL_DNS_PROXY_CONF) == 260);
CHECK(offsetof(VQ_CTRL_DNSMASQ_CONF, VpnId) == 12);
CHECK(offsetof(VQ_CTRL_DNSMASQ_CONF, DnsHostNum) == 16);
CHECK(offsetof(VQ_CTRL_DNSMASQ_CONF, DnsMxHostNum) == 18);
CHECK(offsetof(VQ_CTRL_DNSMASQ_CONF, DnsServerNum) == 20);
CHECK(offsetof(VQ_CTRL_DNSMASQ_CONF, DnsProxyNum) == 22);
CHECK(offsetof(VQ_CTRL_DNSMASQ_CONF, DnsHost) == 24);
CHECK(offsetof(VQ_CTRL_DNSMASQ_CONF, DnsMxHost) == 24 + 1024 * 260);
CHECK(offsetof(VQ_CTRL_DNSMASQ_CONF, DnsServer) == 24 + 1024 * (260 + 516));
CHECK(offsetof(VQ_CTRL_DNSMASQ_CONF, DnsProxy) == 24 + 1024 * (260 + 516) + 8 * 20);
CHECK(offsetof(VQ_CTRL_DNSMASQ_CONF, LocalIp) == 24 + 1024 * (260 + 516) + 8 * 20 + 65536 * 260);
CHECK(sizeof(VQ_CTRL_DNSMASQ_CONF) == 28 + 1024 * (260 + 516) + 8 * 20 + 65536 * 260);
CHECK(sizeof(VQ_CTRL_DNSMASQ_OPERATIONS) == 12 * sizeof(void *));
CHECK(sizeof(VQ_DATA_CONTENT_TRANS_OP) == 32 * sizeof(void *));
CHECK(offsetof(VQ_DATA_CONTENT_TRANS_OP, DnsmasqConfToStr) == 15 * sizeof(void *));
CHECK(offsetof(VQ_DnsmasqConfNode, Dnsmasq) == 2 * sizeof(void *));
CHECK(sizeof(VQ_CONF_IP_MASK) == 20);
CHECK(offsetof(VQ_RTC_ROUTE_CONF, NexthopNum) == 24);
CHECK(offsetof(VQ_RTC_ROUTE_CONF, Nexthop) == 28);
CHECK(offsetof(VQ_RTC_ROUTE_CONF, IfName) == 28 + 128 * 20);
CHECK(sizeof(VQ_RTC_ROUTE_CONF) == 28 + 128 * 20 + 128 * 16);
CHECK(offsetof(VQ_CONF_RULE_MATCH, Pad) == 11);
CHECK(offsetof(VQ_CONF_RULE_MATCH, InVpnId) == 12);
CHECK(offsetof(VQ_CONF_RULE_MATCH, SrcIp) == 20);
CHECK(offsetof(VQ_CONF_RULE_MATCH, DstIp) == 20 + 64 * 20);
CHECK(offsetof(VQ_CONF_RULE_MATCH, AcsName) == 20 + 2 * 64 * 20);
CHECK(offsetof(VQ_CONF_RULE_MATCH, DstPort) == 20 + 2 * 64 * 20 + 64 + 64 * 4);
CHECK(offsetof(VQ_CONF_RULE_MATCH, Proto) == 20 + 2 * 64 * 20 + 64 + 2 * 64 * 4);
CHECK(offsetof(VQ_CONF_RULE_MATCH, InPort) == 20 + 2 * 64 * 20 + 64 + 2 * 64 * 4 + 64 * (1 + 1 + 2 + 4));
CHECK(sizeof(VQ_CONF_RULE_MATCH) == 20 + 2 * 64 * 20 + 64 + 2 * 64 * 4 + 64 * (1 + 1 + 2 + 4) + 2 * 64 * 8);
CHECK(offsetof(VQ_CONF_RULE_ACTIONS, OutputNum) == 1);
CHECK(offsetof(VQ_CONF_RULE_ACTIONS, SetRegValue) == 4);
CHECK(offsetof(VQ_CONF_RULE_ACTIONS, OutputArray) == 20);
CHECK(offsetof(VQ_CONF_RULE_ACTIONS, NatInfo) == 20 + 64 * 8);
CHECK(sizeof(VQ_CONF_RULE_ACTION_NAT) == 16 * 16 + 2 + 4 + 2);
CHECK(offsetof(VQ_CONF_RULE, RuleVer) == 8);
CHECK(offsetof(VQ_CONF_RULE, VpnId) == 12);
CHECK(offsetof(VQ_CONF_RULE, CustomerId) == 28);
/* i386 aligns a uint64_t in a structure to 4 bytes. */
#ifdef __i386__
CHECK(offsetof(VQ_CONF_RULE, TimeStamp) == 36);
CHECK(offsetof(VQ_CONF_RULE, Match) == 44);
#else
CHECK(offsetof(VQ_CONF_RULE, TimeStamp) == 40);
CHECK(offsetof(VQ_CONF_RULE, Match) == 48);
#endif
