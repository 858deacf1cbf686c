#include "everyCallFailsScenarios.h"

#include <algorithm>
#include <cerrno>
#include <ostream>

#include "cpeMessage.h"
#include "moduleTest.h"
#include "popMessage.h"
#include "vqMemory.h"
#include "vqRule.h"

namespace {

constexpr pid_t kInstance = 1234;
constexpr pid_t kLeftOver = 1235;

// Creates every file that the module writes, with other content.
void PutOldFiles(fakehost::Host &Host, uint32_t VpnId)
{
    const std::string Root =
        VpnId == 0 ? "/etc/kavel/dnsmasq/" : "/etc/kavel/dnsmasq/vpn_" + std::to_string(VpnId) + '/';
    Host.Files.PutInstance(VpnId);
    for (const char *Name : {"hosts", "resolv.conf", "dnsmasq.conf", "dnsmasq.d/Mxhost.conf",
                             "dnsmasq.d/ServerMap.conf", "dnsmasq.d/DnsProxy.conf"}) {
        Host.Files.Put(Root + Name, std::string("an older ") + Name + '\n');
    }
}

// Creates lists of WANs and LANs, a running instance and a left-over one, a taken port and installed rules.
void PrepareVpn(fakehost::Host &Host, uint32_t VpnId)
{
    PutOldFiles(Host, VpnId);
    Host.Netio.SetWans(VpnId, {{false}});
    Host.Netio.SetLans(VpnId, {{"lan0"}});
    Host.Proc.AddInstance(kInstance, VpnId);
    Host.Proc.AddInstance(kLeftOver, VpnId);
    Host.Proc.PutPidFile(VpnId, std::to_string(kInstance));
    Host.Netns.PutListener(VpnId, 53);
    Host.Rules.Put({VQ_CONF_RULE_TBL_TYPE_DNS, 0, VpnId + 2, Host.Rules.PlatformCustomer});
    Host.Rules.Put({VQ_CONF_RULE_TBL_TYPE_DNAT, 0, VQ_DNAT_TBL_ZONE0_RULE_ID_DNSMASQ, 0});
    Host.Rows.Rows = {{{10, VpnId}, "an older text"}, {{14, VpnId}, "an older text"}};
}

// A failed kill sets errno, from which a stop takes its result.
void PrepareBox(fakehost::Host &Host)
{
    Host.Rows.Enabled = true;
    Host.Rows.Conversions = ModuleConversions();
    Host.Hooks["VQ_KillPid"] = [] { errno = EPERM; };
}

template <uint32_t VpnId>
void Cpe(fakehost::Host &Host)
{
    PrepareBox(Host);
    PrepareVpn(Host, VpnId);
    VQCtrl_AgentSetCPEAdvancedDnsOps();
}

void Pop(fakehost::Host &Host)
{
    Cpe<0>(Host);
    VQCtrl_AgentSetPOPAdvancedDnsOps();
}

// A box without instances and without rows.
void FreshBox(fakehost::Host &Host)
{
    PrepareBox(Host);
}

// The instance of the second VPN is still running.
void ThreeRows(fakehost::Host &Host)
{
    PrepareBox(Host);
    VQCtrl_AgentSetCPEAdvancedDnsOps();
    PutOldFiles(Host, 1);
    PrepareVpn(Host, 2);
    PutOldFiles(Host, 3);
    Host.Rows.Rows.clear();
    for (const uint32_t VpnId : {1U, 2U, 3U}) {
        Host.Rows.Rows[{10, VpnId}] =
            R"({"Enable": true, "Op": 1, "DnsHostNum": 1, "DnsHost": [{"Ip": "10.0.0.1", "Domain": "a.example.com"}],)"
            R"("VpnId": )" +
            std::to_string(VpnId) + '}';
    }
}

// Adds one entry to each list.
void Fill(CpeMessage &Message)
{
    Message.AddHost("nas.example.com", Ip(10, 0, 0, 1));
    Message.AddMx("mx.example.com", "example.com", 10);
    Message.AddServer(Ip(10, 1, 1, 1), "eth0");
    Message.AddProxy({"corp.example.com"}, {Ip(10, 1, 1, 2)});
}

template <bool Enable, uint32_t Operation, uint32_t VpnId = 7>
VQ_ERR_T ConfigureCpe()
{
    CpeMessage Message(VpnId, Enable, Operation);
    if (Enable) {
        Fill(Message);
    }
    Message.Pb().has_persistentflag = 1;
    Message.Pb().persistentflag = 1;
    const VQ_CTRL_DNSMASQ_CONFIG_PB Carrier = Message.Carrier();
    return VQCtrl_ConfigAdvancedDns(&Carrier);
}

template <bool Enable>
VQ_ERR_T ConfigurePop()
{
    PopMessage Message({Ip(10, 1, 1, 1), Ip(10, 1, 1, 2)}, Ip(10, 9, 8, 7), Enable);
    Message.AskForPersistence(true);
    const VQ_CTRL_DNSMASQ_CONFIG_PB Carrier = Message.Carrier();
    return VQCtrl_ConfigAdvancedDns(&Carrier);
}

// All runs share one record, because nothing writes to it.
const VQ_CTRL_DNSMASQ_CONF *SharedRecord()
{
    static const Record Conf = [] {
        Record Out = NewRecord(7);
        AddHost(*Out, Ip(10, 0, 0, 1), "nas.example.com");
        AddMx(*Out, "mx.example.com", "example.com", 10);
        AddServer(*Out, Ip(10, 1, 1, 1), "eth0");
        AddProxy(*Out, "corp.example.com", Ip(10, 1, 1, 2));
        return Out;
    }();
    return Conf.get();
}

template <VQ_ERR_T (*Function)(const VQ_CTRL_DNSMASQ_CONF *)>
VQ_ERR_T OnRecord()
{
    return Function(SharedRecord());
}

template <VQ_ERR_T (*Function)(uint32_t)>
VQ_ERR_T OnVpn()
{
    return Function(7);
}

template <VQ_ERR_T (*Function)(const VQ_CTRL_DNSMASQ_CONF *, VQ_SQL_CONF_TBL)>
VQ_ERR_T OnTable()
{
    return Function(SharedRecord(), VQ_SQL_CONF_CPE_DNSMASQ);
}

VQ_ERR_T WriteBareHosts()
{
    const VQ_CTRL_DNSMASQ_CONF *Conf = SharedRecord();
    return VQCtrl_SetDnsHostByDnsHostConf(Conf->DnsHost, Conf->DnsHostNum, Conf->VpnId);
}

VQ_ERR_T DeleteRoutes()
{
    VQCtrl_DelDnsmasqRouteForVpn(7);
    return 0;
}

VQ_ERR_T StopOldService()
{
    VQCtrl_StopOldVersionDnsmasqService();
    return 0;
}

VQ_ERR_T WriteText()
{
    char *Text = VQCtrl_AdvancedDnsConfToJsonStr(SharedRecord());
    if (Text == nullptr) {
        return -1;
    }
    VQ_AgentMemFree(Text);
    return 0;
}

VQ_ERR_T ReadText()
{
    const Record Conf = NewRecord(0);
    return VQCtrl_AdvancedDnsJsonStrToConf(Conf.get(), R"({"Enable": true, "VpnId": 7, "Op": 1,
        "DnsHostNum": 1, "DnsMxHostNum": 1, "DnsServerNum": 1, "DnsProxyNum": 1,
        "DnsHost": [{"Ip": "10.0.0.1", "Domain": "a.example.com"}],
        "DnsMxHost": [{"TargetDomain": "t.example.com", "SourceDomain": "s.example.com", "Preference": 10}],
        "DnsServer": [{"DnsServerIp": "10.0.0.2", "Ifname": "eth0"}],
        "DnsProxy": [{"Domain": "p.example.com", "ServerIp": "10.0.0.3"}], "LocalIp": "10.9.8.7"})");
}

