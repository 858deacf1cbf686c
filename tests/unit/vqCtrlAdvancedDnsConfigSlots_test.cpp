// A platform leaves the slot of a step empty if it does not have the step. No existing platform does that for the slots
// below, so these tests change the table directly: this file includes the source, and the program links the module
// without it.
#include "vqCtrlAdvancedDnsConfig.cpp" // NOLINT(bugprone-suspicious-include): see above

#include "configTest.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

class EmptySlot : public ConfigTest {
  protected:
    void SetUp() override
    {
        ConfigTest::SetUp();
        Host.Rows.Enabled = true;
        Host.Rows.Conversions = ModuleConversions();
        Host.Rows.Rows[{10, 7}] = "an older text";
        AskForPersistence(true);
    }
};

TEST_F(EmptySlot, ARestartWithoutARuleEndsWithTheRestart)
{
    s_AgentDnsmasqOp.SetDnsmasqRule = nullptr;
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), SizeIs(1));
    EXPECT_THAT(Host.Calls.Named("VQ_RtcRuleConfAdd"), IsEmpty());
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(EmptySlot, ATeardownWithoutARuleStopsTheInstance)
{
    s_AgentDnsmasqOp.DelDnsmasqRule = nullptr;
    RunInstance();
    Message.Pb().enable = 0;
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(World(), Contains("VQ_KillPid(" + std::to_string(kPid) + ')'));
    EXPECT_THAT(Host.Calls.Named("VQ_RtcRuleConfDel"), IsEmpty());
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(EmptySlot, WithoutADeleteARowIsStillReplaced)
{
    s_AgentDnsmasqOp.DelDnsmasqDb = nullptr;
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_SqliteDnsMasqConfOp"), ElementsAre(StartsWith("VQ_SqliteDnsMasqConfOp(7, \"{")));
}

TEST_F(EmptySlot, WithoutAnAddARowIsStillDeleted)
{
    s_AgentDnsmasqOp.AddDnsmasqDb = nullptr;
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_SqliteDnsMasqConfOp"), ElementsAre("VQ_SqliteDnsMasqConfOp(7, null, 2, 10)"));
    EXPECT_THAT(Host.Rows.Rows, IsEmpty());
}

TEST_F(EmptySlot, WithoutARecoveryTheResultIsSuccess)
{
    s_AgentDnsmasqOp.RecoverDnsmasqConf = nullptr;
    EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
    EXPECT_THAT(World(), IsEmpty());
}

} // namespace
