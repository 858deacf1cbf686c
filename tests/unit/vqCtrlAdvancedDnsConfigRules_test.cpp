// The rules that the two platforms install after a restart and remove on teardown.
#include <algorithm>

#include "configTest.h"
#include "vqRule.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr const char *kNoSpace = "(28:No space left on device)\n";
constexpr const char *kNotFound = "(2:No such file or directory)\n";

class CpeRules : public ConfigTest {
  protected:
    [[nodiscard]] std::vector<std::string> RuleCalls() const
    {
        std::vector<std::string> Out = World();
        std::erase_if(Out, [](const std::string &Call) { return !Call.starts_with("VQ_RtcRuleConf"); });
        return Out;
    }
};

TEST_F(CpeRules, ARestartInstallsTheRuleOfTheVpnLast)
{
    Host.Rules.CustomerOfVpn[7] = 77;
    FillMessage();
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(RuleCalls(), ElementsAre("VQ_RtcRuleConfAdd(0, 9, 77, 768, 0, 1)"));
    EXPECT_EQ(Host.Rules.Adds()[0].Rule.VpnId, 7U);
    const std::vector<std::string> Calls = World();
    const auto At = [&](const std::string &Start) {
        return std::find_if(Calls.begin(), Calls.end(), [&](const auto &Each) { return Each.starts_with(Start); });
    };
    EXPECT_LT(At("VQ_CmdExec"), At("VQ_RtcRuleConfAdd"));
    EXPECT_LT(At("VQ_RtcRuleConfAdd"), At("VQ_IsPersistentConfEnable"));
    EXPECT_EQ(Logs().back(), "1 VQCtrl_ConfigAddDnsmasqPolicy: Add Policy for Dnsmasq success\n");
}

TEST_F(CpeRules, VpnZeroHasARule)
{
    Message = CpeMessage(0);
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(RuleCalls(), ElementsAre("VQ_RtcRuleConfAdd(0, 2, 1, 768, 0, 1)"));
}

TEST_F(CpeRules, AFailedRuleIsReturnedAndTheInstanceKeepsRunning)
{
    Host.Rows.Enabled = true;
    Host.Failures.Fail("VQ_RtcRuleConfAdd", -28);
    EXPECT_EQ(Configure(), -28);
    const std::string Reason = kNoSpace;
    EXPECT_THAT(Errors(),
                ElementsAre("4 VQCtrl_ConfigAddDnsmasqPolicy: Add Policy for Dnsmasq error" + Reason,
                            "4 _VQCtrl_SetCPEAdvancedDnsRule: Set advanced dns default policy failed" + Reason,
                            kApplySite + "Add Dnsmasq default policy failed" + Reason,
                            kEntrySite + "set configuration advanced dns failed" + Reason));
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), SizeIs(1));
    EXPECT_THAT(Host.Calls.Named("VQ_SqliteDnsMasqConfOp"), IsEmpty());
}

TEST_F(CpeRules, AFailedRestartInstallsNoRule)
{
    Host.Failures.Fail("VQ_CmdExec", -5);
    EXPECT_EQ(Configure(), -22);
    EXPECT_THAT(RuleCalls(), IsEmpty());
}

TEST_F(CpeRules, APositiveResultIsReturned)
{
    Host.SuccessResults["VQ_RtcRuleConfAdd"] = 6;
    EXPECT_EQ(Configure(), 6);
}

TEST_F(CpeRules, ATeardownRemovesTheRuleBetweenRoutesAndInstance)
{
    Host.Rules.CustomerOfVpn[7] = 77;
    EXPECT_EQ(Configure(), 0);
    RunInstance();
    Message = CpeMessage(7, false);
    Host.Calls.Clear();
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(RuleCalls(), ElementsAre("VQ_RtcRuleConfDel(0, 9, 77, 770, 1)"));
    const std::vector<std::string> Calls = World();
    const auto At = [&](const std::string &Start) {
        return std::find_if(Calls.begin(), Calls.end(), [&](const auto &Each) { return Each.starts_with(Start); });
    };
    EXPECT_LT(At("VQ_RTCRouteDel"), At("VQ_RtcRuleConfDel"));
    EXPECT_LT(At("VQ_RtcRuleConfDel"), At("VQ_KillPid"));
}