VQ_ERR_T TranslateCpe()
{
    CpeMessage Message(7);
    Fill(Message);
    const VQ_CTRL_DNSMASQ_CONFIG_PB Carrier = Message.Carrier();
    const Record Conf = NewRecord(0);
    return VQCtrl_PbToAdvancedDnsConfPlatformCPE(&Carrier, Conf.get());
}

VQ_ERR_T TranslatePop()
{
    PopMessage Message({Ip(10, 1, 1, 1)}, Ip(10, 9, 8, 7));
    const VQ_CTRL_DNSMASQ_CONFIG_PB Carrier = Message.Carrier();
    const Record Conf = NewRecord(0);
    return VQCtrl_PbToAdvancedDnsConfPlatformPOP(&Carrier, Conf.get());
}

VQ_ERR_T Validate()
{
    return VQCtrl_ValidateDomain("a.example.com") == TRUE ? 0 : -1;
}

template <void (*SetPlatform)()>
VQ_ERR_T ChoosePlatform()
{
    SetPlatform();
    return 0;
}

VQ_ERR_T ReadPid()
{
    pid_t Pid = 0;
    return VQCtrl_GetDnsServicePid(7, &Pid);
}

VQ_ERR_T ListRows()
{
    VQ_PersistentConfList *List = VQCtrl_AdvancedDnsmasqGetAllPersistentconf(VQ_SQL_CONF_CPE_DNSMASQ);
    if (List != nullptr) {
        VQ_SqliteConfListRelease(List);
    }
    return 0;
}

