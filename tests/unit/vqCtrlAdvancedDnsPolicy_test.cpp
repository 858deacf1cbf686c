// The four rule builders: every byte of the record, the arguments for the host, results and log lines.
#include <cstring>

#include "moduleTest.h"
#include "vqRule.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t kPlatformCustomer = 41;

class Policy : public ModuleTest {
  protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        Host.Rules.PlatformCustomer = kPlatformCustomer;
    }

    // The one rule that was added.
    [[nodiscard]] const VQ_CONF_RULE &Rule() const { return Host.Rules.Adds().back().Rule; }

    [[nodiscard]] std::vector<std::string> FlexSteps() const
    {
        std::vector<std::string> Out = Host.Log.Steps();
        std::erase_if(Out, [](const std::string &Step) { return !Step.starts_with("VQ_FlexLog"); });
        return Out;
    }
};

// The common fields of both rules, in a record whose other bytes are zero.
void StartRule(VQ_CONF_RULE &Rule, uint8_t Table, uint32_t Id)
{
    std::memset(&Rule, 0, sizeof(Rule));
    Rule.Table = Table;
    Rule.Id = Id;
    Rule.PreId = 1;
}

void FillDnat(VQ_CONF_RULE &Rule, uint32_t Target)
{
    StartRule(Rule, 2, 3);
    Rule.Match.DstPortNum = 1;
    Rule.Match.DstPort[0].LowerPort = 53;
    Rule.Match.DstPort[0].UpperPort = 53;
    Rule.Match.ProtoNum = 1;
    Rule.Match.Proto[0] = 17;
    Rule.Match.InPortNum = 1;
    Rule.Match.InPort[0].Type = 4;
    Rule.Actions.DnatFlag = 1;
    Rule.Actions.NatInfo.Ip[0] = Target;
    Rule.Actions.NatInfo.IpNum = 1;
}

void FillPolicy(VQ_CONF_RULE &Rule, uint32_t VpnId, uint32_t Id, uint32_t Customer)
{
    StartRule(Rule, 3, Id);
    Rule.VpnId = VpnId;
    Rule.CustomerId = Customer;
    Rule.Match.OutPortNum = 1;
    Rule.Match.OutPort[0].Type = 6;
    Rule.Actions.OutputNum = 1;
    Rule.Actions.OutputArray[0].Type = 6;
    Rule.Actions.OutputArray[0].Priority = 1;
}

TEST_F(Policy, TheDnatRuleHasNoOtherFields)
{
    for (const uint32_t Target : {Ip(10, 9, 8, 7), 0U, 0xffffffffU}) {
        VQ_CONF_RULE Expected;
        FillDnat(Expected, Target);
        EXPECT_EQ(VQCtrl_ConfigAddDnsmasqDnat(Target), 0);
        EXPECT_TRUE(SameBytes(&Rule(), &Expected, sizeof(Expected))) << Target;
    }
}

TEST_F(Policy, TheDnsTableRuleHasNoOtherFields)
{
    Host.Rules.CustomerOfVpn[7] = 77;
    VQ_CONF_RULE Expected;
    FillPolicy(Expected, 7, 9, 77);
    EXPECT_EQ(VQCtrl_ConfigAddDnsmasqPolicy(7), 0);
    EXPECT_TRUE(SameBytes(&Rule(), &Expected, sizeof(Expected)));
}

TEST_F(Policy, TheHostGetsAllArguments)
{
    Host.Rules.CustomerOfVpn[7] = 77;
    EXPECT_EQ(VQCtrl_ConfigAddDnsmasqDnat(Ip(10, 0, 0, 1)), 0);
    EXPECT_EQ(VQCtrl_ConfigAddDnsmasqPolicy(7), 0);
    EXPECT_EQ(VQCtrl_ConfigDelDnsmasqPolicy(7), 0);
    EXPECT_EQ(VQCtrl_ConfigDelDnsmasqDnat(), 0);
    EXPECT_THAT(World(), ElementsAre("VQ_RtcRuleConfAdd(0, 3, 0, 512, 0, 1)", "VQ_PlatformGetCustomerId()",
                                     "VQ_GetCustomerIdByVpnId(7)", "VQ_RtcRuleConfAdd(0, 9, 77, 768, 0, 1)",
                                     "VQ_PlatformGetCustomerId()", "VQ_GetCustomerIdByVpnId(7)",
                                     "VQ_RtcRuleConfDel(0, 9, 77, 770, 1)", "VQ_RtcRuleConfDel(0, 3, 0, 514, 1)"));
    EXPECT_THAT(Host.Rules.InForce(), IsEmpty());
}

