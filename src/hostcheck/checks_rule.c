/* The promises of vqRule.h. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "checks.h"
#include "probe.h"
#include "vqRule.h"

enum { kDnsPort = 53, kUdp = 17, kDnsIdOffset = 2 };

static const uint32_t kTarget = 0xC6120304U; /* 198.18.3.4 */
static const char *const kTargetText = "198.18.3.4";
static const char *const kReversedText = "4.3.18.198";

static VQ_CONF_RULE *NewRule(VQ_CONF_RULE_TBL_TYPE table, uint32_t id, uint32_t customer)
{
    VQ_CONF_RULE *rule = calloc(1, sizeof(*rule));
    rule->OpType = VQ_CONF_RULE_OP_TYPE_INSERT;
    rule->Table = (uint8_t)table;
    rule->Id = id;
    rule->PreId = 1;
    rule->CustomerId = customer;
    return rule;
}

/* The customer that the module uses for a rule of the VPN. */
static uint32_t CustomerOf(uint32_t vpnId)
{
    uint32_t customer = VQ_PlatformGetCustomerId();
    VQ_GetCustomerIdByVpnId(vpnId, &customer);
    return customer;
}

/* The two rules as the module builds them. */
static VQ_CONF_RULE *DnsRule(uint32_t vpnId)
{
    VQ_CONF_RULE *rule = NewRule(VQ_CONF_RULE_TBL_TYPE_DNS, vpnId + kDnsIdOffset, CustomerOf(vpnId));
    rule->VpnId = vpnId;
    rule->Match.OutPortNum = 1;
    rule->Match.OutPort[0].Type = VQ_CONF_DP_IF_TYPE_LOCAL;
    rule->Actions.OutputNum = 1;
    rule->Actions.OutputArray[0].Type = VQ_CONF_DP_IF_TYPE_LOCAL;
    rule->Actions.OutputArray[0].Priority = 1;
    return rule;
}

static VQ_CONF_RULE *DnatRule(uint32_t target)
{
    VQ_CONF_RULE *rule = NewRule(VQ_CONF_RULE_TBL_TYPE_DNAT, VQ_DNAT_TBL_ZONE0_RULE_ID_DNSMASQ, 0);
    rule->Match.DstPortNum = 1;
    rule->Match.DstPort[0].LowerPort = kDnsPort;
    rule->Match.DstPort[0].UpperPort = kDnsPort;
    rule->Match.ProtoNum = 1;
    rule->Match.Proto[0] = kUdp;
    rule->Match.InPortNum = 1;
    rule->Match.InPort[0].Type = VQ_CONF_DP_IF_TYPE_VQCONN_C2P;
    rule->Actions.DnatFlag = 1;
    rule->Actions.NatInfo.Ip[0] = target;
    rule->Actions.NatInfo.IpNum = 1;
    rule->Actions.NatInfo.IpType = VQ_IN_ADDR_TYPE_IPV4;
    return rule;
}

static VQ_ERR_T AddDns(uint32_t vpnId)
{
    return VQ_RtcRuleConfAdd(DnsRule(vpnId), VQ_IMC_OP_TYPE_RULE_DNS_INSERT, FALSE, TRUE);
}

static VQ_ERR_T AddDnat(uint32_t target)
{
    return VQ_RtcRuleConfAdd(DnatRule(target), VQ_IMC_OP_TYPE_RULE_DNAT_INSERT, FALSE, TRUE);
}

static VQ_ERR_T DeleteDnsOf(uint32_t vpnId, uint32_t customer)
{
    return VQ_RtcRuleConfDel(0, vpnId + kDnsIdOffset, customer, VQ_IMC_OP_TYPE_RULE_DNS_DELETE, TRUE);
}

static VQ_ERR_T DeleteDns(uint32_t vpnId)
{
    return DeleteDnsOf(vpnId, CustomerOf(vpnId));
}

static VQ_ERR_T DeleteDnat(void)
{
    return VQ_RtcRuleConfDel(0, VQ_DNAT_TBL_ZONE0_RULE_ID_DNSMASQ, 0, VQ_IMC_OP_TYPE_RULE_DNAT_DELETE, TRUE);
}

