// The message entry and the apply sequence, on a CPE.
#include <algorithm>

#include "configTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A success that is logged at error level.
constexpr const char *kRuleGone = "4 VQCtrl_ConfigDelDnsmasqPolicy: Del Policy for Dnsmasq success\n";

constexpr const char *kRecordBlock = "VQ_AgentMemAlloc(17834172)";

class Config : public ConfigTest {};

TEST_F(Config, AMessageIsAppliedInOrder)
{
    FillMessage();
    RunInstance();
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(Host.Files.Written(),
                ElementsAre(Written("hosts"), Written("dnsmasq.d/Mxhost.conf"), Written("dnsmasq.d/ServerMap.conf"),
                            Written("resolv.conf"), Written("dnsmasq.d/DnsProxy.conf")));
    EXPECT_THAT(Host.Routes.Of(7, 199), ElementsAre("10.1.1.1/32 dev lan0", "10.1.1.2/32 dev lan0"));
    EXPECT_FALSE(Host.Proc.IsAlive(1234));
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), testing::SizeIs(1));
    EXPECT_THAT(Errors(), IsEmpty());

    const std::vector<std::string> Calls = World();
    const auto At = [&](const std::string &Start) {
        return std::find_if(Calls.begin(), Calls.end(),
                            [&](const std::string &Each) { return Each.starts_with(Start); });
    };
    EXPECT_LT(At("VQ_WriteSync"), At("VQ_RtcNetioWan"));
    EXPECT_LT(At("VQ_RTCRouteDel"), At("VQ_RTCRouteAdd"));
    EXPECT_LT(At("VQ_RTCRouteAdd"), At("fopen"));
    EXPECT_LT(At("VQ_KillPid"), At("VQ_CmdExec"));
}

TEST_F(Config, TheRecordIsOneBlockReleasedAtTheEnd)
{
    EXPECT_EQ(Configure(), 0);
    const std::vector<std::string> Trace = Host.Calls.Trace();
    EXPECT_EQ(Trace.front(), kRecordBlock);
    EXPECT_EQ(Trace.back(), "VQ_AgentMemFree()");
}

// The memory from the host is not zeroed, and the message does not set the fields that are checked here.
TEST_F(Config, TheRecordIsZeroedFirst)
{
    Message = CpeMessage();
    Message.Pb().enable = 1;
    Message.Pb().operation = VQ_CTRL_DNSMASQ_OP_REBOOT;
    EXPECT_EQ(Configure(), 0);
    EXPECT_EQ(Host.Files.Content("/etc/kavel/dnsmasq/hosts"), "");
    EXPECT_EQ(Host.Files.Content("/etc/kavel/dnsmasq/dnsmasq.d/DnsProxy.conf"), "");
    EXPECT_THAT(Host.Calls.Named("VQ_RTCRouteAdd"), IsEmpty());
}

TEST_F(Config, NoMemoryForTheRecord)
{
    Host.Failures.Fail("VQ_AgentMemAlloc", -12);
    EXPECT_EQ(Configure(), -12);
    EXPECT_THAT(Logs(), ElementsAre(kEntrySite + "No mem for advanced dns config\n"));
    EXPECT_THAT(World(), IsEmpty());
}

TEST_F(Config, ARefusedMessageChangesNothing)
{
    FillMessage();
    Message.AddHost("bad_name", 1);
    Host.Rows.Enabled = true;
    Message.Pb().has_persistentflag = 1;
    Message.Pb().persistentflag = 1;
    EXPECT_EQ(Configure(), -22);
    EXPECT_THAT(Logs(),
                ElementsAre("4 VQCtrl_PbToAdvancedDnsConfPlatformCPE: dnsmasq dns host[1].domain is invalid\n",
                            kEntrySite + "protobuf to data struct for advanced dns failed(22:Invalid argument)\n"));
    EXPECT_THAT(Host.Files.Written(), IsEmpty());
    EXPECT_THAT(Host.Calls.Named("VQ_SqliteDnsMasqConfOp"), IsEmpty());
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), IsEmpty());
}

TEST_F(Config, AListOverItsLimitIsRefusedWithItsOwnCode)
{
    for (int Each = 0; Each < 9; ++Each) {
        Message.AddNullServer();
    }
    EXPECT_EQ(Configure(), -75);
    EXPECT_EQ(Logs().back(),
              kEntrySite +
                  "protobuf to data struct for advanced dns failed(75:Value too large for defined data type)\n");
}

struct FileStep {
    std::size_t Nth;
    const char *Own;
    const char *Step;
};

class FileSteps : public Config, public testing::WithParamInterface<FileStep> {};

