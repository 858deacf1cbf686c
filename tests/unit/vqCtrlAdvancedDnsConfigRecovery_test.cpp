// The recovery of stored records.
#include "configTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char *kNothing = "1 _VQCtrl_RecoverAdvancedDnsConf: Dnsmasq table is empty\n";
constexpr const char *kFailed = "4 _VQCtrl_RecoverAdvancedDnsConf: Set advanced dns configuration failed\n";

class Recovery : public ConfigTest {
  protected:
    void SetUp() override
    {
        ConfigTest::SetUp();
        Host.Rows.Conversions = ModuleConversions();
        Host.Log.LevelEnabled[2] = false;
    }

    void PutRow(uint32_t VpnId, bool Enable = true, uint32_t Operation = VQ_CTRL_DNSMASQ_OP_REBOOT)
    {
        Host.Files.PutInstance(VpnId);
        const std::string Id = std::to_string(VpnId);
        Host.Rows.Rows[{10, VpnId}] = R"({"Enable": )" + std::string(Enable ? "true" : "false") + R"(, "VpnId": )" +
                                      Id + R"(, "Op": )" + std::to_string(Operation) +
                                      R"(, "DnsHostNum": 1, "DnsHost": [{"Ip": "10.0.0.)" + Id +
                                      R"(", "Domain": "nas.example.com"}]})";
    }

    [[nodiscard]] std::string HostsOf(uint32_t VpnId) const
    {
        return File("/etc/kavel/dnsmasq/vpn_" + std::to_string(VpnId) + "/hosts");
    }

    [[nodiscard]] std::size_t Releases() const { return Host.Calls.Named("VQ_SqliteConfListRelease").size(); }
};

TEST_F(Recovery, OfANullListIsASuccess)
{
    Host.Failures.Fail("VQ_SqliteGetDnsMasqConf", -5);
    EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
    EXPECT_THAT(Logs(), ElementsAre(kNothing));
    EXPECT_THAT(World(), ElementsAre("VQ_SqliteGetDnsMasqConf(10)"));
}

TEST_F(Recovery, OfAnEmptyListReleasesIt)
{
    EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
    EXPECT_THAT(Logs(), ElementsAre(kNothing));
    EXPECT_THAT(World(), ElementsAre("VQ_SqliteGetDnsMasqConf(10)", "VQ_SqliteConfListRelease()"));
}

TEST_F(Recovery, AListWithCountZeroIsNotRead)
{
    PutRow(1);
    Host.Rows.Count = 0;
    EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
    EXPECT_THAT(Logs(), ElementsAre(kNothing));
    EXPECT_THAT(Host.Files.Written(), IsEmpty());
    EXPECT_EQ(Releases(), 1U);
}

TEST_F(Recovery, AListIsReadToItsEndWhateverItsCount)
{
    PutRow(1);
    PutRow(2);
    PutRow(3);
    for (const int32_t Count : {1, 99, -1}) {
        Host.Rows.Count = Count;
        Host.Calls.Clear();
        EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
        EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), SizeIs(3));
    }
}

TEST_F(Recovery, EveryRecordIsAppliedInTheHostsOrder)
{
    PutRow(1);
    PutRow(2);
    PutRow(3);
    EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_RtcRuleConfAdd"),
                ElementsAre("VQ_RtcRuleConfAdd(0, 3, 1, 768, 0, 1)", "VQ_RtcRuleConfAdd(0, 4, 1, 768, 0, 1)",
                            "VQ_RtcRuleConfAdd(0, 5, 1, 768, 0, 1)"));
    EXPECT_EQ(HostsOf(1), "10.0.0.1 nas.example.com\n");
    EXPECT_EQ(HostsOf(3), "10.0.0.3 nas.example.com\n");
    EXPECT_THAT(Errors(), IsEmpty());
    EXPECT_EQ(Releases(), 1U);
}

TEST_F(Recovery, AFailedRecordIsLoggedOnceAndSkipped)
{
    PutRow(1);
    PutRow(2);
    PutRow(3);
    Host.Files.DropDirectory("/etc/kavel/dnsmasq/vpn_2");
    EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
    EXPECT_THAT(Errors(),
                ElementsAre("4 VQCtrl_SetDnsHostConf: Write to dnsmasq host failed(2:No such file or directory)\n",
                            kApplySite + "set dns host conf failed(2:No such file or directory)\n", kFailed));
    EXPECT_EQ(HostsOf(1), "10.0.0.1 nas.example.com\n");
    EXPECT_EQ(HostsOf(3), "10.0.0.3 nas.example.com\n");
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), SizeIs(2));
    EXPECT_EQ(Releases(), 1U);
}

TEST_F(Recovery, TheResultIsSuccessEvenIfAllRecordsFail)
{
    PutRow(1);
    PutRow(2);
    Host.Failures.Fail("VQ_WriteSyncWithFilePath", -28);
    EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
    EXPECT_THAT(Errors(), SizeIs(6));
    EXPECT_EQ(Releases(), 1U);
}

TEST_F(Recovery, ADisabledRecordIsTornDown)
{
    PutRow(7, false);
    RunInstance();
    SteerToInstance();
    EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
    EXPECT_FALSE(Host.Proc.IsAlive(kPid));
    EXPECT_THAT(Host.Rules.InForce(), IsEmpty());
    EXPECT_THAT(Host.Calls.Named("VQ_RTCRouteDel"), SizeIs(1));
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), IsEmpty());
}

TEST_F(Recovery, ARecordIsAppliedAsItIsStored)
{
    PutRow(7, true, VQ_CTRL_DNSMASQ_OP_RELOAD);
    RunInstance();
    EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
    EXPECT_THAT(Host.Calls.Named("kill"), ElementsAre("kill(1234, 1)"));
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), IsEmpty());

    PutRow(7, true, 5);
    EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
    EXPECT_THAT(Errors(), ElementsAre(kApplySite + "Dnsmasq operation(5) failed(22:Invalid argument)\n", kFailed));
}

TEST_F(Recovery, NothingIsStoredOrDeletedWithOrWithoutPersistence)
{
    PutRow(1);
    for (const bool Enabled : {false, true}) {
        Host.Rows.Enabled = Enabled;
        Host.Calls.Clear();
        EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
        EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), SizeIs(1));
        EXPECT_THAT(Host.Calls.Named("VQ_SqliteDnsMasqConfOp"), IsEmpty());
        EXPECT_THAT(Host.Calls.Named("VQ_GetDbDataTransOp"), IsEmpty());
        EXPECT_THAT(Host.Calls.Named("VQ_IsPersistentConfEnable"), IsEmpty());
    }
    EXPECT_THAT(Host.Rows.Rows, SizeIs(1));
}

TEST_F(Recovery, EachPlatformReadsItsOwnTable)
{
    PutRow(1);
    Host.Rows.Rows[{14, 0}] = R"({"Enable": true, "VpnId": 0, "Op": 1, "LocalIp": "10.9.8.7"})";
    VQCtrl_AgentSetPOPAdvancedDnsOps();
    EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_SqliteGetDnsMasqConf"), ElementsAre("VQ_SqliteGetDnsMasqConf(14)"));
    EXPECT_THAT(Host.Files.Written(), ElementsAre("/etc/kavel/dnsmasq/resolv.conf"));
    EXPECT_THAT(Host.Rules.InForce(), SizeIs(2));
}

TEST_F(Recovery, PlatformsWithoutAdvancedDnsDoNotChangeTheTable)
{
    PutRow(1);
    VQCtrl_AgentSetLinuxAdvancedDnsOps();
    EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), SizeIs(1));
}

} // namespace