/* Removes what a check before this one may have left in force. */
static void Prepare(void)
{
    for (int i = 0; i < 4 && DeleteDns(g_settings.vpnId) >= 0; ++i) {
    }
    for (int i = 0; g_settings.isPop && i < 4 && DeleteDnat() >= 0; ++i) {
    }
}

/* The DNAT rule is one of POPs. */
static bool IsSkippedOnCpe(Check *check)
{
    if (!g_settings.isPop) {
        Skipped(check, "a CPE has no DNAT rule");
    }
    return !g_settings.isPop;
}

/* Adds a DNS rule and deletes it: results, and what the data plane shows. */
static void CheckDnsRule(Check *check, uint32_t vpnId)
{
    Prepare();
    char *before = strdup(RulesText());
    const VQ_ERR_T added = AddDns(vpnId);
    if (added < 0) {
        Broken(check, "the DNS rule of VPN %u is refused with %d", vpnId, added);
    } else if (g_settings.probe != NULL && strcmp(before, RulesText()) == 0) {
        Broken(check, "result %d, and the rules of --probe are as before", added);
    }
    const VQ_ERR_T deleted = DeleteDns(vpnId);
    if (added >= 0 && deleted < 0) {
        Broken(check, "the DNS rule of VPN %u was added, and its removal fails with %d", vpnId, deleted);
    }
}

void CheckRuleDns(Check *check)
{
    CheckDnsRule(check, g_settings.vpnId);
}

void CheckRuleBox(Check *check)
{
    CheckDnsRule(check, 0);
}

void CheckRuleDnsReplaces(Check *check)
{
    Prepare();
    const VQ_ERR_T first = AddDns(g_settings.vpnId);
    char *once = strdup(RulesText());
    const VQ_ERR_T second = AddDns(g_settings.vpnId);
    const char *twice = RulesText();
    if (first < 0 || second < 0) {
        Broken(check, "result %d for the first add, %d for the second", first, second);
    } else if (strcmp(once, twice) != 0) {
        Broken(check, "after the second add the data plane has other rules: %zu characters instead of %zu",
               strlen(twice), strlen(once));
    }
    DeleteDns(g_settings.vpnId);
    if (DeleteDns(g_settings.vpnId) >= 0) {
        Broken(check, "added twice, removed once, and there is one more to remove");
    }
}

void CheckRuleDnat(Check *check)
{
    if (IsSkippedOnCpe(check)) {
        return;
    }
    Prepare();
    const VQ_ERR_T added = AddDnat(kTarget);
    const char *text = RulesText();
    if (added < 0) {
        Broken(check, "the DNAT rule is refused with %d", added);
    } else if (strstr(text, kReversedText) != NULL) {
        Broken(check, "the rule leads to %s instead of %s", kReversedText, kTargetText);
    } else if (g_settings.probe != NULL && strcmp(g_settings.probe, "none") != 0 && strstr(text, kTargetText) == NULL) {
        Broken(check, "no rule of --probe leads to %s", kTargetText);
    }
    const VQ_ERR_T replaced = AddDnat(kTarget + 1);
    if (replaced < 0 || strstr(RulesText(), "198.18.3.4 ") != NULL || strstr(RulesText(), "198.18.3.4:") != NULL) {
        Broken(check, "a rule to another address: result %d, and the old one is %s", replaced,
               strstr(RulesText(), kTargetText) != NULL ? "still there" : "gone");
    }
    const VQ_ERR_T deleted = DeleteDnat();
    if (added >= 0 && deleted < 0) {
        Broken(check, "the DNAT rule was added, and its removal fails with %d", deleted);
    }
}

void CheckRuleDelete(Check *check)
{
    Prepare();
    char *before = strdup(RulesText());
    const VQ_ERR_T added = AddDns(g_settings.vpnId);
    const VQ_ERR_T deleted = DeleteDns(g_settings.vpnId);
    if (added < 0 || deleted < 0) {
        Broken(check, "result %d for the add, %d for the removal", added, deleted);
    } else if (strcmp(before, RulesText()) != 0) {
        /* What the first rule of a VPN sets up may stay. */
        char *after = strdup(RulesText());
        AddDns(g_settings.vpnId);
        if (strcmp(after, RulesText()) == 0) {
            Broken(check, "the rules of the data plane are the same with the rule and after its removal");
        }
        DeleteDns(g_settings.vpnId);
    }
}

