// The table of platform operations, the message and recovery entries, and the sequence that applies a record.
#include "vqCtrlAdvancedDns.h"

#include <cstring>

#include "vqCtrlAdvancedDnsGuard.h"
#include "vqCtrlAdvancedDnsLog.h"
#include "vqErrno.h"

// The operations of the platform, the only state of the module. Empty until the host calls a platform entry; the next
// call of one replaces them.
static VQ_CTRL_DNSMASQ_OPERATIONS s_AgentDnsmasqOp;

// The first file that fails ends the message. The files after it keep their old content.
static VQ_ERR_T _VQCtrl_SetDnsmasqFiles(const char *Function, const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    using SetFile = VQ_ERR_T (*VQ_CTRL_DNSMASQ_OPERATIONS::*)(const VQ_CTRL_DNSMASQ_CONF *);
    static constexpr struct {
        SetFile Slot;
        advanceddns::FailureText Failed;
    } kSteps[] = {
        {&VQ_CTRL_DNSMASQ_OPERATIONS::SetDnsmasqHostConf, VQ_CTRL_LOG_TEXT("set dns host conf failed(%d:%s)\n")},
        {&VQ_CTRL_DNSMASQ_OPERATIONS::SetDnsmasqMxHostConf, VQ_CTRL_LOG_TEXT("set dns mx host conf failed(%d:%s)\n")},
        {&VQ_CTRL_DNSMASQ_OPERATIONS::SetDnsmasqDnsServerConf, VQ_CTRL_LOG_TEXT("set dns server conf failed(%d:%s)\n")},
        {&VQ_CTRL_DNSMASQ_OPERATIONS::SetDnsmasqResolveConf, VQ_CTRL_LOG_TEXT("set dns resolve conf failed(%d:%s)\n")},
        {&VQ_CTRL_DNSMASQ_OPERATIONS::SetDnsmasqDnsProxyConf, VQ_CTRL_LOG_TEXT("set dns proxy conf failed(%d:%s)\n")},
    };

    VQ_ERR_T Result = VQ_ERR_OK;
    for (const auto &Step : kSteps) {
        const auto SetFileConf = s_AgentDnsmasqOp.*Step.Slot;
        if (SetFileConf == nullptr) {
            continue;
        }
        Result = SetFileConf(Conf);
        if (Result < 0) {
            VQ_CTRL_LOG_ERROR_TEXT(Function, Step.Failed, VQ_CTRL_LOG_REASON(Result));
            return Result;
        }
    }
    return Result;
}

static VQ_ERR_T _VQCtrl_RebootWithRule(const char *Function, const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    VQ_ERR_T Result = VQCtrl_DnsmasqReboot(Conf->VpnId);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR_AS(Function, "Dnsmasq reboot failed(%d:%s)\n", VQ_CTRL_LOG_REASON(Result));
        return Result;
    }
    if (s_AgentDnsmasqOp.SetDnsmasqRule == nullptr) {
        return Result;
    }
    Result = s_AgentDnsmasqOp.SetDnsmasqRule(Conf);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR_AS(Function, "Add Dnsmasq default policy failed(%d:%s)\n", VQ_CTRL_LOG_REASON(Result));
    }
    return Result;
}

static VQ_ERR_T _VQCtrl_EnableDnsmasq(const char *Function, const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    if (Conf->VpnId != 0) {
        const VQ_ERR_T Result = VQCtrl_AddDnsmasqRouteForVpn(Conf);
        if (Result < 0) {
            VQ_CTRL_LOG_ERROR_AS(Function, "Add dnsmasq route for vpn %u failed(%d:%s)\n", Conf->VpnId,
                                 VQ_CTRL_LOG_REASON(Result));
            return Result;
        }
    }
    if (Conf->Op == VQ_CTRL_DNSMASQ_OP_REBOOT) {
        return _VQCtrl_RebootWithRule(Function, Conf);
    }
    if (Conf->Op == VQ_CTRL_DNSMASQ_OP_RELOAD) {
        // The steering rule is installed only after a restart. A reload expects it to be there.
        const VQ_ERR_T Result = VQCtrl_DnsmasqReload(Conf->VpnId);
        if (Result < 0) {
            VQ_CTRL_LOG_ERROR_AS(Function, "Dnsmasq reload failed(%d:%s)\n", VQ_CTRL_LOG_REASON(Result));
        }
        return Result;
    }
    const VQ_ERR_T Result = VQ_ERR_INVALID;
    VQ_CTRL_LOG_ERROR_AS(Function, "Dnsmasq operation(%u) failed(%d:%s)\n", static_cast<uint32_t>(Conf->Op),
                         VQ_CTRL_LOG_REASON(Result));
    return Result;
}