TEST_F(CpeRules, AFailedRemovalLeavesTheInstanceRunningAndIsNotReported)
{
    Message = CpeMessage(7, false);
    RunInstance();
    EXPECT_EQ(Configure(), 0);
    const std::string Reason = kNotFound;
    EXPECT_THAT(Errors(),
                ElementsAre("4 VQCtrl_ConfigDelDnsmasqPolicy: Del Policy for Dnsmasq error" + Reason,
                            "4 _VQCtrl_DelCPEAdvancedDnsRule: Delete advanced dns default policy failed" + Reason,
                            kApplySite + "Delete Dnsmasq default policy failed\n"));
    EXPECT_TRUE(Host.Proc.IsAlive(kPid));
    EXPECT_TRUE(Host.Files.Exists(fakehost::Processes::PidFile(7)));
    EXPECT_THAT(Host.Calls.Named("fopen"), IsEmpty());
}

TEST_F(CpeRules, AFailedRemovalReturnsThePositiveResultOfTheFiles)
{
    Message = CpeMessage(7, false);
    Host.SuccessResults["VQ_WriteSyncWithFilePath"] = 26;
    EXPECT_EQ(Configure(), 26);
}

TEST_F(CpeRules, TheDnatRuleIsNeverChanged)
{
    FillMessage();
    EXPECT_EQ(Configure(), 0);
    Message = CpeMessage(7, false);
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(RuleCalls(), ElementsAre(testing::HasSubstr(", 768, "), testing::HasSubstr(", 770, ")));
}

class PopRules : public PopConfigTest {
  protected:
    // The calls except those for files, processes and log lines.
    [[nodiscard]] std::vector<std::string> RuleCalls() const
    {
        std::vector<std::string> Out = World();
        std::erase_if(Out, [](const std::string &Call) {
            return !Call.starts_with("VQ_RtcRule") && !Call.starts_with("VQ_GetCustomer");
        });
        return Out;
    }
};

TEST_F(PopRules, AMessageWritesTheResolverFileAndRestartsTheInstanceOfTheBox)
{
    EXPECT_EQ(Enable(), 0);
    EXPECT_THAT(Host.Files.Written(), ElementsAre("/etc/kavel/dnsmasq/resolv.conf"));
    EXPECT_EQ(File("/etc/kavel/dnsmasq/resolv.conf"), "nameserver 10.1.1.1\nnameserver 10.1.1.2\n");
    EXPECT_THAT(Host.Calls.Named("VQ_KillPid"), ElementsAre("VQ_KillPid(1234)"));
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"),
                ElementsAre("VQ_CmdExec(\"/usr/sbin/dnsmasq -C /etc/kavel/dnsmasq/dnsmasq.conf --dns-forward-max=1000 "
                            "--no-hosts --pid-file=/var/run/kvl_dns_vpn_0.pid -k &\")"));
    EXPECT_THAT(Host.Calls.Named("VQ_RTCRouteDel"), IsEmpty());
    EXPECT_THAT(Host.Calls.Named("VQ_RtcNetioWanGetAllByVpnId"), IsEmpty());
}

TEST_F(PopRules, ThePolicyOfVpn0ComesBeforeTheDnat)
{
    EXPECT_EQ(Enable(), 0);
    EXPECT_THAT(RuleCalls(), ElementsAre("VQ_GetCustomerIdByVpnId(0)", "VQ_RtcRuleConfAdd(0, 2, 1, 768, 0, 1)",
                                         "VQ_RtcRuleConfAdd(0, 3, 0, 512, 0, 1)"));
    ASSERT_THAT(Host.Rules.Adds(), SizeIs(2));
    EXPECT_EQ(Host.Rules.Adds()[0].Rule.VpnId, 0U);
    EXPECT_EQ(Host.Rules.Adds()[1].Rule.Actions.NatInfo.Ip[0], kLocalIp);
    EXPECT_THAT(Errors(), ElementsAre("4 VQCtrl_ConfigAddDnsmasqDnat: Add dnat for Dnsmasq success\n"));
}

