// The rows that the message entry stores and deletes.
#include <algorithm>

#include "configTest.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr const char *kDeleteCall = "VQ_SqliteDnsMasqConfOp(7, null, 2, 10)";
constexpr const char *kAddCall = "VQ_SqliteDnsMasqConfOp(7, \"{";

class ConfigStore : public ConfigTest {
  protected:
    void SetUp() override
    {
        ConfigTest::SetUp();
        Host.Rows.Enabled = true;
        Host.Rows.Conversions = ModuleConversions();
    }

    [[nodiscard]] std::vector<std::string> StoreCalls() const { return Host.Calls.Named("VQ_SqliteDnsMasqConfOp"); }
};

TEST_F(ConfigStore, AMessageWithTheFlagReplacesItsRow)
{
    Host.Rows.Rows[{10, 7}] = "an older text";
    FillMessage();
    AskForPersistence(true);
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(StoreCalls(), ElementsAre(kDeleteCall, AllOf(StartsWith(kAddCall), testing::EndsWith(", 1, 10)"))));
    EXPECT_THAT(Host.Rows.Rows[(fakehost::Store::Key{10, 7})], HasSubstr("\"Domain\": \"nas.example.com\""));
    EXPECT_THAT(Host.Rows.Rows, SizeIs(1));
    EXPECT_EQ(Host.Memory.BlocksInUse(), 0U);
}

TEST_F(ConfigStore, TheStoreFollowsTheWholeApplySequence)
{
    AskForPersistence(true);
    EXPECT_EQ(Configure(), 0);
    const std::vector<std::string> Calls = World();
    const auto At = [&](const std::string &Start) {
        return std::find_if(Calls.begin(), Calls.end(), [&](const auto &Each) { return Each.starts_with(Start); });
    };
    EXPECT_LT(At("VQ_RtcRuleConfAdd"), At(kDeleteCall));
    EXPECT_LT(At(kDeleteCall), At(kAddCall));
    EXPECT_NE(At(kAddCall), Calls.end());
}

TEST_F(ConfigStore, AMessageWithoutTheFlagDeletesItsRow)
{
    for (const bool Present : {false, true}) {
        Host.Calls.Clear();
        Host.Rows.Rows[{10, 7}] = "an older text";
        Host.Rows.Rows[{10, 8}] = "another VPN's";
        AskForPersistence(false);
        Message.Pb().has_persistentflag = Present ? 1 : 0;
        EXPECT_EQ(Configure(), 0);
        EXPECT_THAT(StoreCalls(), ElementsAre(kDeleteCall));
        EXPECT_FALSE(Host.Rows.Rows.contains({10, 7}));
        EXPECT_TRUE(Host.Rows.Rows.contains({10, 8}));
        EXPECT_THAT(Errors(), IsEmpty());
    }
}

TEST_F(ConfigStore, WithoutPersistenceNothingIsDeletedOrAdded)
{
    Host.Rows.Enabled = false;
    Host.Rows.Rows[{10, 7}] = "an older text";
    AskForPersistence(true);
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(StoreCalls(), IsEmpty());
    EXPECT_THAT(Host.Calls.Named("VQ_GetDbDataTransOp"), IsEmpty());
}

TEST_F(ConfigStore, ADisabledRecordIsStoredToo)
{
    Message = CpeMessage(7, false, VQ_CTRL_DNSMASQ_OP_RELOAD);
    AskForPersistence(true);
    SteerToInstance();
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(Host.Rows.Rows[(fakehost::Store::Key{10, 7})],
                AllOf(HasSubstr("\"Enable\": false"), HasSubstr("\"Op\": 1")));
}

TEST_F(ConfigStore, AFailedDeleteIsIgnoredAndTheRecordIsStored)
{
    Host.Failures.Fail("VQ_SqliteDnsMasqConfOp", -28, 1);
    AskForPersistence(true);
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(Errors(), IsEmpty());
    EXPECT_TRUE(Host.Rows.Rows.contains({10, 7}));
}

TEST_F(ConfigStore, AFailedAddIsReturnedAndTheConfigurationStaysApplied)
{
    Host.Rows.Rows[{10, 7}] = "an older text";
    Host.Failures.Fail("VQ_SqliteDnsMasqConfOp", -28, 2);
    AskForPersistence(true);
    EXPECT_EQ(Configure(), -28);
    EXPECT_THAT(Errors(), ElementsAre(kEntrySite + "Add advanced dns db failed(28:No space left on device)\n"));
    EXPECT_THAT(Host.Rows.Rows, IsEmpty());
    EXPECT_THAT(Host.Rules.InForce(), SizeIs(1));
    EXPECT_THAT(Host.Files.Written(), SizeIs(5));
}

TEST_F(ConfigStore, ARecordWithoutATextIsNotStored)
{
    Host.Failures.Fail("json_object_new_array", -12, 2);
    AskForPersistence(true);
    EXPECT_EQ(Configure(), -12);
    EXPECT_THAT(StoreCalls(), ElementsAre(kDeleteCall));
    EXPECT_THAT(Errors(),
                ElementsAre("4 _VQCtrl_AdvancedDnsConfToJson: Can't new dnsmasq DnsMxHost json object\n",
                            "4 VQCtrl_AdvancedDnsConfToJsonStr: Agent dnsmasq conf to json failed(12:Cannot allocate "
                            "memory)\n",
                            kEntrySite + "Add advanced dns db failed(12:Cannot allocate memory)\n"));
}