struct RuleId {
    uint32_t VpnId;
    uint32_t Id;
};

class PolicyRuleId : public Policy, public testing::WithParamInterface<RuleId> {};

// The VPN id plus 2, in 32 bits.
TEST_P(PolicyRuleId, IsTheSameForAddAndDelete)
{
    VQ_CONF_RULE Expected;
    FillPolicy(Expected, GetParam().VpnId, GetParam().Id, kPlatformCustomer);
    EXPECT_EQ(VQCtrl_ConfigAddDnsmasqPolicy(GetParam().VpnId), 0);
    EXPECT_TRUE(SameBytes(&Rule(), &Expected, sizeof(Expected)));
    EXPECT_EQ(VQCtrl_ConfigDelDnsmasqPolicy(GetParam().VpnId), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_RtcRuleConfDel"),
                ElementsAre("VQ_RtcRuleConfDel(0, " + std::to_string(GetParam().Id) + ", 41, 770, 1)"));
}

INSTANTIATE_TEST_SUITE_P(Vpns, PolicyRuleId,
                         testing::Values(RuleId{0, 2}, RuleId{1, 3}, RuleId{7, 9}, RuleId{2147483647, 2147483649},
                                         RuleId{4294967293, 4294967295}, RuleId{4294967294, 0}, RuleId{4294967295, 1}),
                         [](const auto &Info) { return std::to_string(Info.param.VpnId); });

TEST_F(Policy, AVpnWithoutACustomerUsesThatOfThePlatform)
{
    Host.Rules.CustomerOfVpn[8] = 88;
    EXPECT_EQ(VQCtrl_ConfigAddDnsmasqPolicy(7), 0);
    EXPECT_EQ(Rule().CustomerId, kPlatformCustomer);
    EXPECT_EQ(VQCtrl_ConfigDelDnsmasqPolicy(7), 0);
}

// The result of the service is ignored. The customer id is the one that it wrote, or the old one if it wrote none.
TEST_F(Policy, TheResultOfTheCustomerServiceIsIgnored)
{
    Host.Rules.CustomerOfVpn[7] = 77;
    Host.SuccessResults["VQ_GetCustomerIdByVpnId"] = 3;
    EXPECT_EQ(VQCtrl_ConfigAddDnsmasqPolicy(7), 0);
    EXPECT_EQ(Rule().CustomerId, 77U);
    Host.Failures.Fail("VQ_GetCustomerIdByVpnId", -5);
    EXPECT_EQ(VQCtrl_ConfigAddDnsmasqPolicy(7), 0);
    EXPECT_EQ(Rule().CustomerId, kPlatformCustomer);
    EXPECT_THAT(Logs(), testing::Each("1 VQCtrl_ConfigAddDnsmasqPolicy: Add Policy for Dnsmasq success\n"));
}

TEST_F(Policy, CustomerZeroIsUsedIfTheVpnHasIt)
{
    Host.Rules.CustomerOfVpn[7] = 0;
    EXPECT_EQ(VQCtrl_ConfigAddDnsmasqPolicy(7), 0);
    EXPECT_EQ(Rule().CustomerId, 0U);
}

TEST_F(Policy, ADeleteByAnotherCustomerFails)
{
    EXPECT_EQ(VQCtrl_ConfigAddDnsmasqPolicy(7), 0);
    Host.Rules.CustomerOfVpn[7] = 77;
    EXPECT_EQ(VQCtrl_ConfigDelDnsmasqPolicy(7), -2);
    EXPECT_THAT(Host.Rules.InForce(), testing::SizeIs(1));
}