// Failed steps are only logged. If the rule cannot be removed, the instance keeps running, because queries are still
// steered to it.
static void _VQCtrl_DisableDnsmasq(const char *Function, const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    if (Conf->VpnId != 0) {
        VQCtrl_DelDnsmasqRouteForVpn(Conf->VpnId);
    }
    if (s_AgentDnsmasqOp.DelDnsmasqRule != nullptr && s_AgentDnsmasqOp.DelDnsmasqRule(Conf) < 0) {
        VQ_CTRL_LOG_ERROR_AS(Function, "Delete Dnsmasq default policy failed\n");
        return;
    }
    if (s_AgentDnsmasqOp.ReleaseDnsmasq(Conf->VpnId) < 0) {
        VQ_CTRL_LOG_ERROR_AS(Function, "Dnsmasq stop failed\n");
    }
}

// Applies a record: first the files, then either routes, instance and rule, or the removal of all three. Nothing is
// rolled back. Returns the negative result of the step that failed, otherwise the last result.
static VQ_ERR_T _VQCtrl_SetAdvancedDnsConfiguration(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    const VQ_ERR_T Result = _VQCtrl_SetDnsmasqFiles(__func__, Conf);
    if (Result < 0) {
        return Result;
    }
    if (Conf->Enable != FALSE) {
        return _VQCtrl_EnableDnsmasq(__func__, Conf);
    }
    _VQCtrl_DisableDnsmasq(__func__, Conf);
    return Result;
}

// Always deletes the row of the VPN. Stores the record if it asks for that.
static VQ_ERR_T _VQCtrl_StoreAdvancedDnsConfiguration(const char *Function, const VQ_CTRL_DNSMASQ_CONF *Conf,
                                                      VQ_ERR_T Result)
{
    if (s_AgentDnsmasqOp.DelDnsmasqDb != nullptr) {
        s_AgentDnsmasqOp.DelDnsmasqDb(Conf);
    }
    if (Conf->PersistentFlag == FALSE || s_AgentDnsmasqOp.AddDnsmasqDb == nullptr) {
        return Result;
    }
    Result = s_AgentDnsmasqOp.AddDnsmasqDb(Conf);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR_AS(Function, "Add advanced dns db failed(%d:%s)\n", VQ_CTRL_LOG_REASON(Result));
    }
    return Result;
}

VQ_ERR_T VQCtrl_ConfigAdvancedDns(const VQ_CTRL_DNSMASQ_CONFIG_PB *DnsmasqPb)
{
    const auto Conf = advanceddns::AllocHostMemory<VQ_CTRL_DNSMASQ_CONF>();
    if (Conf == nullptr) {
        VQ_CTRL_LOG_ERROR("No mem for advanced dns config\n");
        return VQ_ERR_NO_MEMORY;
    }
    std::memset(Conf.Get(), 0, sizeof(*Conf));

    if (s_AgentDnsmasqOp.PbToConfDnsmasq == nullptr) {
        VQ_CTRL_LOG_NOTICE("No PbToConfDnsmasq call back function, no need to deal with advanced dns msg!\n");
        return VQ_ERR_OK;
    }
    VQ_ERR_T Result = s_AgentDnsmasqOp.PbToConfDnsmasq(DnsmasqPb, Conf.Get());
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR("protobuf to data struct for advanced dns failed(%d:%s)\n", VQ_CTRL_LOG_REASON(Result));
        return Result;
    }
    Result = _VQCtrl_SetAdvancedDnsConfiguration(Conf.Get());
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR("set configuration advanced dns failed(%d:%s)\n", VQ_CTRL_LOG_REASON(Result));
        return Result;
    }
    if (VQ_IsPersistentConfEnable() == FALSE) {
        return Result;
    }
    return _VQCtrl_StoreAdvancedDnsConfiguration(__func__, Conf.Get(), Result);
}

