/* The functions that the module exports. A host that loads this library instead of the module calls them as ever; the
 * first call that says that the host is ready starts the checks. */
#include <stdatomic.h>
#include <string.h>

#include "advanced_dns.pb-c.h"
#include "calls.h"
#include "runner.h"
#include "vqCtrlAdvancedDns.h"
#include "vqErrno.h"

static atomic_bool s_isStarted; /* the checks have begun */
static bool s_isMessageSeen;    /* the message of the kit was judged */

static void RunOnce(void)
{
    if (!atomic_exchange(&s_isStarted, true)) {
        WriteComment("hostcheck: VPN %u of a %s", g_settings.vpnId, g_settings.isPop ? "POP" : "CPE");
        if (VQ_IsPersistentConfEnable != NULL && VQ_IsPersistentConfEnable() != FALSE) {
            WriteComment("hostcheck: configuration is kept");
        }
        RunChecks();
        JudgeCalls();
        EndReport();
    }
}

/* Whether the call says that the host is ready. The box itself is not initialised: any call does. */
static bool IsReadyAt(CallRole role, uint32_t vpnId)
{
    if (role == kRoleRecover || role == kRoleMessage) {
        return true;
    }
    return g_settings.runsAtInit && g_settings.hasVpn && role > kRoleOtherPlatform &&
           (g_settings.vpnId == 0 || (role == kRoleInit && vpnId == g_settings.vpnId));
}

/* The beginning of a call. EndCall() is called by the function itself. */
static void Begin(CallRole role, uint32_t vpnId)
{
    static bool isPrepared;
    if (!isPrepared) {
        isPrepared = true;
        PrepareRunner();
    }
    if (!g_settings.hasVpn && (role == kRoleInit || role == kRoleMessage)) {
        g_settings.hasVpn = true;
        g_settings.vpnId = vpnId;
    }
    BeginCall(role, vpnId);
    if (IsReadyAt(role, vpnId)) {
        RunOnce();
    }
}

static void Note(CallRole role, uint32_t vpnId)
{
    Begin(role, vpnId);
    EndCall();
}

void VQCtrl_AgentSetCPEAdvancedDnsOps(void)
{
    Note(kRoleCpe, 0);
}

void VQCtrl_AgentSetPOPAdvancedDnsOps(void)
{
    Note(kRolePop, 0);
}

void VQCtrl_AgentSetApAdvancedDnsOps(void)
{
    Note(kRoleOtherPlatform, 0);
}

void VQCtrl_AgentSetAdAdvancedDnsOps(void)
{
    Note(kRoleOtherPlatform, 0);
}

void VQCtrl_AgentSetWinAdvancedDnsOps(void)
{
    Note(kRoleOtherPlatform, 0);
}

void VQCtrl_AgentSetMacAdvancedDnsOps(void)
{
    Note(kRoleOtherPlatform, 0);
}

void VQCtrl_AgentSetLinuxAdvancedDnsOps(void)
{
    Note(kRoleOtherPlatform, 0);
}

VQ_ERR_T VQCtrl_ConfigAdvancedDns(const VQ_CTRL_DNSMASQ_CONFIG_PB *DnsmasqPb)
{
    const bool isPop = g_settings.isPop;
    Begin(kRoleMessage, VpnOfMessage(DnsmasqPb, isPop));
    if (!s_isMessageSeen && IsMessageOfKit(DnsmasqPb, isPop)) {
        Check check;
        memset(&check, 0, sizeof(check));
        s_isMessageSeen = true;
        JudgeMessage(&check, DnsmasqPb, isPop);
        WriteResult(kCallMessage, &check);
    }
    EndCall();
    return VQ_ERR_OK;
}

VQ_ERR_T VQCtrl_AgentRecoverAdvancedDnsConf(void)
{
    Note(kRoleRecover, 0);
    return VQ_ERR_OK;
}

VQ_ERR_T VQCtrl_DnsmasqConfInitByVpnId(uint32_t VpnId)
{
    Note(kRoleInit, VpnId);
    return VQ_ERR_OK;
}

VQ_ERR_T VQCtrl_DnsmasqConfRelaseByVpnId(uint32_t VpnId)
{
    Note(kRoleOther, VpnId);
    return VQ_ERR_OK;
}

void VQCtrl_StopOldVersionDnsmasqService(void)
{
    Note(kRoleOther, 0);
}

VQ_ERR_T VQCtrl_PbToAdvancedDnsConfPlatformCPE(const VQ_CTRL_DNSMASQ_CONFIG_PB *DnsmasqPb, VQ_CTRL_DNSMASQ_CONF *Conf)
{
    const DnsmasqConf *message = DnsmasqPb->DnsmasqPbCPE;
    Conf->Enable = message->enable ? TRUE : FALSE;
    Conf->Op = (VQ_CTRL_DNSMASQ_OPERATION)message->operation;
    Conf->PersistentFlag = message->persistentflag ? TRUE : FALSE;
    Conf->VpnId = VpnOfMessage(DnsmasqPb, false);
    return VQ_ERR_OK;
}

