// The module before any platform is chosen. These tests are a separate program, because an installed table cannot be
// emptied again.
#include "cpeMessage.h"
#include "moduleTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *kIgnored = "1 VQCtrl_ConfigAdvancedDns: No PbToConfDnsmasq call back function, no need to deal "
                                 "with advanced dns msg!\n";

class WithoutPlatform : public ModuleTest {
  protected:
    static VQ_ERR_T Configure()
    {
        // A bad message, which the module must not read.
        CpeMessage Message(7);
        Message.AddNullHost();
        const VQ_CTRL_DNSMASQ_CONFIG_PB Carrier = Message.Carrier();
        return VQCtrl_ConfigAdvancedDns(&Carrier);
    }
};

TEST_F(WithoutPlatform, AMessageIsIgnored)
{
    Host.Rows.Enabled = true;
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(Logs(), ElementsAre(kIgnored));
    EXPECT_THAT(Host.Calls.Of(fakehost::EntryKind::Memory),
                ElementsAre("VQ_AgentMemAlloc(17834172)", "VQ_AgentMemFree()"));
    EXPECT_THAT(World(), IsEmpty());
}

TEST_F(WithoutPlatform, NoMemoryIsReportedBeforeThePlatformIsChecked)
{
    Host.Failures.Fail("VQ_AgentMemAlloc", -12);
    EXPECT_EQ(Configure(), -12);
    EXPECT_THAT(Logs(), ElementsAre("4 VQCtrl_ConfigAdvancedDns: No mem for advanced dns config\n"));
}

TEST_F(WithoutPlatform, ThereIsNothingToRecover)
{
    EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
    EXPECT_THAT(Host.Calls.Trace(), IsEmpty());
}

struct Platform {
    const char *Name;
    void (*Install)(void);
};

class PlatformWithoutDns : public WithoutPlatform, public testing::WithParamInterface<Platform> {};

TEST_P(PlatformWithoutDns, InstallsNothing)
{
    GetParam().Install();
    EXPECT_THAT(Host.Calls.Trace(), IsEmpty());
    EXPECT_EQ(Configure(), 0);
    EXPECT_THAT(Logs(), ElementsAre(kIgnored));
    EXPECT_EQ(VQCtrl_AgentRecoverAdvancedDnsConf(), 0);
}

INSTANTIATE_TEST_SUITE_P(Platforms, PlatformWithoutDns,
                         testing::Values(Platform{"Ap", VQCtrl_AgentSetApAdvancedDnsOps},
                                         Platform{"Ad", VQCtrl_AgentSetAdAdvancedDnsOps},
                                         Platform{"Win", VQCtrl_AgentSetWinAdvancedDnsOps},
                                         Platform{"Mac", VQCtrl_AgentSetMacAdvancedDnsOps},
                                         Platform{"Linux", VQCtrl_AgentSetLinuxAdvancedDnsOps}),
                         [](const auto &Info) { return std::string(Info.param.Name); });

} // namespace