VQ_ERR_T VQCtrl_AgentRecoverAdvancedDnsConf(void)
{
    return s_AgentDnsmasqOp.RecoverDnsmasqConf != nullptr ? s_AgentDnsmasqOp.RecoverDnsmasqConf() : VQ_ERR_OK;
}

// ---- Rules ----

static VQ_ERR_T _VQCtrl_SetDefaultPolicy(const char *Function, uint32_t VpnId)
{
    const VQ_ERR_T Result = VQCtrl_ConfigAddDnsmasqPolicy(VpnId);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR_AS(Function, "Set advanced dns default policy failed(%d:%s)\n", VQ_CTRL_LOG_REASON(Result));
    }
    return Result;
}

static VQ_ERR_T _VQCtrl_DelDefaultPolicy(const char *Function, uint32_t VpnId)
{
    const VQ_ERR_T Result = VQCtrl_ConfigDelDnsmasqPolicy(VpnId);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR_AS(Function, "Delete advanced dns default policy failed(%d:%s)\n",
                             VQ_CTRL_LOG_REASON(Result));
    }
    return Result;
}

static VQ_ERR_T _VQCtrl_SetCPEAdvancedDnsRule(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    return _VQCtrl_SetDefaultPolicy(__func__, Conf->VpnId);
}

static VQ_ERR_T _VQCtrl_DelCPEAdvancedDnsRule(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    return _VQCtrl_DelDefaultPolicy(__func__, Conf->VpnId);
}

// A POP has one pair of rules for all its VPNs, so it uses VPN 0 whatever the record names.
static VQ_ERR_T _VQCtrl_SetPOPAdvancedDnsRule(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    VQ_ERR_T Result = _VQCtrl_SetDefaultPolicy(__func__, 0);
    if (Result < 0) {
        return Result;
    }
    Result = VQCtrl_ConfigAddDnsmasqDnat(Conf->LocalIp);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR("Set advanced dns default dnat failed(%d:%s)\n", VQ_CTRL_LOG_REASON(Result));
    }
    return Result;
}

static VQ_ERR_T _VQCtrl_DelPOPAdvancedDnsRule(const VQ_CTRL_DNSMASQ_CONF * /*Conf*/)
{
    VQ_ERR_T Result = _VQCtrl_DelDefaultPolicy(__func__, 0);
    if (Result < 0) {
        return Result;
    }
    Result = VQCtrl_ConfigDelDnsmasqDnat();
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR("Delete advanced dns default dnat failed(%d:%s)\n", VQ_CTRL_LOG_REASON(Result));
    }
    return Result;
}

// ---- Store and recovery ----

static void _VQCtrl_DelCPEAdvancedDnsDb(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    static_cast<void>(VQCtrl_AdvancedDnsmasqDelPersistentconf(Conf, VQ_SQL_CONF_CPE_DNSMASQ));
}

static void _VQCtrl_DelPOPAdvancedDnsDb(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    static_cast<void>(VQCtrl_AdvancedDnsmasqDelPersistentconf(Conf, VQ_SQL_CONF_POP_DNSMASQ));
}

static VQ_ERR_T _VQCtrl_AddCPEAdvancedDnsDb(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    return VQCtrl_AdvancedDnsmasqAddPersistentConf(Conf, VQ_SQL_CONF_CPE_DNSMASQ);
}

static VQ_ERR_T _VQCtrl_AddPOPAdvancedDnsDb(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    return VQCtrl_AdvancedDnsmasqAddPersistentConf(Conf, VQ_SQL_CONF_POP_DNSMASQ);
}

// Applies every stored record, disabled ones too. If one fails, the next one follows.
static VQ_ERR_T _VQCtrl_RecoverAdvancedDnsConf(VQ_SQL_CONF_TBL Table)
{
    const advanceddns::StoredRecords List(VQ_SqliteGetDnsMasqConf(Table));
    if (List == nullptr || List->Count == 0) {
        VQ_CTRL_LOG_NOTICE("Dnsmasq table is empty\n");
        return VQ_ERR_OK;
    }
    for (const VQ_LIST_HEAD *Link = List->Head.next; Link != &List->Head; Link = Link->next) {
        if (_VQCtrl_SetAdvancedDnsConfiguration(&cds_list_entry(Link, VQ_DnsmasqConfNode, List)->Dnsmasq) < 0) {
            VQ_CTRL_LOG_ERROR("Set advanced dns configuration failed\n");
        }
    }
    return VQ_ERR_OK;
}