struct Builder {
    const char *Name;
    VQ_ERR_T (*Call)();
    const char *Service;
    char SuccessLevel;
    const char *Success;
    const char *Failure;
};

const Builder kBuilders[] = {
    {"VQCtrl_ConfigAddDnsmasqDnat", [] { return VQCtrl_ConfigAddDnsmasqDnat(1); }, "VQ_RtcRuleConfAdd", '4',
     "Add dnat for Dnsmasq success\n", "Add dnat for Dnsmasq error"},
    {"VQCtrl_ConfigDelDnsmasqDnat", [] { return VQCtrl_ConfigDelDnsmasqDnat(); }, "VQ_RtcRuleConfDel", '4',
     "Del Policy for Dnsmasq success\n", "Del Policy for Dnsmasq error"},
    {"VQCtrl_ConfigAddDnsmasqPolicy", [] { return VQCtrl_ConfigAddDnsmasqPolicy(7); }, "VQ_RtcRuleConfAdd", '1',
     "Add Policy for Dnsmasq success\n", "Add Policy for Dnsmasq error"},
    {"VQCtrl_ConfigDelDnsmasqPolicy", [] { return VQCtrl_ConfigDelDnsmasqPolicy(7); }, "VQ_RtcRuleConfDel", '4',
     "Del Policy for Dnsmasq success\n", "Del Policy for Dnsmasq error"},
};

class Builders : public Policy, public testing::WithParamInterface<Builder> {
  protected:
    void SetUp() override
    {
        Policy::SetUp();
        Host.Rules.Put({2, 0, 3, 0});
        Host.Rules.Put({3, 0, 9, kPlatformCustomer});
    }

    [[nodiscard]] static std::string Line(char Level, const std::string &Text)
    {
        return std::string(1, Level) + ' ' + GetParam().Name + ": " + Text;
    }
};

TEST_P(Builders, SuccessIsLoggedAtItsOwnLevel)
{
    EXPECT_EQ(GetParam().Call(), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(GetParam().SuccessLevel, GetParam().Success)));
}

TEST_P(Builders, ASuccessAtErrorLevelUsesTheFlexLog)
{
    EXPECT_EQ(GetParam().Call(), 0);
    if (GetParam().SuccessLevel == '4') {
        EXPECT_THAT(FlexSteps(), ElementsAre("VQ_FlexLogSetFormatData(" + fakehost::Quote(GetParam().Success) + ')',
                                             "VQ_FlexLogGetFormatBuff()", "VQ_FlexLogDataReset()"));
        ASSERT_THAT(Host.Log.Dumps(), testing::SizeIs(1));
        EXPECT_EQ(Host.Log.Dumps()[0].Message, std::string("dump flexlog:\n") + GetParam().Success);
    } else {
        EXPECT_THAT(FlexSteps(), IsEmpty());
    }
}

TEST_P(Builders, FailureIsLoggedAndReturnedUnchanged)
{
    Host.Failures.Fail(GetParam().Service, -28);
    EXPECT_EQ(GetParam().Call(), -28);
    EXPECT_THAT(Logs(), ElementsAre(Line('4', GetParam().Failure + std::string("(28:No space left on device)\n"))));
    EXPECT_EQ(Host.Log.Dumps().size(), 1U);
}

TEST_P(Builders, APositiveResultIsASuccessAndIsReturned)
{
    Host.SuccessResults[GetParam().Service] = 5;
    EXPECT_EQ(GetParam().Call(), 5);
    EXPECT_THAT(Logs(), ElementsAre(Line(GetParam().SuccessLevel, GetParam().Success)));
}

INSTANTIATE_TEST_SUITE_P(All, Builders, testing::ValuesIn(kBuilders),
                         [](const auto &Info) { return std::string(Info.param.Name); });

} // namespace