Rules CpeRestartRules()
{
    // The allocation for emptying the route table follows those for the hosts, MX and proxy files.
    return TranslationRules() + RouteRules(4) + UnreportedStopRules() + CustomerRules() + DeleteRules();
}

Rules CpeReloadRules()
{
    return TranslationRules() + RouteRules(4) + ReloadRules() + DeleteRules();
}

Rules RecoveryRules()
{
    // Each of the three records makes its own allocations.
    return RowRules() + RouteRules(2) + RouteRules(5) + RouteRules(8) + UnreportedStopRules() + CustomerRules();
}

// The local address is optional.
Rules ReadTextRules()
{
    return {{.Call = "VQ_SafeStrCopy(19, \"10.9.8.7\")"}};
}

// If the first line just fits, there is no room for the second one.
Rules TwoServersRules()
{
    return {{.Call = "VQ_SNPrintf(1024, \"nameserver 10.1.1.1\\n\")",
             .How = fakehost::Shortage::OneBelowSize,
             .IsIgnored = false}};
}

// Half of the pid is a number, too.
Rules HalfPidRules()
{
    return {{.Call = "fopen(\"/var/run/", .How = fakehost::Shortage::FewerBytes}};
}

// If a check for a directory fails, the function creates the directory, although it exists.
Rules AccessAgainRules()
{
    const std::string Root = "/etc/kavel/dnsmasq/vpn_7";
    const std::string DropIns = Root + "/dnsmasq.d";
    return {{.Call = "access(\"" + Root + "\"", .IsIgnored = false, .Adds = {"mkdir(\"" + Root + "\", 0777)"}},
            {.Call = "access(", .IsIgnored = false, .Adds = {"mkdir(\"" + DropIns + "\", 0777)"}}};
}

std::vector<Scenario> MessageScenarios()
{
    constexpr uint32_t Restart = VQ_CTRL_DNSMASQ_OP_REBOOT;
    constexpr uint32_t Reload = VQ_CTRL_DNSMASQ_OP_RELOAD;
    const char *Entry = "VQCtrl_ConfigAdvancedDns";
    return {
        {"CpeRestart", Entry, Cpe<7>, ConfigureCpe<true, Restart>, CpeRestartRules()},
        {"CpeReload", Entry, Cpe<7>, ConfigureCpe<true, Reload>, CpeReloadRules()},
        {"CpeDisable", Entry, Cpe<7>, ConfigureCpe<false, Reload>, TeardownRules()},
        {"CpeRestartTheBox", Entry, Cpe<0>, ConfigureCpe<true, Restart, 0>, CpeRestartRules()},
        {"CpeDisableTheBox", Entry, Cpe<0>, ConfigureCpe<false, Reload, 0>, TeardownRules()},
        {"PopEnable", Entry, Pop, ConfigurePop<true>,
         TwoServersRules() + UnreportedStopRules() + CustomerRules() + DeleteRules()},
        {"PopDisable", Entry, Pop, ConfigurePop<false>, TwoServersRules() + TeardownRules()},
        {"RecoveryOfThree", "VQCtrl_AgentRecoverAdvancedDnsConf", ThreeRows, VQCtrl_AgentRecoverAdvancedDnsConf,
         RecoveryRules(), true},
    };
}