VQ_ERR_T VQCtrl_PbToAdvancedDnsConfPlatformPOP(const VQ_CTRL_DNSMASQ_CONFIG_PB *DnsmasqPb, VQ_CTRL_DNSMASQ_CONF *Conf)
{
    const PopDnsmasqConf *message = DnsmasqPb->DnsmasqPbPOP;
    Conf->Enable = message->enable ? TRUE : FALSE;
    Conf->Op = VQ_DNSMASQ_OP_REBOOT;
    Conf->PersistentFlag = message->persistentflag ? TRUE : FALSE;
    Conf->LocalIp = message->localip;
    return VQ_ERR_OK;
}

BOOL VQCtrl_ValidateDomain(const char *Domain)
{
    return Domain != NULL && *Domain != '\0' ? TRUE : FALSE;
}

/* The parts of a message, for hosts that call them one by one: nothing is done. */

static VQ_ERR_T NotePart(uint32_t vpnId)
{
    Note(kRoleOther, vpnId);
    return VQ_ERR_OK;
}

VQ_ERR_T VQCtrl_SetDnsHostConf(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    return NotePart(Conf->VpnId);
}

VQ_ERR_T VQCtrl_SetDnsMxHostConf(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    return NotePart(Conf->VpnId);
}

VQ_ERR_T VQCtrl_SetDnsServerConf(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    return NotePart(Conf->VpnId);
}

VQ_ERR_T VQCtrl_SetDnsResolveConf(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    return NotePart(Conf->VpnId);
}

VQ_ERR_T VQCtrl_SetDnsProxyConf(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    return NotePart(Conf->VpnId);
}

VQ_ERR_T VQCtrl_SetDnsHostByDnsHostConf(const VQ_CTRL_DNS_HOST_CONF *DnsHostConf, const uint16_t DnsHostNum,
                                        const uint32_t VpnId)
{
    (void)DnsHostConf;
    (void)DnsHostNum;
    return NotePart(VpnId);
}

VQ_ERR_T VQCtrl_AddDnsmasqRouteForVpn(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    return NotePart(Conf->VpnId);
}

void VQCtrl_DelDnsmasqRouteForVpn(uint32_t VpnId)
{
    NotePart(VpnId);
}

VQ_ERR_T VQCtrl_DnsmasqStart(uint32_t VpnId)
{
    return NotePart(VpnId);
}

VQ_ERR_T VQCtrl_DnsmasqStop(uint32_t VpnId)
{
    return NotePart(VpnId);
}

VQ_ERR_T VQCtrl_DnsmasqReload(uint32_t VpnId)
{
    return NotePart(VpnId);
}

VQ_ERR_T VQCtrl_DnsmasqReboot(uint32_t VpnId)
{
    return NotePart(VpnId);
}

VQ_ERR_T VQCtrl_GetDnsServicePid(uint32_t VpnId, pid_t *Pid)
{
    (void)Pid;
    NotePart(VpnId);
    return VQ_ERR_NOT_FOUND;
}

VQ_ERR_T VQCtrl_AdvancedDnsmasqAddPersistentConf(const VQ_CTRL_DNSMASQ_CONF *Dnsmasq, VQ_SQL_CONF_TBL Table)
{
    (void)Table;
    return NotePart(Dnsmasq->VpnId);
}

VQ_ERR_T VQCtrl_AdvancedDnsmasqUpdatePersistentConf(const VQ_CTRL_DNSMASQ_CONF *Dnsmasq, VQ_SQL_CONF_TBL Table)
{
    (void)Table;
    return NotePart(Dnsmasq->VpnId);
}

VQ_ERR_T VQCtrl_AdvancedDnsmasqDelPersistentconf(const VQ_CTRL_DNSMASQ_CONF *Dnsmasq, VQ_SQL_CONF_TBL Table)
{
    (void)Table;
    return NotePart(Dnsmasq->VpnId);
}

VQ_PersistentConfList *VQCtrl_AdvancedDnsmasqGetAllPersistentconf(VQ_SQL_CONF_TBL Table)
{
    return VQ_SqliteGetDnsMasqConf(Table);
}

VQ_ERR_T VQCtrl_ConfigAddDnsmasqDnat(uint32_t DnatIp)
{
    (void)DnatIp;
    return NotePart(0);
}

VQ_ERR_T VQCtrl_ConfigDelDnsmasqDnat(void)
{
    return NotePart(0);
}

VQ_ERR_T VQCtrl_ConfigAddDnsmasqPolicy(uint32_t VpnId)
{
    return NotePart(VpnId);
}

VQ_ERR_T VQCtrl_ConfigDelDnsmasqPolicy(uint32_t VpnId)
{
    return NotePart(VpnId);
}