TEST_F(ConfigStore, AHostWithoutAConversionStoresNothing)
{
    Host.Rows.Conversions = {};
    AskForPersistence(true);
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(StoreCalls(), ElementsAre(kDeleteCall));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(ConfigStore, AFailedApplyDoesNotChangeTheStore)
{
    Host.Rows.Rows[{10, 7}] = "an older text";
    AskForPersistence(true);
    Message.Pb().operation = VQ_CTRL_DNSMASQ_OP_MAX;
    EXPECT_EQ(Configure(), -22);
    EXPECT_THAT(StoreCalls(), IsEmpty());
    EXPECT_THAT(Host.Calls.Named("VQ_GetDbDataTransOp"), IsEmpty());
}

// A teardown that could not remove the rule counts as applied.
TEST_F(ConfigStore, ARecordWithAnUnreportedFailureIsStored)
{
    Message = CpeMessage(7, false);
    AskForPersistence(true);
    EXPECT_EQ(Configure(), 0);
    EXPECT_TRUE(Host.Rows.Rows.contains({10, 7}));
    EXPECT_EQ(Errors().back(), kApplySite + "Delete Dnsmasq default policy failed\n");
}

TEST_F(ConfigStore, APositiveResultOfTheAddIsReturned)
{
    Host.SuccessResults["VQ_SqliteDnsMasqConfOp"] = 4;
    AskForPersistence(true);
    EXPECT_EQ(Configure(), 4);
}

TEST_F(ConfigStore, TheResultOfTheDeleteIsIgnored)
{
    Host.SuccessResults["VQ_SqliteDnsMasqConfOp"] = 4;
    Host.SuccessResults["VQ_RtcRuleConfAdd"] = 6;
    EXPECT_EQ(Configure(), 6);
}

TEST_F(ConfigStore, TheRowKeyIsTheWholeVpnId)
{
    Host.Files.PutInstance(4294967295);
    Message = CpeMessage(4294967295);
    AskForPersistence(true);
    EXPECT_EQ(Configure(), 0);
    EXPECT_TRUE(Host.Rows.Rows.contains({10, 4294967295}));
    EXPECT_THAT(Host.Rows.Rows[(fakehost::Store::Key{10, 4294967295})], HasSubstr("\"VpnId\": -1"));
}

class PopConfigStore : public PopConfigTest {
  protected:
    void SetUp() override
    {
        PopConfigTest::SetUp();
        Host.Rows.Enabled = true;
        Host.Rows.Conversions = ModuleConversions();
    }
};

TEST_F(PopConfigStore, AMessageWithTheFlagIsStoredAsTheRowOfVpn0)
{
    PopMessage Pop({Ip(10, 1, 1, 1)}, kLocalIp);
    Pop.AskForPersistence(true);
    EXPECT_EQ(Configure(Pop), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_SqliteDnsMasqConfOp"),
                ElementsAre("VQ_SqliteDnsMasqConfOp(0, null, 2, 14)",
                            AllOf(StartsWith("VQ_SqliteDnsMasqConfOp(0, \"{"), testing::EndsWith(", 1, 14)"))));
    EXPECT_THAT(Host.Rows.Rows[(fakehost::Store::Key{14, 0})],
                AllOf(HasSubstr("\"DnsServerIp\": \"10.1.1.1\""), HasSubstr("\"LocalIp\": \"10.9.8.7\"")));
}

TEST_F(PopConfigStore, AMessageWithoutTheFlagDeletesTheRow)
{
    Host.Rows.Rows = {{{14, 0}, "an older text"}, {{10, 0}, "a CPE's"}};
    EXPECT_EQ(Enable(), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_SqliteDnsMasqConfOp"), ElementsAre("VQ_SqliteDnsMasqConfOp(0, null, 2, 14)"));
    EXPECT_THAT(Host.Rows.Rows, SizeIs(1));
}

TEST_F(PopConfigStore, AFailedAddIsReturned)
{
    Host.Failures.Fail("VQ_SqliteDnsMasqConfOp", -28, 2);
    PopMessage Pop({}, kLocalIp);
    Pop.AskForPersistence(true);
    EXPECT_EQ(Configure(Pop), -28);
    EXPECT_EQ(Errors().back(), kEntrySite + "Add advanced dns db failed(28:No space left on device)\n");
}

// Both tables use the same text form.
TEST_F(PopConfigStore, ARowIsReadBackAsTheAppliedRecord)
{
    PopMessage Pop({Ip(10, 1, 1, 1), Ip(10, 1, 1, 2)}, kLocalIp);
    Pop.AskForPersistence(true);
    EXPECT_EQ(Configure(Pop), 0);
    Host.Files.Put("/etc/kavel/dnsmasq/resolv.conf", "spoilt");
    Host.Calls.Clear();
    EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
    EXPECT_EQ(File("/etc/kavel/dnsmasq/resolv.conf"), "nameserver 10.1.1.1\nnameserver 10.1.1.2\n");
    EXPECT_EQ(Host.Rules.Adds().back().Rule.Actions.NatInfo.Ip[0], kLocalIp);
    EXPECT_THAT(Host.Calls.Named("VQ_SqliteDnsMasqConfOp"), IsEmpty());
}

} // namespace