std::vector<Scenario> InstanceScenarios()
{
    return {
        {"DirectoryInit", "VQCtrl_DnsmasqConfInitByVpnId", FreshBox, OnVpn<VQCtrl_DnsmasqConfInitByVpnId>,
         DirectoryRules()},
        {"DirectoryInitAgain", "VQCtrl_DnsmasqConfInitByVpnId", Cpe<7>, OnVpn<VQCtrl_DnsmasqConfInitByVpnId>,
         AccessAgainRules()},
        {"DirectoryRelease", "VQCtrl_DnsmasqConfRelaseByVpnId", Cpe<7>, OnVpn<VQCtrl_DnsmasqConfRelaseByVpnId>},
        {"OldService", "VQCtrl_StopOldVersionDnsmasqService", FreshBox, StopOldService, SilentRules()},
        {"Start", "VQCtrl_DnsmasqStart", Cpe<7>, OnVpn<VQCtrl_DnsmasqStart>},
        {"Stop", "VQCtrl_DnsmasqStop", Cpe<7>, OnVpn<VQCtrl_DnsmasqStop>, StopRules()},
        {"Reload", "VQCtrl_DnsmasqReload", Cpe<7>, OnVpn<VQCtrl_DnsmasqReload>, ReloadRules()},
        {"Reboot", "VQCtrl_DnsmasqReboot", Cpe<7>, OnVpn<VQCtrl_DnsmasqReboot>, UnreportedStopRules()},
        {"Pid", "VQCtrl_GetDnsServicePid", Cpe<7>, ReadPid, HalfPidRules()},
    };
}

std::vector<Scenario> FileScenarios()
{
    return {
        {"Hosts", "VQCtrl_SetDnsHostConf", Cpe<7>, OnRecord<VQCtrl_SetDnsHostConf>},
        {"BareHosts", "VQCtrl_SetDnsHostByDnsHostConf", Cpe<7>, WriteBareHosts},
        {"MxHosts", "VQCtrl_SetDnsMxHostConf", Cpe<7>, OnRecord<VQCtrl_SetDnsMxHostConf>},
        {"Servers", "VQCtrl_SetDnsServerConf", Cpe<7>, OnRecord<VQCtrl_SetDnsServerConf>},
        {"Resolver", "VQCtrl_SetDnsResolveConf", Cpe<7>, OnRecord<VQCtrl_SetDnsResolveConf>},
        {"Proxies", "VQCtrl_SetDnsProxyConf", Cpe<7>, OnRecord<VQCtrl_SetDnsProxyConf>},
    };
}

std::vector<Scenario> RouteAndRuleScenarios()
{
    return {
        {"AddRoutes", "VQCtrl_AddDnsmasqRouteForVpn", Cpe<7>, OnRecord<VQCtrl_AddDnsmasqRouteForVpn>, RouteRules(1)},
        {"DeleteRoutes", "VQCtrl_DelDnsmasqRouteForVpn", Cpe<7>, DeleteRoutes, SilentRules()},
        {"AddDnat", "VQCtrl_ConfigAddDnsmasqDnat", FreshBox, OnVpn<VQCtrl_ConfigAddDnsmasqDnat>},
        {"DeleteDnat", "VQCtrl_ConfigDelDnsmasqDnat", Cpe<7>, VQCtrl_ConfigDelDnsmasqDnat},
        {"AddPolicy", "VQCtrl_ConfigAddDnsmasqPolicy", FreshBox, OnVpn<VQCtrl_ConfigAddDnsmasqPolicy>, CustomerRules()},
        {"DeletePolicy", "VQCtrl_ConfigDelDnsmasqPolicy", Cpe<7>, OnVpn<VQCtrl_ConfigDelDnsmasqPolicy>,
         CustomerRules()},
    };
}