// A stored record of a POP may have any VPN id. Its rules are still those of VPN 0.
TEST_F(PopRules, TheVpnOfTheRecordIsIgnored)
{
    Host.Rows.Conversions.DnsmasqStrToConf = VQCtrl_AdvancedDnsJsonStrToConf;
    Host.Rows.Rows[{14, 7}] = R"({"Enable": true, "VpnId": 7, "Op": 1, "LocalIp": "10.9.8.7"})";
    EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
    EXPECT_THAT(RuleCalls(), ElementsAre("VQ_GetCustomerIdByVpnId(0)", "VQ_RtcRuleConfAdd(0, 2, 1, 768, 0, 1)",
                                         "VQ_RtcRuleConfAdd(0, 3, 0, 512, 0, 1)"));
    EXPECT_EQ(Host.Rules.Adds()[0].Rule.VpnId, 0U);
    Host.Calls.Clear();
    Host.Rows.Rows[{14, 7}] = R"({"Enable": false, "VpnId": 7, "Op": 1})";
    EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
    EXPECT_THAT(RuleCalls(), ElementsAre("VQ_GetCustomerIdByVpnId(0)", "VQ_RtcRuleConfDel(0, 2, 1, 770, 1)",
                                         "VQ_RtcRuleConfDel(0, 3, 0, 514, 1)"));
}

TEST_F(PopRules, AFailedPolicyInstallsNoDnat)
{
    Host.Failures.Fail("VQ_RtcRuleConfAdd", -28, 1);
    EXPECT_EQ(Enable(), -28);
    EXPECT_THAT(Host.Rules.InForce(), IsEmpty());
    EXPECT_THAT(Host.Calls.Named("VQ_RtcRuleConfAdd"), SizeIs(1));
    const std::string Reason = kNoSpace;
    EXPECT_THAT(Errors(),
                ElementsAre("4 VQCtrl_ConfigAddDnsmasqPolicy: Add Policy for Dnsmasq error" + Reason,
                            "4 _VQCtrl_SetPOPAdvancedDnsRule: Set advanced dns default policy failed" + Reason,
                            kApplySite + "Add Dnsmasq default policy failed" + Reason,
                            kEntrySite + "set configuration advanced dns failed" + Reason));
}

TEST_F(PopRules, AFailedDnatKeepsThePolicy)
{
    Host.Failures.Fail("VQ_RtcRuleConfAdd", -28, 2);
    EXPECT_EQ(Enable(), -28);
    EXPECT_THAT(Host.Rules.InForce(), SizeIs(1));
    const std::string Reason = kNoSpace;
    EXPECT_THAT(Errors(), ElementsAre("4 VQCtrl_ConfigAddDnsmasqDnat: Add dnat for Dnsmasq error" + Reason,
                                      "4 _VQCtrl_SetPOPAdvancedDnsRule: Set advanced dns default dnat failed" + Reason,
                                      kApplySite + "Add Dnsmasq default policy failed" + Reason,
                                      kEntrySite + "set configuration advanced dns failed" + Reason));
}

TEST_F(PopRules, APositiveResultOfTheDnatIsReturned)
{
    Host.SuccessResults["VQ_RtcRuleConfAdd"] = 6;
    EXPECT_EQ(Enable(), 6);
    EXPECT_THAT(Host.Rules.InForce(), SizeIs(2));
}

