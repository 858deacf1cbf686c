/* Steering rules, by nftables. A rule is a table of its own, in which an empty chain names the customer: deleting that
 * chain first fails for a rule that does not exist and for one of another customer. */
#include "host.h"

const char *g_c2p = "none";

/* Replaces the table in one transaction; adding it first makes its deletion succeed. Of what a WAN sends, nothing for
 * port 53 is a query of a client. */
VQ_ERR_T VQ_RtcRuleConfAdd(VQ_CONF_RULE *rule, uint16_t op, BOOL flag1, BOOL flag2)
{
    const bool isDns = op == VQ_IMC_OP_TYPE_RULE_DNS_INSERT;
    const Vpn *vpn = FindVpn(isDns ? rule->VpnId : 0);
    char name[kNameSize];
    char action[kNameSize] = "dnat ip to ";
    (void)flag1, (void)flag2;
    if (vpn == NULL || (!isDns && op != VQ_IMC_OP_TYPE_RULE_DNAT_INSERT)) {
        return vpn == NULL ? -ENOENT : -EOPNOTSUPP;
    }
    VQ_SNPrintf(name, sizeof(name), "kavel_%u_%u_%u", rule->Table, rule->Zone, rule->Id);
    VQ_IPNum2IPStr(rule->Actions.NatInfo.Ip[0], 0, action + strlen(action), kNameSize - sizeof("dnat ip to "));
    return RunInVpn(vpn->id,
                    "nft -f - <<'RULES'\ntable inet %s\ndelete table inet %s\ntable inet %s {\nchain customer_%u {\n}\n"
                    "chain prerouting {\ntype nat hook prerouting priority dstnat;\n"
                    "iifname { %s } meta l4proto { %s } th dport 53 %s\n}\n"
                    "chain input {\ntype filter hook input priority filter;\n"
                    "iifname { %s } meta l4proto { tcp, udp } th dport 53 drop\n}\n}\nRULES",
                    name, name, name, rule->CustomerId, isDns ? vpn->lan : g_c2p, isDns ? "tcp, udp" : "udp",
                    isDns ? "redirect to :53" : action, isDns ? vpn->wan : "none");
}

/* The operation names the table. The id of a DNS rule is the VPN's plus 2; DNAT rules are those of the box. */
VQ_ERR_T VQ_RtcRuleConfDel(uint8_t zone, uint32_t ruleId, uint32_t customerId, uint16_t op, BOOL flag)
{
    (void)flag;
    return RunInVpn(
        op == VQ_IMC_OP_TYPE_RULE_DNS_DELETE ? ruleId - 2 : 0,
        "rule=kavel_%u_%u_%u\nnft \"delete chain inet $rule customer_%u; delete table inet $rule\" || exit %d", op >> 8,
        zone, ruleId, customerId, ENOENT);
}