std::vector<Scenario> RecordScenarios()
{
    return {
        {"TranslateCpe", "VQCtrl_PbToAdvancedDnsConfPlatformCPE", FreshBox, TranslateCpe, TranslationRules()},
        {"WriteText", "VQCtrl_AdvancedDnsConfToJsonStr", FreshBox, WriteText},
        {"ReadText", "VQCtrl_AdvancedDnsJsonStrToConf", FreshBox, ReadText, ReadTextRules()},
        {"StoreRow", "VQCtrl_AdvancedDnsmasqAddPersistentConf", Cpe<7>,
         OnTable<VQCtrl_AdvancedDnsmasqAddPersistentConf>},
        {"UpdateRow", "VQCtrl_AdvancedDnsmasqUpdatePersistentConf", Cpe<7>,
         OnTable<VQCtrl_AdvancedDnsmasqUpdatePersistentConf>},
        {"DeleteRow", "VQCtrl_AdvancedDnsmasqDelPersistentconf", Cpe<7>,
         OnTable<VQCtrl_AdvancedDnsmasqDelPersistentconf>},
        {"ListRows", "VQCtrl_AdvancedDnsmasqGetAllPersistentconf", ThreeRows, ListRows, SilentRules()},
    };
}

// Puts the rules for reported failures first, because the first rule that covers a failure applies.
Rules WithShortages(Rules Own)
{
    const auto Ignored =
        std::stable_partition(Own.begin(), Own.end(), [](const Rule &Each) { return !Each.IsIgnored; });
    const Rules Reported(Own.begin(), Ignored);
    return Reported + ShortageRules() + Rules(Ignored, Own.end());
}

} // namespace

std::ostream &operator<<(std::ostream &Out, const Scenario &Each)
{
    return Out << Each.Name;
}

const std::vector<Scenario> &Scenarios()
{
    static const std::vector<Scenario> All = [] {
        std::vector<Scenario> Out = MessageScenarios();
        for (const auto &More : {InstanceScenarios(), FileScenarios(), RouteAndRuleScenarios(), RecordScenarios()}) {
            Out.insert(Out.end(), More.begin(), More.end());
        }
        for (Scenario &Each : Out) {
            Each.Exceptions = WithShortages(Each.Exceptions);
        }
        return Out;
    }();
    return All;
}

const std::vector<Scenario> &ScenariosWithoutFailures()
{
    static const std::vector<Scenario> All = {
        {"Cpe", "VQCtrl_AgentSetCPEAdvancedDnsOps", FreshBox, ChoosePlatform<VQCtrl_AgentSetCPEAdvancedDnsOps>},
        {"Pop", "VQCtrl_AgentSetPOPAdvancedDnsOps", FreshBox, ChoosePlatform<VQCtrl_AgentSetPOPAdvancedDnsOps>},
        {"Ap", "VQCtrl_AgentSetApAdvancedDnsOps", FreshBox, ChoosePlatform<VQCtrl_AgentSetApAdvancedDnsOps>},
        {"Ad", "VQCtrl_AgentSetAdAdvancedDnsOps", FreshBox, ChoosePlatform<VQCtrl_AgentSetAdAdvancedDnsOps>},
        {"Win", "VQCtrl_AgentSetWinAdvancedDnsOps", FreshBox, ChoosePlatform<VQCtrl_AgentSetWinAdvancedDnsOps>},
        {"Mac", "VQCtrl_AgentSetMacAdvancedDnsOps", FreshBox, ChoosePlatform<VQCtrl_AgentSetMacAdvancedDnsOps>},
        {"Linux", "VQCtrl_AgentSetLinuxAdvancedDnsOps", FreshBox, ChoosePlatform<VQCtrl_AgentSetLinuxAdvancedDnsOps>},
        {"TranslatePop", "VQCtrl_PbToAdvancedDnsConfPlatformPOP", FreshBox, TranslatePop},
        {"ValidateDomain", "VQCtrl_ValidateDomain", FreshBox, Validate},
    };
    return All;
}