TEST_P(FileSteps, TheFirstFailureEndsTheSequence)
{
    FillMessage();
    RunInstance();
    Host.Rows.Enabled = true;
    Host.Failures.Fail("VQ_WriteSyncWithFilePath", -28, GetParam().Nth);
    EXPECT_EQ(Configure(), -28);
    const std::string Reason = "(28:No space left on device)\n";
    EXPECT_THAT(Logs(), ElementsAre("4 " + (GetParam().Own + Reason), kApplySite + GetParam().Step + Reason,
                                    kEntrySite + "set configuration advanced dns failed" + Reason));
    EXPECT_THAT(Host.Files.Written(), testing::SizeIs(GetParam().Nth - 1));
    EXPECT_THAT(Host.Calls.Named("VQ_WriteSyncWithFilePath"), testing::SizeIs(GetParam().Nth));
    EXPECT_THAT(Host.Calls.Named("VQ_RTCRouteDel"), IsEmpty());
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), IsEmpty());
    EXPECT_THAT(Host.Calls.Named("VQ_SqliteDnsMasqConfOp"), IsEmpty());
    EXPECT_TRUE(Host.Proc.IsAlive(1234));
}

INSTANTIATE_TEST_SUITE_P(
    Writers, FileSteps,
    testing::Values(
        FileStep{1, "VQCtrl_SetDnsHostConf: Write to dnsmasq host failed", "set dns host conf failed"},
        FileStep{2, "VQCtrl_SetDnsMxHostConf: Write to dnsmasq mx host failed", "set dns mx host conf failed"},
        FileStep{3, "VQCtrl_SetDnsServerConf: Write to dnsmasq server map failed", "set dns server conf failed"},
        FileStep{4, "VQCtrl_SetDnsResolveConf: Write to dnsmasq server resolv failed", "set dns resolve conf failed"},
        FileStep{5, "VQCtrl_SetDnsProxyConf: Write to dnsmasq host failed", "set dns proxy conf failed"}));

TEST_F(Config, AFailedRouteEndsTheSequenceBeforeTheInstance)
{
    FillMessage();
    RunInstance();
    Host.Failures.Fail("VQ_RTCRouteAdd", -101);
    EXPECT_EQ(Configure(), -101);
    EXPECT_THAT(Errors(),
                ElementsAre("4 VQCtrl_AddDnsmasqRouteForVpn: Dnsmasq route add failed(101:Network is unreachable)!\n",
                            kApplySite + "Add dnsmasq route for vpn 7 failed(101:Network is unreachable)\n",
                            kEntrySite + "set configuration advanced dns failed(101:Network is unreachable)\n"));
    EXPECT_THAT(Host.Files.Written(), testing::SizeIs(5));
    EXPECT_TRUE(Host.Proc.IsAlive(1234));
    EXPECT_THAT(Host.Calls.Named("kill"), IsEmpty());
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), IsEmpty());
}

TEST_F(Config, AFailedRebootKeepsTheRoutes)
{
    FillMessage();
    Host.Failures.Fail("VQ_CmdExec", -5);
    EXPECT_EQ(Configure(), -22);
    const std::vector<std::string> Lines = Errors();
    ASSERT_THAT(Lines, testing::SizeIs(3));
    EXPECT_EQ(Lines[1], kApplySite + "Dnsmasq reboot failed(22:Invalid argument)\n");
    EXPECT_EQ(Lines[2], kEntrySite + "set configuration advanced dns failed(22:Invalid argument)\n");
    EXPECT_THAT(Host.Routes.Of(7, 199), testing::SizeIs(2));
    EXPECT_THAT(Host.Rules.Adds(), IsEmpty());
}

TEST_F(Config, AReloadSendsASignalAndChangesNoRule)
{
    FillMessage();
    RunInstance();
    Message.Pb().operation = VQ_CTRL_DNSMASQ_OP_RELOAD;
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(Host.Calls.Named("kill"), ElementsAre("kill(1234, 1)"));
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), IsEmpty());
    EXPECT_THAT(Host.Calls.Named("VQ_KillPid"), IsEmpty());
    EXPECT_THAT(Host.Rules.Adds(), IsEmpty());
    EXPECT_THAT(Host.Routes.Of(7, 199), testing::SizeIs(2));
}

TEST_F(Config, AFailedReloadIsReturned)
{
    Host.Proc.PutPidFile(7, "1234");
    Message.Pb().operation = VQ_CTRL_DNSMASQ_OP_RELOAD;
    EXPECT_EQ(Configure(), -3);
    EXPECT_THAT(Errors(), ElementsAre("4 VQCtrl_DnsmasqReload: Reload dns service pid 1234 failed(3:No such process)\n",
                                      kApplySite + "Dnsmasq reload failed(3:No such process)\n",
                                      kEntrySite + "set configuration advanced dns failed(3:No such process)\n"));
}

TEST_F(Config, VpnZeroGetsNoRoutes)
{
    FillMessage();
    RunInstance(0);
    Message.Pb().vpnid = 0;
    Message.Pb().operation = VQ_CTRL_DNSMASQ_OP_RELOAD;
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_RTCRouteDel"), IsEmpty());
    EXPECT_THAT(Host.Calls.Named("VQ_RTCRouteAdd"), IsEmpty());
    EXPECT_THAT(Host.Calls.Named("VQ_RtcNetioWanGetAllByVpnId"), IsEmpty());
    EXPECT_THAT(Host.Calls.Named("kill"), ElementsAre("kill(1234, 1)"));
    EXPECT_EQ(File("/etc/kavel/dnsmasq/hosts"), "10.0.0.1 nas.example.com\n");
}

