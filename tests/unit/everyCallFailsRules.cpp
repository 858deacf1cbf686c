#include "everyCallFailsRules.h"

#include <cerrno>

using fakehost::Fault;
using fakehost::Shortage;

bool Rule::Covers(const std::string &Text, std::size_t NthOfService, Fault Fault) const
{
    return Text.starts_with(Call) && (Nth == 0 || Nth == NthOfService) && (!How.has_value() || *How == Fault);
}

Rules operator+(Rules Left, const Rules &Right)
{
    Left.insert(Left.end(), Right.begin(), Right.end());
    return Left;
}

namespace {

// The steps of a stop from its first kill on.
Effects RestOfStop()
{
    return {"VQ_KillPid(", "remove("};
}

// The port check and the search for left-over processes treat every problem as a "no".
Rules DiscoveryRules()
{
    const Effects LeftOver{"VQ_KillPid("};
    return {{.Call = "VQ_RtcNetNsSaveAndSwitch(", .Skips = LeftOver},
            {.Call = "VQ_RtcNetNsSwitchToDefault("},
            {.Call = "fopen(\"/proc/", .Skips = LeftOver},
            {.Call = "opendir(", .How = Shortage::FewerNames, .Skips = LeftOver},
            {.Call = "VQ_SNPrintf(1024, \"/proc/", .Skips = LeftOver},
            {.Call = "VQ_SNPrintf(20, \"kvl_dns_vpn_", .Skips = LeftOver}};
}

} // namespace

Rules TranslationRules()
{
    return {{.Call = "VQ_SafeStrCopy(256, "}, {.Call = "VQ_SafeStrCopy(16, \"eth0\")"}};
}

Rules RouteRules(std::size_t Allocation)
{
    return {{.Call = "VQ_RtcNetioWanGetAllByVpnId("},
            {.Call = "VQ_RtcNetioLanGetAllByVpnId("},
            {.Call = "VQ_SafeStrCopy(16, \"lan0\")"},
            {.Call = "VQ_AgentMemZeroAlloc(4636)", .Nth = Allocation, .Skips = {"VQ_RTCRouteDel("}},
            {.Call = "VQ_RTCRouteDel("},
            {.Call = "VQ_RTCRouteAdd(", .How = -EEXIST}};
}

Rules PidFileRules()
{
    // Half of the pid names a process that does not exist. The real process is found by its command line.
    return {{.Call = "fopen(\"/var/run/", .How = Shortage::FewerBytes, .Adds = {"VQ_KillPid(12)"}},
            {.Call = "VQ_SNPrintf(512, \"/var/run/", .Nth = 1, .Skips = RestOfStop()},
            {.Call = "fopen(\"/var/run/", .Skips = RestOfStop()}};
}

Rules StopRules()
{
    // The host reports that the process does not exist, but /proc still shows it, so the search kills it again.
    return PidFileRules() + DiscoveryRules() +
           Rules{{.Call = "VQ_KillPid(1234)", .Nth = 1, .How = -ESRCH, .Adds = {"VQ_KillPid(1234)"}},
                 {.Call = "VQ_KillPid(", .How = -ESRCH},
                 {.Call = "remove("}};
}

Rules UnreportedStopRules()
{
    return StopRules() + Rules{{.Call = "VQ_SNPrintf(512, \"/var/run/", .Skips = RestOfStop()},
                               {.Call = "VQ_KillPid(", .Skips = RestOfStop()},
                               {.Call = "opendir(", .Skips = RestOfStop()}};
}

Rules ReloadRules()
{
    return {{.Call = "fopen(\"/var/run/", .How = Shortage::FewerBytes, .IsIgnored = false, .Adds = {"kill(12, 1)"}},
            {.Call = "VQ_SNPrintf(512, \"/var/run/", .Skips = {"kill("}},
            {.Call = "fopen(\"/var/run/", .Skips = {"kill("}}};
}

Rules CustomerRules()
{
    return {{.Call = "VQ_GetCustomerIdByVpnId("}};
}

Rules DeleteRules()
{
    return {{.Call = "VQ_SqliteDnsMasqConfOp(7, null"}, {.Call = "VQ_SqliteDnsMasqConfOp(0, null"}};
}

Rules TeardownRules()
{
    return UnreportedStopRules() + CustomerRules() + DeleteRules() +
           Rules{{.Call = "VQ_RtcRuleConfDel(", .Skips = {"VQ_RtcRuleConfDel(", "VQ_KillPid(", "remove("}},
                 {.Call = "VQ_AgentMemZeroAlloc(4636)", .Skips = {"VQ_RTCRouteDel("}},
                 {.Call = "VQ_RTCRouteDel("}};
}

Rules RowRules()
{
    return {{.Call = "VQ_SqliteGetDnsMasqConf(", .EndsAll = true},
            {.Call = "json_tokener_parse(", .CallsPerRow = 1},
            {.Call = "VQ_SafeStrGetIp4Addr(", .CallsPerRow = 1},
            {.Call = "VQ_SafeStrCopy(19, \"10.0.0.1\")", .CallsPerRow = 2},
            {.Call = "VQ_SafeStrCopy(256, \"a.example.com\")", .CallsPerRow = 2}};
}

Rules DirectoryRules()
{
    return {{.Call = "access("}};
}

Rules SilentRules()
{
    return {{.Call = "VQ_AgentMemZeroAlloc(4636)", .Skips = {"VQ_RTCRouteDel("}}, {.Call = ""}};
}

Rules ShortageRules()
{
    return {{.Call = "VQ_SNPrintf(", .How = Shortage::OneBelowSize},
            {.Call = "VQ_SafeStrCopy(", .How = Shortage::OneBelowSize},
            {.Call = "VQ_WriteSyncWithFilePath(", .How = Shortage::FewerBytes},
            {.Call = "VQ_WriteWithFilePath(", .How = Shortage::FewerBytes},
            {.Call = "fopen(", .How = Shortage::ByteByByte}};
}
