// The steps of a log site. The fake host checks their order in every test; these tests check all details.
#include "moduleTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *kSite = "VQCtrl_DnsmasqConfRelaseByVpnId";
constexpr const char *kMessage = "Dnsmasq vpn conf root path is overflow\n";

class LogSite : public ModuleTest {
  protected:
    void RunErrorSite()
    {
        Host.Failures.Fail("VQ_SNPrintf", -75);
        EXPECT_EQ(VQCtrl_DnsmasqConfRelaseByVpnId(7), -75);
    }

    static void RunNoticeSite()
    {
        const Record Conf = NewRecord(0);
        EXPECT_EQ(VQCtrl_SetDnsHostConf(Conf.get()), 0);
    }

    void RunWarningSite()
    {
        Host.Failures.Fail("VQ_CmdExec", -5);
        VQCtrl_StopOldVersionDnsmasqService();
    }

    // The steps without those that only get values for the prefix.
    [[nodiscard]] std::vector<std::string> Steps() const
    {
        std::vector<std::string> Out;
        for (const std::string &Each : Host.Log.Steps()) {
            if (Each.starts_with("VQ_LogTest") || Each.starts_with("Log(") || Each.starts_with("VQ_FlexLog")) {
                Out.push_back(Each);
            }
        }
        return Out;
    }

    const std::string TestLine = std::string("VQ_LogTest(62, 4, TRUE, ") + kSite + ")";
    const std::string Line = std::string("Log(4, ") + kSite + ", " + fakehost::Quote(kMessage) + ")";
    const std::string Buffer = "VQ_FlexLogSetFormatData(" + fakehost::Quote(kMessage) + ")";
    const std::string TestDump = std::string("VQ_LogTest(62, 4, FALSE, ") + kSite + ")";
    const std::string ReadBuffer = "VQ_FlexLogGetFormatBuff()";
    const std::string Dump =
        std::string("Log(4, ") + kSite + ", " + fakehost::Quote(std::string("dump flexlog:\n") + kMessage) + ")";
    const std::string Reset = "VQ_FlexLogDataReset()";
};

TEST_F(LogSite, AnErrorIsWrittenBufferedDumpedAndReset)
{
    RunErrorSite();
    EXPECT_THAT(Steps(), ElementsAre(TestLine, Line, Buffer, TestDump, ReadBuffer, Dump, Reset));
    ASSERT_THAT(Host.Log.Lines(), testing::SizeIs(1));
    const fakehost::LogLine &Written = Host.Log.Lines()[0];
    EXPECT_EQ(Written.LevelText, "ERROR-");
    EXPECT_EQ(Written.ModuleName, "ADVANCED_DNS");
    EXPECT_EQ(Written.Thread, "[dns-main]");
    EXPECT_EQ(Written.Function, kSite);
    EXPECT_GT(Written.Line, 0);
    ASSERT_THAT(Host.Log.Dumps(), testing::SizeIs(1));
    EXPECT_EQ(Host.Log.Dumps()[0].Line, Written.Line);
}

TEST_F(LogSite, AFilteredErrorIsStillBufferedAndDumped)
{
    Host.Log.LevelEnabled[VQ_LOG_LEVEL_ERROR] = false;
    RunErrorSite();
    EXPECT_THAT(Steps(), ElementsAre(TestLine, Buffer, TestDump, ReadBuffer, Dump, Reset));
}

TEST_F(LogSite, NoDumpIsWrittenIfTheHostWantsNone)
{
    Host.Log.DumpEnabled = false;
    RunErrorSite();
    EXPECT_THAT(Steps(), ElementsAre(TestLine, Line, Buffer, TestDump, Reset));
}

TEST_F(LogSite, AMessageThatIsNotBufferedIsNotDumped)
{
    Host.Log.FlexLogWorks = false;
    RunErrorSite();
    EXPECT_THAT(Steps(), ElementsAre(TestLine, Line, Buffer, Reset));
}