TEST_F(Config, AnUnknownOperationIsRefusedAfterTheRoutes)
{
    FillMessage();
    RunInstance();
    for (const uint32_t Operation : {2U, 4294967295U}) {
        Host.Log.Clear();
        Host.Calls.Clear();
        Message.Pb().operation = Operation;
        EXPECT_EQ(Configure(), -22);
        EXPECT_THAT(Errors(), ElementsAre(kApplySite + "Dnsmasq operation(" + std::to_string(Operation) +
                                              ") failed(22:Invalid argument)\n",
                                          kEntrySite + "set configuration advanced dns failed(22:Invalid argument)\n"));
        EXPECT_THAT(Host.Routes.Of(7, 199), testing::SizeIs(2));
        EXPECT_THAT(Host.Calls.Named("fopen"), IsEmpty());
    }
    EXPECT_TRUE(Host.Proc.IsAlive(1234));
}

TEST_F(Config, ADisabledRecordIsTornDown)
{
    FillMessage();
    EXPECT_EQ(Configure(), 0);
    RunInstance();
    Message = CpeMessage(7, false);
    Host.Calls.Clear();
    Host.Log.Clear();
    EXPECT_EQ(Configure(), 0);
    EXPECT_EQ(Host.Files.Content(Written("hosts")), "");
    EXPECT_EQ(Host.Files.Content(Written("dnsmasq.d/DnsProxy.conf")), "");
    EXPECT_THAT(Host.Routes.Of(7, 199), IsEmpty());
    EXPECT_FALSE(Host.Proc.IsAlive(1234));
    EXPECT_FALSE(Host.Files.Exists(fakehost::Processes::PidFile(7)));
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), IsEmpty());
    EXPECT_THAT(Host.Rules.InForce(), IsEmpty());
    EXPECT_THAT(Errors(), ElementsAre(kRuleGone));
}

TEST_F(Config, ADisabledRecordIgnoresItsOperation)
{
    Message = CpeMessage(7, false, 77);
    SteerToInstance();
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(Errors(), ElementsAre(kRuleGone));
}

TEST_F(Config, TheFilesOfADisabledRecordAreWritten)
{
    FillMessage();
    Message.Pb().enable = 0;
    EXPECT_EQ(Configure(), 0);
    EXPECT_EQ(File(Written("hosts")), "10.0.0.1 nas.example.com\n");
    EXPECT_THAT(Host.Calls.Named("VQ_RTCRouteAdd"), IsEmpty());
}

TEST_F(Config, ADisabledVpnZeroRemovesNoRoutes)
{
    Message = CpeMessage(0, false);
    RunInstance(0);
    SteerToInstance(0);
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_RTCRouteDel"), IsEmpty());
    EXPECT_FALSE(Host.Proc.IsAlive(1234));
}

TEST_F(Config, AFailedStopIsLoggedAndNotReported)
{
    Message = CpeMessage(7, false);
    RunInstance();
    SteerToInstance();
    Host.Failures.Fail("VQ_KillPid", -1);
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(Errors(),
                ElementsAre(kRuleGone, "4 VQCtrl_DnsmasqStop: Kill pid 1234 failed(1:Operation not permitted)\n",
                            kApplySite + "Dnsmasq stop failed\n"));
}

TEST_F(Config, ADisabledRecordReturnsThePositiveResultOfTheLastFile)
{
    Message = CpeMessage(7, false);
    RunInstance();
    SteerToInstance();
    Host.SuccessResults["VQ_WriteSyncWithFilePath"] = 26;
    EXPECT_EQ(Configure(), 26);
    EXPECT_FALSE(Host.Proc.IsAlive(kPid));
    Host.Failures.Fail("VQ_KillPid", -1);
    RunInstance();
    SteerToInstance();
    EXPECT_EQ(Configure(), 26);
}

TEST_F(Config, APositiveResultOfAFileStepDoesNotEndTheSequence)
{
    FillMessage();
    RunInstance();
    Message.Pb().operation = VQ_CTRL_DNSMASQ_OP_RELOAD;
    Host.SuccessResults["VQ_WriteSyncWithFilePath"] = 26;
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(Host.Files.Written(), testing::SizeIs(5));
    EXPECT_THAT(Host.Calls.Named("kill"), testing::SizeIs(1));
}

TEST_F(Config, WithoutPersistenceTheStoreIsNotCalled)
{
    Message.Pb().has_persistentflag = 1;
    Message.Pb().persistentflag = 1;
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_SqliteDnsMasqConfOp"), IsEmpty());
}

TEST_F(Config, PlatformsWithoutAdvancedDnsDoNotChangeTheTable)
{
    VQCtrl_AgentSetApAdvancedDnsOps();
    VQCtrl_AgentSetAdAdvancedDnsOps();
    VQCtrl_AgentSetWinAdvancedDnsOps();
    VQCtrl_AgentSetMacAdvancedDnsOps();
    VQCtrl_AgentSetLinuxAdvancedDnsOps();
    EXPECT_THAT(Host.Calls.Trace(), IsEmpty());
    FillMessage();
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(Host.Files.Written(), testing::SizeIs(5));
}

} // namespace