static VQ_ERR_T _VQCtrl_RecoverCPEAdvancedDnsConf(void)
{
    return _VQCtrl_RecoverAdvancedDnsConf(VQ_SQL_CONF_CPE_DNSMASQ);
}

static VQ_ERR_T _VQCtrl_RecoverPOPAdvancedDnsConf(void)
{
    return _VQCtrl_RecoverAdvancedDnsConf(VQ_SQL_CONF_POP_DNSMASQ);
}

// ---- Platforms ----

// Replaces the whole table, including empty slots. With null the table is not changed.
static void _VQCtrl_AgentSetPlatformAdvancedDnsOps(const VQ_CTRL_DNSMASQ_OPERATIONS *DnsmasqOp)
{
    if (DnsmasqOp != nullptr) {
        s_AgentDnsmasqOp = *DnsmasqOp;
    }
}

void VQCtrl_AgentSetCPEAdvancedDnsOps(void)
{
    VQ_CTRL_DNSMASQ_OPERATIONS Operations = {};
    Operations.PbToConfDnsmasq = VQCtrl_PbToAdvancedDnsConfPlatformCPE;
    Operations.SetDnsmasqHostConf = VQCtrl_SetDnsHostConf;
    Operations.SetDnsmasqMxHostConf = VQCtrl_SetDnsMxHostConf;
    Operations.SetDnsmasqDnsServerConf = VQCtrl_SetDnsServerConf;
    Operations.SetDnsmasqResolveConf = VQCtrl_SetDnsResolveConf;
    Operations.SetDnsmasqDnsProxyConf = VQCtrl_SetDnsProxyConf;
    Operations.SetDnsmasqRule = _VQCtrl_SetCPEAdvancedDnsRule;
    Operations.DelDnsmasqRule = _VQCtrl_DelCPEAdvancedDnsRule;
    Operations.ReleaseDnsmasq = VQCtrl_DnsmasqStop;
    Operations.DelDnsmasqDb = _VQCtrl_DelCPEAdvancedDnsDb;
    Operations.AddDnsmasqDb = _VQCtrl_AddCPEAdvancedDnsDb;
    Operations.RecoverDnsmasqConf = _VQCtrl_RecoverCPEAdvancedDnsConf;
    _VQCtrl_AgentSetPlatformAdvancedDnsOps(&Operations);
}

// A POP message carries only upstream servers, so a POP writes only the resolver file.
void VQCtrl_AgentSetPOPAdvancedDnsOps(void)
{
    VQ_CTRL_DNSMASQ_OPERATIONS Operations = {};
    Operations.PbToConfDnsmasq = VQCtrl_PbToAdvancedDnsConfPlatformPOP;
    Operations.SetDnsmasqResolveConf = VQCtrl_SetDnsResolveConf;
    Operations.SetDnsmasqRule = _VQCtrl_SetPOPAdvancedDnsRule;
    Operations.DelDnsmasqRule = _VQCtrl_DelPOPAdvancedDnsRule;
    Operations.ReleaseDnsmasq = VQCtrl_DnsmasqStop;
    Operations.DelDnsmasqDb = _VQCtrl_DelPOPAdvancedDnsDb;
    Operations.AddDnsmasqDb = _VQCtrl_AddPOPAdvancedDnsDb;
    Operations.RecoverDnsmasqConf = _VQCtrl_RecoverPOPAdvancedDnsConf;
    _VQCtrl_AgentSetPlatformAdvancedDnsOps(&Operations);
}

void VQCtrl_AgentSetApAdvancedDnsOps(void)
{
    _VQCtrl_AgentSetPlatformAdvancedDnsOps(nullptr);
}

void VQCtrl_AgentSetAdAdvancedDnsOps(void)
{
    _VQCtrl_AgentSetPlatformAdvancedDnsOps(nullptr);
}

void VQCtrl_AgentSetWinAdvancedDnsOps(void)
{
    _VQCtrl_AgentSetPlatformAdvancedDnsOps(nullptr);
}

void VQCtrl_AgentSetMacAdvancedDnsOps(void)
{
    _VQCtrl_AgentSetPlatformAdvancedDnsOps(nullptr);
}

void VQCtrl_AgentSetLinuxAdvancedDnsOps(void)
{
    _VQCtrl_AgentSetPlatformAdvancedDnsOps(nullptr);
}
