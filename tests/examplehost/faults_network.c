/* The faults of interfaces, routes and rules. */
#include <byteswap.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "faults.h"
#include "vqNetio.h"
#include "vqNetns.h"
#include "vqProcess.h"
#include "vqRoute.h"
#include "vqRule.h"

/* ---- Interfaces ---- */

REAL(VQ_RtcNetioLanGetAllByVpnId);
REAL(VQ_RtcNetioWanGetAllByVpnId);
REAL(VQ_RtcNetioNodeListRelease);

static VQ_LIST_HEAD *s_list; /* handed out each time */
static uint32_t s_count;

VQ_LIST_HEAD *VQ_RtcNetioWanGetAllByVpnId(uint32_t *count, uint32_t vpnId)
{
    VQ_LIST_HEAD *list = Real_VQ_RtcNetioWanGetAllByVpnId(count, vpnId);
    *count += HasFault("wan-count-long") ? 1 : 0;
    return list;
}

VQ_LIST_HEAD *VQ_RtcNetioLanGetAllByVpnId(uint32_t *count, uint32_t vpnId)
{
    if (HasFault("interface-list-shared") && s_list != NULL) {
        *count = s_count;
        return s_list;
    }
    VQ_LIST_HEAD *list = Real_VQ_RtcNetioLanGetAllByVpnId(count, vpnId);
    if (HasFault("interfaces-of-unknown-vpn") && list == NULL) {
        list = Real_VQ_RtcNetioLanGetAllByVpnId(count, 7);
    }
    s_list = list;
    s_count = *count;
    if (*count == 0) {
        return list;
    }
    if (HasFault("interface-count-short")) {
        --*count;
    }
    if (HasFault("interface-list-one-way")) {
        list->next->prev = NULL;
        list->prev = NULL;
    }
    if (HasFault("interface-name-unknown")) {
        VQ_RTCLanListNode *first = (VQ_RTCLanListNode *)list->next;
        snprintf(first->LanConf.PhyIfName, sizeof(first->LanConf.PhyIfName), "no-such-lan");
    }
    return list;
}

void VQ_RtcNetioNodeListRelease(VQ_LIST_HEAD *list)
{
    if (!HasFault("interface-list-kept") && !HasFault("interface-list-shared")) {
        Real_VQ_RtcNetioNodeListRelease(list);
    }
}

/* ---- Routes ---- */

REAL(VQ_RTCRouteAdd);
REAL(VQ_RTCRouteDel);
REAL(VQ_RtcGetNetNsExecCmdPrefix);
REAL(VQ_CmdExec);

VQ_ERR_T VQ_RTCRouteAdd(uint32_t vpnId, const VQ_RTC_ROUTE_CONF *route)
{
    VQ_RTC_ROUTE_CONF changed = *route;
    if (HasFault("route-reversed")) {
        changed.TargetIp.Ip = bswap_32(changed.TargetIp.Ip);
    }
    if (HasFault("route-in-box")) {
        snprintf(changed.IfName[0], sizeof(changed.IfName[0]), "lo");
        return Real_VQ_RTCRouteAdd(0, &changed);
    }
    if (HasFault("route-refuses-multicast") && changed.TargetIp.Ip >= 0xE0000000U) {
        return -EINVAL;
    }
    const VQ_ERR_T result = Real_VQ_RTCRouteAdd(vpnId, &changed);
    if (HasFault("route-of-unknown-vpn-is-success") && result == -ENOENT) {
        return 0;
    }
    return HasFault("route-exists-is-success") && result == -EEXIST ? 0 : result;
}

/* Removes the first 30 routes of a table. */
static VQ_ERR_T DeleteThirty(uint32_t vpnId, uint32_t table)
{
    char command[1024];
    const VQ_ERR_T length = Real_VQ_RtcGetNetNsExecCmdPrefix(vpnId, command, sizeof(command));
    if (length < 0) {
        return length;
    }
    snprintf(command + length, sizeof(command) - (size_t)length,
             "sh -c 'ip route show table %u | grep -q . || exit 1; ip route show table %u | head -n 30 | "
             "while read -r target rest; do ip route del $target table %u; done'",
             table, table, table);
    return Real_VQ_CmdExec(command) < 0 ? -ENOENT : 0;
}

