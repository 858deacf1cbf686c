// Every host call fails once: alone, and together with all that come after it. Nothing may leak or be released twice,
// no namespace may be left switched, every log site has to be complete, and the caller has to hear of it, unless the
// failure is one of those that are taken as they come: they stand in tables below.
#include <algorithm>
#include <array>
#include <functional>

#include "configTest.h"
#include "vqMemory.h"
#include "vqRule.h"

namespace {

constexpr std::array kErrors{-2, -3, -12, -17, -22, -28};
constexpr pid_t kInstance = 1234;
constexpr pid_t kLeftOver = 1235;

// A failure that the caller does not hear of: the beginning of the call, which call of its service (0: any), the error
// (0: any).
struct Swallowed {
    std::string Call;
    std::size_t Nth = 0;
    int Error = 0;
};

using Table = std::vector<Swallowed>;

Table operator+(Table Left, const Table &Right)
{
    Left.insert(Left.end(), Right.begin(), Right.end());
    return Left;
}

// What a message is copied with has room for all that passes the checks.
const Table kTranslationSwallows{{"VQ_SafeStrCopy(256, "}, {"VQ_SafeStrCopy(16, \"eth0\")"}};

// A VPN without WANs gets its routes, one without LANs gets them without an interface, and what is cut of an interface
// name is not looked at. A table that cannot be emptied is only logged, and a route that exists is as good as added.
// `Allocation`: which allocation is the one for emptying the table.
Table RoutesSwallow(std::size_t Allocation)
{
    return {{"VQ_RtcNetioWanGetAllByVpnId("},
            {"VQ_RtcNetioLanGetAllByVpnId("},
            {"VQ_SafeStrCopy(16, \"lan0\")"},
            {"VQ_AgentMemZeroAlloc(4636)", Allocation},
            {"VQ_RTCRouteDel("},
            {"VQ_RTCRouteAdd(", 0, -17}};
}

// An instance without a pid file is none.
const Table kPidFileSwallows{{"VQ_SNPrintf(512, \"/var/run/", 1}, {"fopen(\"/var/run/"}};

// The port check and the search for left-over processes read every problem as a "no".
const Table kDiscoverySwallows{{"VQ_RtcNetNsSaveAndSwitch("},
                               {"VQ_RtcNetNsSwitchToDefault("},
                               {"fopen(\"/proc/"},
                               {"VQ_SNPrintf(1024, \"/proc/"},
                               {"VQ_SNPrintf(20, \"kvl_dns_vpn_"}};

// A stop: besides, a process that is gone is as good as killed, and so is a pid file that is gone.
const Table kStopSwallows =
    kPidFileSwallows + kDiscoverySwallows + Table{{"VQ_KillPid(", 0, -3}, {"remove(\"/var/run/"}};

// A stop whose failure is only logged.
const Table kUnreportedStopSwallows =
    kDiscoverySwallows +
    Table{{"VQ_SNPrintf(512, \"/var/run/"}, {"fopen(\"/var/run/"}, {"VQ_KillPid("}, {"opendir("}, {"remove("}};

// The platform's customer stands where the VPN's is not known.
const Table kCustomerSwallows{{"VQ_GetCustomerIdByVpnId("}};

// A row that cannot be deleted is silent.
const Table kDeleteSwallows{{"VQ_SqliteDnsMasqConfOp(7, null"}, {"VQ_SqliteDnsMasqConfOp(0, null"}};

// A rule that cannot be removed ends a teardown without a word to the caller.
const Table kTeardownSwallows = kUnreportedStopSwallows + kCustomerSwallows + kDeleteSwallows +
                                Table{{"VQ_RtcRuleConfDel("}, {"VQ_AgentMemZeroAlloc(4636)"}, {"VQ_RTCRouteDel("}};

// A recovery is a success whatever becomes of the records.
const Table kEverything{{""}};

struct Scenario {
    const char *Name;
    void (*Prepare)(fakehost::Host &Host);
    VQ_ERR_T (*Run)();
    Table Swallows;
};

// Two lists of interfaces, an instance that runs and one that was left behind, a port that is taken, the rules in
// force.
void PrepareVpn(fakehost::Host &Host, uint32_t VpnId)
{
    Host.Files.PutInstance(VpnId);
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

// A kill that fails leaves its reason in errno, where the search for left-over processes looks for it.
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

// No instance, no rows.
void FreshBox(fakehost::Host &Host)
{
    PrepareBox(Host);
}

void ThreeRows(fakehost::Host &Host)
{
    PrepareBox(Host);
    VQCtrl_AgentSetCPEAdvancedDnsOps();
    for (const char *VpnId : {"1", "2", "3"}) {
        Host.Files.PutInstance(static_cast<uint32_t>(*VpnId - '0'));
        Host.Rows.Rows[{10, static_cast<uint32_t>(*VpnId - '0')}] =
            R"({"Enable": true, "Op": 1, "DnsHostNum": 1, "DnsHost": [{"Ip": "10.0.0.1", "Domain": "a.example.com"}],)"
            R"("VpnId": )" +
            std::string(VpnId) + '}';
    }
}

template <bool Enable, uint32_t Operation, uint32_t VpnId = 7>
VQ_ERR_T ConfigureCpe()
{
    CpeMessage Message(VpnId, Enable, Operation);
    if (Enable) {
        Message.AddHost("nas.example.com", Ip(10, 0, 0, 1));
        Message.AddMx("mx.example.com", "example.com", 10);
        Message.AddServer(Ip(10, 1, 1, 1), "eth0");
        Message.AddProxy({"corp.example.com"}, {Ip(10, 1, 1, 2)});
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

// One record for all runs: nothing writes to it.
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

const Scenario kScenarios[] = {
    {"CpeRestart", Cpe<7>, ConfigureCpe<true, VQ_CTRL_DNSMASQ_OP_REBOOT>,
     // The allocations before that of the routes are those of the hosts, the MX and the proxy file.
     kTranslationSwallows + RoutesSwallow(4) + kUnreportedStopSwallows + kCustomerSwallows + kDeleteSwallows},
    {"CpeReload", Cpe<7>, ConfigureCpe<true, VQ_CTRL_DNSMASQ_OP_RELOAD>,
     kTranslationSwallows + RoutesSwallow(4) + Table{{"VQ_SNPrintf(512, \"/var/run/"}, {"fopen(\"/var/run/"}} +
         kDeleteSwallows},
    {"CpeDisable", Cpe<7>, ConfigureCpe<false, VQ_CTRL_DNSMASQ_OP_RELOAD>, kTeardownSwallows},
    {"CpeDisableTheBox", Cpe<0>, ConfigureCpe<false, VQ_CTRL_DNSMASQ_OP_RELOAD, 0>, kTeardownSwallows},
    {"PopEnable", Pop, ConfigurePop<true>, kUnreportedStopSwallows + kCustomerSwallows + kDeleteSwallows},
    {"PopDisable", Pop, ConfigurePop<false>, kTeardownSwallows},
    {"RecoveryOfThree", ThreeRows, VQCtrl_AgentRecoverAdvancedDnsConf, kEverything},
    // Where nothing exists yet, a failed look changes nothing.
    {"DirectoryInit", FreshBox, OnVpn<VQCtrl_DnsmasqConfInitByVpnId>, {{"access("}}},
    {"DirectoryInitAgain", Cpe<7>, OnVpn<VQCtrl_DnsmasqConfInitByVpnId>, {}},
    {"DirectoryRelease", Cpe<7>, OnVpn<VQCtrl_DnsmasqConfRelaseByVpnId>, {}},
    {"OldService", FreshBox, StopOldService, kEverything},
    {"Hosts", Cpe<7>, OnRecord<VQCtrl_SetDnsHostConf>, {}},
    {"BareHosts", Cpe<7>, WriteBareHosts, {}},
    {"MxHosts", Cpe<7>, OnRecord<VQCtrl_SetDnsMxHostConf>, {}},
    {"Servers", Cpe<7>, OnRecord<VQCtrl_SetDnsServerConf>, {}},
    {"Resolver", Cpe<7>, OnRecord<VQCtrl_SetDnsResolveConf>, {}},
    {"Proxies", Cpe<7>, OnRecord<VQCtrl_SetDnsProxyConf>, {}},
    {"AddRoutes", Cpe<7>, OnRecord<VQCtrl_AddDnsmasqRouteForVpn>, RoutesSwallow(1)},
    {"DeleteRoutes", Cpe<7>, DeleteRoutes, kEverything},
    {"Start", Cpe<7>, OnVpn<VQCtrl_DnsmasqStart>, {}},
    {"Stop", Cpe<7>, OnVpn<VQCtrl_DnsmasqStop>, kStopSwallows},
    {"Reload", Cpe<7>, OnVpn<VQCtrl_DnsmasqReload>, kPidFileSwallows},
    {"Reboot", Cpe<7>, OnVpn<VQCtrl_DnsmasqReboot>, kUnreportedStopSwallows},
    {"Pid", Cpe<7>, ReadPid, {}},
    {"WriteText", FreshBox, WriteText, {}},
    // The local address is optional.
    {"ReadText", FreshBox, ReadText, {{"VQ_SafeStrCopy(19, \"10.9.8.7\")"}}},
    {"StoreRow", Cpe<7>, OnTable<VQCtrl_AdvancedDnsmasqAddPersistentConf>, {}},
    {"UpdateRow", Cpe<7>, OnTable<VQCtrl_AdvancedDnsmasqUpdatePersistentConf>, {}},
    {"DeleteRow", Cpe<7>, OnTable<VQCtrl_AdvancedDnsmasqDelPersistentconf>, {}},
    {"ListRows", ThreeRows, ListRows, kEverything},
    {"AddDnat", FreshBox, OnVpn<VQCtrl_ConfigAddDnsmasqDnat>, {}},
    {"DeleteDnat", Cpe<7>, VQCtrl_ConfigDelDnsmasqDnat, {}},
    {"AddPolicy", FreshBox, OnVpn<VQCtrl_ConfigAddDnsmasqPolicy>, kCustomerSwallows},
    {"DeletePolicy", Cpe<7>, OnVpn<VQCtrl_ConfigDelDnsmasqPolicy>, kCustomerSwallows},
};

using Inject = void (fakehost::Failures::*)(std::size_t Nth, int Error);

class EveryCallFails : public testing::TestWithParam<Scenario> {
  protected:
    static bool IsSwallowed(const fakehost::FailedCall &Call, int Error)
    {
        const Table &Swallows = GetParam().Swallows;
        return std::any_of(Swallows.begin(), Swallows.end(), [&](const Swallowed &Each) {
            return Call.Text.starts_with(Each.Call) && (Each.Nth == 0 || Each.Nth == Call.Nth) &&
                   (Each.Error == 0 || Each.Error == Error);
        });
    }

    static void Prepare(fakehost::Host &Host)
    {
        Host.RecordNothing();
        Host.Memory.ReuseRecords();
        GetParam().Prepare(Host);
    }

    // How many calls can fail.
    static std::size_t CountCalls()
    {
        fakehost::Host Host;
        Prepare(Host);
        EXPECT_GE(GetParam().Run(), 0);
        EXPECT_THAT(Host.Verify(), testing::IsEmpty());
        return Host.Failures.CountedCalls();
    }

    // The calls that failed.
    static std::vector<fakehost::FailedCall> RunOnce(Inject Mode, std::size_t Nth, int Error)
    {
        fakehost::Host Host;
        Prepare(Host);
        (Host.Failures.*Mode)(Nth, Error);
        errno = 0;
        const VQ_ERR_T Result = GetParam().Run();
        std::vector<fakehost::FailedCall> Failed = Host.Failed();
        std::string Heard;
        for (const fakehost::FailedCall &Each : Failed) {
            Heard += IsSwallowed(Each, Error) ? "" : Each.Text + '\n';
        }
        EXPECT_EQ(Result < 0, !Heard.empty()) << "gives " << Result << ", to be heard of:\n" << Heard;
        EXPECT_FALSE(Failed.empty());
        EXPECT_THAT(Host.Verify(), testing::IsEmpty());
        return Failed;
    }

    // These tell their caller only that they failed: another error would be the same run again.
    static bool TellsNoError(const std::string &Call)
    {
        constexpr std::array Silent{"VQ_AgentMem", "VQ_SNPrintf", "VQ_SafeStr", "json_"};
        return std::any_of(Silent.begin(), Silent.end(), [&](const char *Each) { return Call.starts_with(Each); });
    }

    static void FailAt(Inject Mode, std::size_t Nth)
    {
        for (const int Error : kErrors) {
            SCOPED_TRACE("call " + std::to_string(Nth) + ", error " + std::to_string(Error));
            const std::vector<fakehost::FailedCall> Failed = RunOnce(Mode, Nth, Error);
            if (HasFailure() ||
                std::all_of(Failed.begin(), Failed.end(), [](const auto &Each) { return TellsNoError(Each.Text); })) {
                return;
            }
        }
    }

    static void FailEach(Inject Mode)
    {
        const std::size_t Count = CountCalls();
        EXPECT_GE(Count, 1U);
        for (std::size_t Nth = 1; Nth <= Count && !HasFailure(); ++Nth) {
            FailAt(Mode, Nth);
        }
    }
};

TEST_P(EveryCallFails, Alone)
{
    FailEach(&fakehost::Failures::FailNth);
}

TEST_P(EveryCallFails, WithAllThatComeAfterIt)
{
    FailEach(&fakehost::Failures::FailFrom);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, EveryCallFails, testing::ValuesIn(kScenarios),
                         [](const auto &Info) { return std::string(Info.param.Name); });

} // namespace