TEST_F(PopRules, ATeardownRemovesBothRulesAndStopsTheInstance)
{
    EXPECT_EQ(Enable(), 0);
    RunInstance(0);
    Host.Calls.Clear();
    Host.Log.Clear();
    EXPECT_EQ(Disable(), 0);
    EXPECT_THAT(RuleCalls(), ElementsAre("VQ_GetCustomerIdByVpnId(0)", "VQ_RtcRuleConfDel(0, 2, 1, 770, 1)",
                                         "VQ_RtcRuleConfDel(0, 3, 0, 514, 1)"));
    EXPECT_THAT(Errors(), ElementsAre("4 VQCtrl_ConfigDelDnsmasqPolicy: Del Policy for Dnsmasq success\n",
                                      "4 VQCtrl_ConfigDelDnsmasqDnat: Del Policy for Dnsmasq success\n"));
    EXPECT_FALSE(Host.Proc.IsAlive(kPid));
    EXPECT_THAT(Host.Rules.InForce(), IsEmpty());
    EXPECT_EQ(Host.Files.Content("/etc/kavel/dnsmasq/resolv.conf"), "");
}

TEST_F(PopRules, AFailedPolicyRemovalKeepsDnatAndInstance)
{
    EXPECT_EQ(Enable(), 0);
    RunInstance(0);
    Host.Log.Clear();
    Host.Failures.Fail("VQ_RtcRuleConfDel", -28, 1);
    EXPECT_EQ(Disable(), 0);
    const std::string Reason = kNoSpace;
    EXPECT_THAT(Errors(),
                ElementsAre("4 VQCtrl_ConfigDelDnsmasqPolicy: Del Policy for Dnsmasq error" + Reason,
                            "4 _VQCtrl_DelPOPAdvancedDnsRule: Delete advanced dns default policy failed" + Reason,
                            kApplySite + "Delete Dnsmasq default policy failed\n"));
    EXPECT_THAT(Host.Rules.InForce(), SizeIs(2));
    EXPECT_TRUE(Host.Proc.IsAlive(kPid));
}

TEST_F(PopRules, AFailedDnatRemovalKeepsTheInstance)
{
    EXPECT_EQ(Enable(), 0);
    RunInstance(0);
    Host.Log.Clear();
    Host.Failures.Fail("VQ_RtcRuleConfDel", -28, 2);
    EXPECT_EQ(Disable(), 0);
    const std::string Reason = kNoSpace;
    EXPECT_THAT(Errors(),
                ElementsAre("4 VQCtrl_ConfigDelDnsmasqPolicy: Del Policy for Dnsmasq success\n",
                            "4 VQCtrl_ConfigDelDnsmasqDnat: Del Policy for Dnsmasq error" + Reason,
                            "4 _VQCtrl_DelPOPAdvancedDnsRule: Delete advanced dns default dnat failed" + Reason,
                            kApplySite + "Delete Dnsmasq default policy failed\n"));
    EXPECT_THAT(Host.Rules.InForce(), SizeIs(1));
    EXPECT_TRUE(Host.Proc.IsAlive(kPid));
}

TEST_F(PopRules, ARefusedMessageChangesNothing)
{
    PopMessage Pop(std::vector<uint32_t>(256, 1), kLocalIp);
    EXPECT_EQ(Configure(Pop), -75);
    EXPECT_THAT(Logs(), ElementsAre("4 VQCtrl_PbToAdvancedDnsConfPlatformPOP: pop dnsmasq dns is overflow\n",
                                    kEntrySite + "protobuf to data struct for advanced dns failed(75:Value too large "
                                                 "for defined data type)\n"));
    EXPECT_THAT(World(), IsEmpty());
}

TEST_F(PopRules, ACpeTableReplacesTheWholePopTable)
{
    VQCtrl_AgentSetCPEAdvancedDnsOps();
    FillMessage();
    EXPECT_EQ(ConfigTest::Configure(), 0);
    EXPECT_THAT(Host.Files.Written(), SizeIs(5));
    EXPECT_THAT(Host.Rules.Adds(), SizeIs(1));
    VQCtrl_AgentSetPOPAdvancedDnsOps();
    EXPECT_EQ(Enable(), 0);
    EXPECT_THAT(Host.Files.Written(), SizeIs(6));
    EXPECT_THAT(Host.Rules.Adds(), SizeIs(3));
}

} // namespace
