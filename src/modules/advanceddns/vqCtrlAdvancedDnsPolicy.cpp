// The data-plane rules that steer DNS traffic to the local instance.
#include "vqCtrlAdvancedDns.h"

#include <cstring>

#include "vqCtrlAdvancedDnsLog.h"
#include "vqErrno.h"
#include "vqRule.h"

static constexpr uint8_t kZone = 0;
static constexpr uint32_t kPreId = 1;
static constexpr uint16_t kDnsPort = 53;
static constexpr uint8_t kProtoUdp = 17;

// The id of the DNS-table rule of a VPN. Ids below 2 belong to other modules.
static uint32_t _VQCtrl_PolicyRuleId(uint32_t VpnId)
{
    return VpnId + 2;
}

// The customer of the VPN if the host knows it, otherwise the customer of the box.
static uint32_t _VQCtrl_CustomerIdOfVpn(uint32_t VpnId)
{
    uint32_t CustomerId = VQ_PlatformGetCustomerId();
    static_cast<void>(VQ_GetCustomerIdByVpnId(VpnId, &CustomerId));
    return CustomerId;
}

static void _VQCtrl_InitRule(VQ_CONF_RULE *Rule, VQ_CONF_RULE_TBL_TYPE Table, uint32_t Id)
{
    std::memset(Rule, 0, sizeof(*Rule));
    Rule->OpType = VQ_CONF_RULE_OP_TYPE_INSERT;
    Rule->Table = static_cast<uint8_t>(Table);
    Rule->Zone = kZone;
    Rule->Id = Id;
    Rule->PreId = kPreId;
}

VQ_ERR_T VQCtrl_ConfigAddDnsmasqDnat(uint32_t DnatIp)
{
    VQ_CONF_RULE Rule;
    _VQCtrl_InitRule(&Rule, VQ_CONF_RULE_TBL_TYPE_DNAT, VQ_DNAT_TBL_ZONE0_RULE_ID_DNSMASQ);
    Rule.Match.DstPortNum = 1;
    Rule.Match.DstPort[0] = {kDnsPort, kDnsPort};
    Rule.Match.ProtoNum = 1;
    Rule.Match.Proto[0] = kProtoUdp;
    Rule.Match.InPortNum = 1;
    Rule.Match.InPort[0].Type = VQ_CONF_DP_IF_TYPE_VQCONN_C2P;
    Rule.Actions.DnatFlag = 1;
    Rule.Actions.NatInfo.Ip[0] = DnatIp;
    Rule.Actions.NatInfo.IpNum = 1;
    Rule.Actions.NatInfo.IpType = VQ_IN_ADDR_TYPE_IPV4;

    const VQ_ERR_T Result = VQ_RtcRuleConfAdd(&Rule, VQ_IMC_OP_TYPE_RULE_DNAT_INSERT, FALSE, TRUE);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR("Add dnat for Dnsmasq error(%d:%s)\n", VQ_CTRL_LOG_REASON(Result));
    } else {
        VQ_CTRL_LOG_ERROR("Add dnat for Dnsmasq success\n");
    }
    return Result;
}

// Both removals log the same two texts. That is known and kept.
static VQ_ERR_T _VQCtrl_DelRule(const char *Function, uint32_t RuleId, uint32_t CustomerId, uint16_t Op)
{
    const VQ_ERR_T Result = VQ_RtcRuleConfDel(kZone, RuleId, CustomerId, Op, TRUE);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR_AS(Function, "Del Policy for Dnsmasq error(%d:%s)\n", VQ_CTRL_LOG_REASON(Result));
    } else {
        VQ_CTRL_LOG_ERROR_AS(Function, "Del Policy for Dnsmasq success\n");
    }
    return Result;
}

VQ_ERR_T VQCtrl_ConfigDelDnsmasqDnat(void)
{
    return _VQCtrl_DelRule(__func__, VQ_DNAT_TBL_ZONE0_RULE_ID_DNSMASQ, 0, VQ_IMC_OP_TYPE_RULE_DNAT_DELETE);
}

VQ_ERR_T VQCtrl_ConfigAddDnsmasqPolicy(uint32_t VpnId)
{
    VQ_CONF_RULE Rule;
    _VQCtrl_InitRule(&Rule, VQ_CONF_RULE_TBL_TYPE_DNS, _VQCtrl_PolicyRuleId(VpnId));
    Rule.VpnId = VpnId;
    Rule.CustomerId = _VQCtrl_CustomerIdOfVpn(VpnId);
    // No protocol and no port, because the DNS table itself selects the traffic.
    Rule.Match.OutPortNum = 1;
    Rule.Match.OutPort[0].Type = VQ_CONF_DP_IF_TYPE_LOCAL;
    Rule.Actions.OutputNum = 1;
    Rule.Actions.OutputArray[0].Type = VQ_CONF_DP_IF_TYPE_LOCAL;
    Rule.Actions.OutputArray[0].Priority = 1;

    const VQ_ERR_T Result = VQ_RtcRuleConfAdd(&Rule, VQ_IMC_OP_TYPE_RULE_DNS_INSERT, FALSE, TRUE);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR("Add Policy for Dnsmasq error(%d:%s)\n", VQ_CTRL_LOG_REASON(Result));
    } else {
        VQ_CTRL_LOG_NOTICE("Add Policy for Dnsmasq success\n");
    }
    return Result;
}

VQ_ERR_T VQCtrl_ConfigDelDnsmasqPolicy(uint32_t VpnId)
{
    return _VQCtrl_DelRule(__func__, _VQCtrl_PolicyRuleId(VpnId), _VQCtrl_CustomerIdOfVpn(VpnId),
                           VQ_IMC_OP_TYPE_RULE_DNS_DELETE);
}