VQ_ERR_T VQ_RTCRouteDel(uint32_t vpnId, const VQ_RTC_ROUTE_CONF *route)
{
    if (HasFault("route-table-of-30")) {
        return DeleteThirty(vpnId, route->TableId);
    }
    if (HasFault("route-table-kept")) {
        return 0;
    }
    VQ_RTC_ROUTE_CONF table = {.TableId = 200};
    if (HasFault("route-table-ignored")) {
        Real_VQ_RTCRouteDel(vpnId, &table);
    }
    table.TableId = route->TableId;
    const VQ_ERR_T result = Real_VQ_RTCRouteDel(vpnId, HasFault("route-target-ignored") ? &table : route);
    return HasFault("route-missing-is-success") && result == -ENOENT ? 0 : result;
}

/* ---- Rules ---- */

REAL(VQ_RtcRuleConfAdd);
REAL(VQ_RtcRuleConfDel);
REAL(VQ_PlatformGetCustomerId);
REAL(VQ_GetCustomerIdByVpnId);

static unsigned s_addedDnsRules;
static uint32_t s_customer; /* of the DNS rule that was added last */

VQ_ERR_T VQ_RtcRuleConfAdd(VQ_CONF_RULE *rule, uint16_t op, BOOL flag1, BOOL flag2)
{
    if ((HasFault("rule-refused") && rule->VpnId != 0) ||
        (HasFault("rule-of-box-refused") && rule->VpnId == 0 && op == VQ_IMC_OP_TYPE_RULE_DNS_INSERT)) {
        return -EOPNOTSUPP;
    }
    if (HasFault("dnat-reversed")) {
        rule->Actions.NatInfo.Ip[0] = bswap_32(rule->Actions.NatInfo.Ip[0]);
    }
    const VQ_ERR_T result = Real_VQ_RtcRuleConfAdd(rule, op, flag1, flag2);
    if (HasFault("rule-record-changed")) {
        rule->PreId = rule->Id;
    }
    if (result >= 0 && op == VQ_IMC_OP_TYPE_RULE_DNS_INSERT) {
        ++s_addedDnsRules;
        s_customer = rule->CustomerId;
    }
    return result;
}

VQ_ERR_T VQ_RtcRuleConfDel(uint8_t zone, uint32_t ruleId, uint32_t customerId, uint16_t op, BOOL flag)
{
    const bool isDns = op == VQ_IMC_OP_TYPE_RULE_DNS_DELETE;
    if (HasFault("rule-added-again") && isDns && s_addedDnsRules > 1) {
        --s_addedDnsRules; /* one of several rules with this id */
        return 0;
    }
    if (HasFault("rule-delete-forgotten")) {
        return 0;
    }
    if (HasFault("rule-table-ignored")) {
        op = VQ_IMC_OP_TYPE_RULE_DNS_DELETE;
    }
    const bool isAnyCustomer = HasFault("rule-of-any-customer") && isDns;
    const VQ_ERR_T result = Real_VQ_RtcRuleConfDel(zone, ruleId, isAnyCustomer ? s_customer : customerId, op, flag);
    s_addedDnsRules = isDns && result >= 0 ? 0 : s_addedDnsRules;
    return HasFault("rule-missing-is-success") && result == -ENOENT ? 0 : result;
}

uint32_t VQ_PlatformGetCustomerId(void)
{
    static uint32_t calls;
    return Real_VQ_PlatformGetCustomerId() + (HasFault("customer-changes") ? ++calls : 0);
}

VQ_ERR_T VQ_GetCustomerIdByVpnId(uint32_t vpnId, uint32_t *customerId)
{
    static uint32_t calls;
    const VQ_ERR_T result = Real_VQ_GetCustomerIdByVpnId(vpnId, customerId);
    *customerId += HasFault("vpn-customer-changes") ? ++calls : 0;
    if (HasFault("customer-of-unknown-vpn") && result < 0) {
        *customerId = 0;
        return 0;
    }
    return result;
}