void CheckRuleDeleteMissing(Check *check)
{
    Prepare();
    const VQ_ERR_T result = DeleteDns(g_settings.vpnId);
    if (result >= 0) {
        Broken(check, "result %d for the DNS rule of VPN %u, which does not exist", result, g_settings.vpnId);
    }
    const VQ_ERR_T dnat = g_settings.isPop ? DeleteDnat() : -1;
    if (dnat >= 0) {
        Broken(check, "result %d for the DNAT rule, which does not exist", dnat);
    }
}

void CheckRuleDeleteCustomer(Check *check)
{
    Prepare();
    const VQ_ERR_T added = AddDns(g_settings.vpnId);
    const VQ_ERR_T other = DeleteDnsOf(g_settings.vpnId, CustomerOf(g_settings.vpnId) + 1000);
    const VQ_ERR_T own = DeleteDns(g_settings.vpnId);
    if (added < 0 || other >= 0 || own < 0) {
        Broken(check, "add %d, removal for another customer %d, removal for its own %d", added, other, own);
    }
}

void CheckRuleDeleteOtherTable(Check *check)
{
    Prepare();
    const uint32_t id = g_settings.vpnId + kDnsIdOffset;
    const uint32_t customer = CustomerOf(g_settings.vpnId);
    const VQ_ERR_T added = AddDns(g_settings.vpnId);
    const VQ_ERR_T other = VQ_RtcRuleConfDel(0, id, customer, VQ_IMC_OP_TYPE_RULE_DNAT_DELETE, TRUE);
    const VQ_ERR_T own = DeleteDns(g_settings.vpnId);
    if (added < 0 || other >= 0 || own < 0) {
        Broken(check, "add to the DNS table %d, removal of id %u from the DNAT table %d, from its own %d", added, id,
               other, own);
    }
}

void CheckRuleRecordKept(Check *check)
{
    Prepare();
    VQ_CONF_RULE *rule = DnsRule(g_settings.vpnId);
    VQ_CONF_RULE *copy = malloc(sizeof(*copy));
    memcpy(copy, rule, sizeof(*copy));
    VQ_RtcRuleConfAdd(rule, VQ_IMC_OP_TYPE_RULE_DNS_INSERT, FALSE, TRUE);
    if (memcmp(copy, rule, sizeof(*copy)) != 0) {
        Broken(check, "the record differs after the call");
    }
    memset(rule, 0xFF, sizeof(*rule));
    const VQ_ERR_T result = DeleteDns(g_settings.vpnId);
    if (result < 0) {
        Broken(check, "with the record overwritten after the call, the rule is not found again: %d", result);
    }
}

void CheckRuleCustomer(Check *check)
{
    uint32_t first = 0xA5A5A5A5U;
    uint32_t second = 0x5A5A5A5AU;
    const VQ_ERR_T result = VQ_GetCustomerIdByVpnId(g_settings.vpnId, &first);
    const VQ_ERR_T again = VQ_GetCustomerIdByVpnId(g_settings.vpnId, &second);
    if (result < 0 && again < 0 && first == 0xA5A5A5A5U && second == 0x5A5A5A5AU) {
        return; /* the VPN has no customer of its own */
    }
    if (result < 0 || again < 0 || first != second) {
        Broken(check, "result %d with %u, then %d with %u", result, first, again, second);
    }
}

void CheckRuleCustomerUnknown(Check *check)
{
    uint32_t customer = 0xA5A5A5A5U;
    const VQ_ERR_T result = VQ_GetCustomerIdByVpnId(kUnknownVpn, &customer);
    if (result >= 0 || customer != 0xA5A5A5A5U) {
        Broken(check, "result %d for VPN %u, and the output was%s changed", result, kUnknownVpn,
               customer == 0xA5A5A5A5U ? " not" : "");
    }
}

void CheckRuleCustomerBox(Check *check)
{
    const uint32_t first = VQ_PlatformGetCustomerId();
    const uint32_t second = VQ_PlatformGetCustomerId();
    if (first != second) {
        Broken(check, "%u, then %u", first, second);
    }
}