TEST_F(LogSite, WithoutAnImplementationTheFlexLogIsStillUsed)
{
    Host.Log.HasImplItem = false;
    RunErrorSite();
    EXPECT_THAT(Host.Log.Lines(), IsEmpty());
    EXPECT_THAT(Host.Log.Dumps(), IsEmpty());
    EXPECT_THAT(Steps(), testing::IsSupersetOf({TestLine, Buffer, TestDump, Reset}));
}

TEST_F(LogSite, WithoutALogOperationTheFlexLogIsStillUsed)
{
    Host.Log.HasLog = false;
    RunErrorSite();
    EXPECT_THAT(Host.Log.Lines(), IsEmpty());
    EXPECT_THAT(Host.Log.Dumps(), IsEmpty());
    EXPECT_THAT(Steps(), testing::IsSupersetOf({TestLine, Buffer, TestDump, Reset}));
}

TEST_F(LogSite, WithoutALevelTextThePrefixHasNone)
{
    Host.Log.HasLevelText = false;
    RunErrorSite();
    ASSERT_THAT(Host.Log.Lines(), testing::SizeIs(1));
    EXPECT_EQ(Host.Log.Lines()[0].LevelText, "");
}

TEST_F(LogSite, WithoutAThreadNameThePrefixHasNone)
{
    Host.Log.HasThreadName = false;
    RunErrorSite();
    ASSERT_THAT(Host.Log.Lines(), testing::SizeIs(1));
    EXPECT_EQ(Host.Log.Lines()[0].Thread, "");
}

TEST_F(LogSite, AThreadNameOf15CharactersIsNotCut)
{
    Host.Log.ThreadName = "fifteen-letters";
    RunErrorSite();
    ASSERT_THAT(Host.Log.Lines(), testing::SizeIs(1));
    EXPECT_EQ(Host.Log.Lines()[0].Thread, "[fifteen-letters]");
    EXPECT_THAT(Host.Log.Steps(), testing::Contains("VQ_ThreadGetName(16)"));
}

TEST_F(LogSite, AnEmptyThreadNameIsStillInBrackets)
{
    Host.Log.ThreadName = "";
    RunErrorSite();
    ASSERT_THAT(Host.Log.Lines(), testing::SizeIs(1));
    EXPECT_EQ(Host.Log.Lines()[0].Thread, "[]");
}

TEST_F(LogSite, ANoticeIsOnlyALine)
{
    RunNoticeSite();
    EXPECT_THAT(Steps(), ElementsAre("VQ_LogTest(62, 1, TRUE, VQCtrl_SetDnsHostConf)",
                                     "Log(1, VQCtrl_SetDnsHostConf, \"DnsHostNum is zero, clean dns host conf\\n\")"));
    EXPECT_EQ(Host.Log.Lines().at(0).LevelText, "NOTICE-");
}

TEST_F(LogSite, AWarningIsOnlyALine)
{
    RunWarningSite();
    EXPECT_THAT(Steps(), ElementsAre("VQ_LogTest(62, 3, TRUE, VQCtrl_StopOldVersionDnsmasqService)",
                                     "Log(3, VQCtrl_StopOldVersionDnsmasqService, "
                                     "\"Stop old version dnsmasq service failed\\n\")"));
    EXPECT_EQ(Host.Log.Lines().at(0).LevelText, "WARNING-");
}

TEST_F(LogSite, AFilteredNoticeMakesOnlyTheLevelTest)
{
    Host.Log.LevelEnabled[VQ_LOG_LEVEL_NOTICE] = false;
    RunNoticeSite();
    EXPECT_THAT(Host.Log.Steps(), ElementsAre("VQ_LogTest(62, 1, TRUE, VQCtrl_SetDnsHostConf)"));
}

// A number whose negation overflows must not end the process.
TEST_F(LogSite, TheSmallestErrorNumberIsPrinted)
{
    Host.Failures.Fail("VQ_RemoveDirRecursion", -2147483647 - 1);
    EXPECT_EQ(VQCtrl_DnsmasqConfRelaseByVpnId(7), -2147483647 - 1);
    EXPECT_THAT(Logs(), ElementsAre(testing::StartsWith("4 VQCtrl_DnsmasqConfRelaseByVpnId: Remove ")));
}

} // namespace
