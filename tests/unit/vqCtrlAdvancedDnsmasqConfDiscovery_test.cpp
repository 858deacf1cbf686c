// The discovery of an instance: its pid file, port 53 in its namespace, its command line. A stop checks the port and
// the command lines.
#include <algorithm>

#include "moduleTest.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char *kHeader = "  sl  local_address rem_address   st\n";
constexpr const char *kOccupied = "1 _VQCtrl_IsTcpPortOccupied: The port 53 is occupied, VpnId = 7\n";
constexpr const char *kKillSuccess = "1 VQCtrl_DnsmasqStop: Kill dns child pid success\n";

class PidFile : public ModuleTest {
  protected:
    // The pid that is read from a file with this content. Fails the test if there is none.
    pid_t Read(const std::string &Content)
    {
        Host.Proc.PutPidFile(7, Content);
        pid_t Pid = -99;
        EXPECT_EQ(VQCtrl_GetDnsServicePid(7, &Pid), 0);
        return Pid;
    }
};

TEST_F(PidFile, HasADecimalNumber)
{
    EXPECT_EQ(Read("1234\n"), 1234);
    EXPECT_EQ(Read("1234"), 1234);
    EXPECT_EQ(Read("  42 17\n"), 42);
    EXPECT_EQ(Read("2147483647\n"), 2147483647);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(PidFile, NumberIsNotChecked)
{
    EXPECT_EQ(Read("not a number\n"), 0);
    EXPECT_EQ(Read("\n"), 0);
    EXPECT_EQ(Read("0"), 0);
    EXPECT_EQ(Read("-1\n"), -1);
}

// At most 32 bytes are read, and they are terminated.
TEST_F(PidFile, IsReadUpTo32Bytes)
{
    EXPECT_EQ(Read(std::string(28, '0') + "1234" + "5678"), 1234);
    EXPECT_EQ(Read(std::string(28, '0') + "1234"), 1234);
    EXPECT_EQ(Read(std::string(32, ' ') + "1234"), 0);
}

TEST_F(PidFile, IsOpenedCloseOnExec)
{
    Read("1");
    EXPECT_THAT(Host.Calls.Named("fopen"), ElementsAre("fopen(\"/var/run/kvl_dns_vpn_7.pid\", \"re\")"));
}

TEST_F(PidFile, IsDifferentForEachVpn)
{
    Host.Proc.PutPidFile(0, "10");
    Host.Proc.PutPidFile(4294967295U, "20");
    pid_t Pid = 0;
    EXPECT_EQ(VQCtrl_GetDnsServicePid(0, &Pid), 0);
    EXPECT_EQ(Pid, 10);
    EXPECT_EQ(VQCtrl_GetDnsServicePid(4294967295U, &Pid), 0);
    EXPECT_EQ(Pid, 20);
}

TEST_F(PidFile, IsEmpty)
{
    Host.Proc.PutPidFile(7, "");
    pid_t Pid = -99;
    EXPECT_EQ(VQCtrl_GetDnsServicePid(7, &Pid), -22);
    EXPECT_EQ(Pid, -99);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(PidFile, CannotBeRead)
{
    Host.Proc.PutPidFile(7, "1234");
    Host.Files.FailReads("/var/run/kvl_dns_vpn_7.pid");
    pid_t Pid = -99;
    EXPECT_EQ(VQCtrl_GetDnsServicePid(7, &Pid), -22);
    EXPECT_EQ(Pid, -99);
}

TEST_F(PidFile, CannotBeOpened)
{
    Host.Failures.Fail("fopen", -13);
    pid_t Pid = -99;
    EXPECT_EQ(VQCtrl_GetDnsServicePid(7, &Pid), -13);
    EXPECT_EQ(Pid, -99);
    EXPECT_THAT(Logs(), ElementsAre("1 VQCtrl_GetDnsServicePid: Open pid file /var/run/kvl_dns_vpn_7.pid failed"
                                    "(13:Permission denied)\n"));
}

TEST_F(PidFile, NameDoesNotFit)
{
    Host.Calls.Record(fakehost::EntryKind::Text, true);
    Host.Failures.Fail("VQ_SNPrintf", -75);
    pid_t Pid = -99;
    EXPECT_EQ(VQCtrl_GetDnsServicePid(7, &Pid), -75);
    EXPECT_THAT(Host.Calls.Trace(), Contains("VQ_SNPrintf(512, \"/var/run/kvl_dns_vpn_7.pid\")"));
    EXPECT_THAT(Logs(), ElementsAre("4 VQCtrl_GetDnsServicePid: pid file name is overflow\n"));
    EXPECT_THAT(World(), IsEmpty());
}

class PortCheck : public ModuleTest {
  protected:
    // Whether a stop of VPN 7 finds port 53 taken in a table with this text.
    bool Taken(const std::string &Table)
    {
        Host.Netns.PutTcpTable(7, Table);
        Host.Proc.PutPidFile(7, "1234");
        Host.Log.Clear();
        EXPECT_EQ(VQCtrl_DnsmasqStop(7), 0);
        const std::vector<std::string> Lines = Logs();
        const bool Found = std::find(Lines.begin(), Lines.end(), kOccupied) != Lines.end();
        const bool ActedOn = std::find(Lines.begin(), Lines.end(), kKillSuccess) != Lines.end();
        EXPECT_EQ(Found, ActedOn);
        return Found;
    }

    // A socket in hexadecimal, as in the table.
    static std::string Socket(const std::string &Local, const std::string &State = "0A")
    {
        return "   0: " + Local + " 00000000:0035 " + State + "\n";
    }
};

TEST_F(PortCheck, ComparesTheLocalPort)
{
    EXPECT_TRUE(Taken(kHeader + Socket("00000000:0035")));
    EXPECT_TRUE(Taken(kHeader + Socket("0100007F:0016") + Socket("0100007F:0035")));
    EXPECT_FALSE(Taken(kHeader + Socket("0100007F:0053")));
    EXPECT_FALSE(Taken(kHeader + Socket("00000035:0350") + Socket("00000000:3500")));
}

TEST_F(PortCheck, AnySocketCounts)
{
    EXPECT_TRUE(Taken(kHeader + Socket("00000000:0035", "06")));
    EXPECT_TRUE(Taken(kHeader + Socket("00000000:0035", "01")));
}

TEST_F(PortCheck, TheFirstLineIsSkipped)
{
    EXPECT_FALSE(Taken(kHeader));
    EXPECT_FALSE(Taken(Socket("00000000:0035")));
    EXPECT_FALSE(Taken(""));
}

TEST_F(PortCheck, ReadingStopsAtTheFirstMatch)
{
    EXPECT_TRUE(Taken(kHeader + Socket("00000000:0035") + Socket("00000000:0035")));
    const std::vector<std::string> Lines = Logs();
    EXPECT_EQ(std::count(Lines.begin(), Lines.end(), kOccupied), 1);
}

TEST_F(PortCheck, ALineThatCannotBeParsedIsSkipped)
{
    EXPECT_FALSE(Taken(kHeader + std::string("nonsense\n") + "\n" + Socket("00000000:0016") + "nonsense\n"));
    EXPECT_TRUE(Taken(kHeader + std::string("nonsense\n") + Socket("00000000:0035")));
}

// The lines of the kernel are longer than the buffer. The rest of a line is read as a line of its own.
TEST_F(PortCheck, LinesOfTheKernelAreRead)
{
    Host.Proc.PutPidFile(7, "1234");
    Host.Netns.PutListener(7, 53);
    EXPECT_EQ(VQCtrl_DnsmasqStop(7), 0);
    EXPECT_THAT(Logs(), Contains(kOccupied));
    Host.Log.Clear();
    Host.Proc.PutPidFile(7, "1234");
    Host.Netns.PutListener(7, 54);
    EXPECT_EQ(VQCtrl_DnsmasqStop(7), 0);
    EXPECT_THAT(Logs(), Not(Contains(kOccupied)));
}

// The rest of a cut line is parsed like any line. A port is found in it only if a field is left before the address.
TEST_F(PortCheck, ALineIsCutAfter99Characters)
{
    std::string Line = "   0: 0100007F:0016 ";
    Line.resize(99, ' ');
    EXPECT_TRUE(Taken(kHeader + Line + "x 0:35\n"));
    Line.resize(98);
    EXPECT_FALSE(Taken(kHeader + Line + "x 0:35\n"));
}

TEST_F(PortCheck, IsMadeInTheNamespaceOfTheVpn)
{
    Host.Netns.PutListener(0, 53);
    Host.Netns.PutListener(8, 53);
    EXPECT_FALSE(Taken(kHeader));
    EXPECT_THAT(Host.Calls.Named("VQ_RtcNetNsSaveAndSwitch"), ElementsAre("VQ_RtcNetNsSaveAndSwitch(7)"));
    EXPECT_EQ(Host.Netns.Current(), 0U);
}

TEST_F(PortCheck, OfVpnZeroStaysInTheCurrentNamespace)
{
    Host.Proc.PutPidFile(0, "1234");
    Host.Netns.PutListener(0, 53);
    EXPECT_EQ(VQCtrl_DnsmasqStop(0), 0);
    EXPECT_THAT(Logs(), Contains("1 _VQCtrl_IsTcpPortOccupied: The port 53 is occupied, VpnId = 0\n"));
    EXPECT_THAT(Host.Calls.Named("VQ_RtcNetNsSaveAndSwitch"), IsEmpty());
    EXPECT_THAT(Host.Calls.Named("VQ_RtcNetNsSwitchToDefault"), IsEmpty());
}

TEST_F(PortCheck, OnlyTheIpv4TableIsRead)
{
    Host.Files.Put("/proc/net/tcp6", kHeader + Socket("00000000000000000000000000000000:0035"));
    EXPECT_FALSE(Taken(kHeader));
    EXPECT_THAT(Host.Calls.Named("fopen"), testing::SizeIs(2));
}

TEST_F(PortCheck, WithoutATableThePortIsFree)
{
    Host.Proc.PutPidFile(7, "1234");
    EXPECT_EQ(VQCtrl_DnsmasqStop(7), 0);
    EXPECT_THAT(Logs(), ElementsAre("1 VQCtrl_DnsmasqStop: Pid is 1234\n"));
    EXPECT_THAT(Host.Calls.Named("VQ_RtcNetNsSwitchToDefault"), testing::SizeIs(1));
    EXPECT_FALSE(Host.Files.Exists("/var/run/kvl_dns_vpn_7.pid"));
}

TEST_F(PortCheck, WithoutANamespaceThePortIsFree)
{
    Host.Proc.PutPidFile(7, "1234");
    Host.Netns.Forget(7);
    Host.Netns.PutListener(0, 53);
    EXPECT_EQ(VQCtrl_DnsmasqStop(7), 0);
    EXPECT_THAT(Logs(), ElementsAre("1 VQCtrl_DnsmasqStop: Pid is 1234\n",
                                    "4 _VQCtrl_IsTcpPortOccupied: Switch to namespace 7 faile, ret = -2.\n"));
    EXPECT_THAT(Host.Calls.Named("VQ_RtcNetNsSwitchToDefault"), IsEmpty());
    EXPECT_THAT(Host.Calls.Named("fopen"), testing::SizeIs(1));
    EXPECT_FALSE(Host.Files.Exists("/var/run/kvl_dns_vpn_7.pid"));
}

TEST_F(PortCheck, AFailureToSwitchBackDoesNotChangeTheAnswer)
{
    const std::string Line = "4 _VQCtrl_IsTcpPortOccupied: VQ_RtcNetNsSwitchToDefault failed"
                             "(ret = -9 VpnId = 7 saveNetNsFd = ";
    Host.Failures.Fail("VQ_RtcNetNsSwitchToDefault", -9);
    EXPECT_FALSE(Taken(kHeader));
    EXPECT_THAT(Logs(), Contains(Line + "900)\n"));
    EXPECT_TRUE(Taken(kHeader + Socket("00000000:0035")));
    EXPECT_THAT(Logs(), Contains(Line + "901)\n"));
}

class LeftOvers : public ModuleTest {
  protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        Host.Calls.Record(fakehost::EntryKind::Memory, false);
    }

    // Stops an instance that has exited while its port is still taken. Returns the other processes that were killed.
    std::vector<std::string> KilledBy(uint32_t VpnId)
    {
        Host.Proc.PutPidFile(VpnId, "99999");
        Host.Netns.PutListener(VpnId, 53);
        Result = VQCtrl_DnsmasqStop(VpnId);
        std::vector<std::string> Kills = Host.Calls.Named("VQ_KillPid");
        Kills.erase(Kills.begin());
        return Kills;
    }

    // A command line with the three words in their usual places.
    void AddCommand(pid_t Pid, std::string Text)
    {
        std::replace(Text.begin(), Text.end(), ' ', '\0');
        Host.Proc.Add(Pid, Text);
    }

    VQ_ERR_T Result = 0;
};

TEST_F(LeftOvers, AreFoundByAllThreeWordsOfTheirCommandLine)
{
    Host.Proc.AddInstance(100, 7);
    AddCommand(101, "dnsmasq kvl_dns_vpn_7");
    AddCommand(102, "dnsmasq --dns-forward");
    AddCommand(103, "--dns-forward kvl_dns_vpn_7");
    AddCommand(104, "x--dns-forward-maxdnsmasqkvl_dns_vpn_7");
    AddCommand(105, "");
    Host.Proc.AddInstance(106, 8);
    EXPECT_THAT(KilledBy(7), ElementsAre("VQ_KillPid(100)", "VQ_KillPid(104)"));
    EXPECT_EQ(Result, 0);
    EXPECT_THAT(Logs(), Contains(kKillSuccess));
}

// Zero bytes separate arguments and do not end the search.
TEST_F(LeftOvers, AreFoundAcrossArguments)
{
    AddCommand(100, "/usr/sbin/dnsmasq -C x --dns-forward-max=1000 --pid-file=/var/run/kvl_dns_vpn_7.pid -k");
    EXPECT_THAT(KilledBy(7), ElementsAre("VQ_KillPid(100)"));
}

// Substring tests: the tags of VPN 10, 11 and 100 contain the tag of VPN 1.
TEST_F(LeftOvers, OfLongerIdsMatchTheShorterOnes)
{
    Host.Proc.AddInstance(100, 1);
    Host.Proc.AddInstance(110, 10);
    Host.Proc.AddInstance(111, 11);
    Host.Proc.AddInstance(112, 21);
    EXPECT_THAT(KilledBy(1), ElementsAre("VQ_KillPid(100)", "VQ_KillPid(110)", "VQ_KillPid(111)"));
}

TEST_F(LeftOvers, OfShorterIdsDoNotMatchTheLongerOnes)
{
    Host.Proc.AddInstance(100, 1);
    Host.Proc.AddInstance(110, 10);
    EXPECT_THAT(KilledBy(10), ElementsAre("VQ_KillPid(110)"));
}

TEST_F(LeftOvers, OfVpnZeroAreFoundLikeAnyOther)
{
    Host.Proc.AddInstance(100, 0);
    EXPECT_THAT(KilledBy(0), ElementsAre("VQ_KillPid(100)"));
}

TEST_F(LeftOvers, AreFoundOnlyByTheFirst512Bytes)
{
    const std::string Words = "dnsmasq --dns-forward kvl_dns_vpn_7";
    AddCommand(100, std::string(512 - Words.size(), 'x') + Words);
    AddCommand(101, std::string(513 - Words.size(), 'x') + Words);
    AddCommand(102, Words + std::string(2000, 'x'));
    EXPECT_THAT(KilledBy(7), ElementsAre("VQ_KillPid(100)", "VQ_KillPid(102)"));
}

TEST_F(LeftOvers, AreSkippedIfTheirCommandLineCannotBeRead)
{
    Host.Proc.AddInstance(100, 7);
    Host.Files.Drop("/proc/100/cmdline");
    Host.Proc.AddInstance(101, 7);
    Host.Files.FailReads("/proc/101/cmdline");
    Host.Proc.AddInstance(102, 7);
    EXPECT_THAT(KilledBy(7), ElementsAre("VQ_KillPid(102)"));
    EXPECT_THAT(Logs(), Not(Contains(HasSubstr("4 "))));
}

TEST_F(LeftOvers, NamesThatAreNotNumbersAreReadAsProcessZero)
{
    Host.Proc.AddName("self");
    Host.Proc.AddName("12abc");
    EXPECT_THAT(KilledBy(7), IsEmpty());
    const std::vector<std::string> Opened = Host.Calls.Named("fopen");
    ASSERT_THAT(Opened, testing::SizeIs(4)) << "the pid file, the table and the two names, but no dot";
    EXPECT_THAT(Opened[2], HasSubstr("\"/proc/0/cmdline\""));
    EXPECT_THAT(Opened[3], HasSubstr("\"/proc/12/cmdline\""));
}

TEST_F(LeftOvers, AMatchUnderANameThatIsNotANumberKillsPidZero)
{
    Host.Proc.AddName("self");
    AddCommand(0, "dnsmasq --dns-forward kvl_dns_vpn_7");
    Host.Hooks["VQ_KillPid"] = [] { errno = EINVAL; };
    EXPECT_THAT(KilledBy(7), ElementsAre("VQ_KillPid(0)"));
    EXPECT_EQ(Result, -22);
    EXPECT_THAT(Logs(), Contains("4 _VQCtrl_KillDnsServiceChildPid: Kill pid 0 failed(22:Invalid argument)\n"));
}

TEST_F(LeftOvers, ThatHaveExitedAreNoError)
{
    Host.Proc.AddInstance(100, 7);
    Host.Proc.AddInstance(101, 7);
    Host.Failures.Fail("VQ_KillPid", -3, 2);
    EXPECT_THAT(KilledBy(7), ElementsAre("VQ_KillPid(100)", "VQ_KillPid(101)"));
    EXPECT_EQ(Result, 0);
    EXPECT_THAT(Logs(), Contains(kKillSuccess));
}

TEST_F(LeftOvers, ThatCannotBeKilledEndTheSearch)
{
    Host.Proc.AddInstance(100, 7);
    Host.Proc.AddInstance(101, 7);
    Host.Proc.AddInstance(102, 7);
    Host.Failures.Fail("VQ_KillPid", -13, 3);
    Host.Hooks["VQ_KillPid"] = [] { errno = EACCES; };
    EXPECT_THAT(KilledBy(7), ElementsAre("VQ_KillPid(100)", "VQ_KillPid(101)"));
    EXPECT_EQ(Result, -13);
    EXPECT_THAT(Logs(), Contains("4 _VQCtrl_KillDnsServiceChildPid: Kill pid 101 failed(13:Permission denied)\n"));
    EXPECT_TRUE(Host.Proc.IsAlive(102));
}

TEST_F(LeftOvers, IncludeTheMainInstance)
{
    Host.Proc.AddInstance(1234, 7);
    Host.Proc.PutPidFile(7, "1234");
    Host.Netns.PutListener(7, 53);
    Host.Failures.Fail("VQ_KillPid", -3, 1);
    EXPECT_EQ(VQCtrl_DnsmasqStop(7), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_KillPid"), ElementsAre("VQ_KillPid(1234)", "VQ_KillPid(1234)"));
    EXPECT_FALSE(Host.Proc.IsAlive(1234));
}

TEST_F(LeftOvers, APathThatDoesNotFitIsSkipped)
{
    Host.Proc.AddInstance(100, 7);
    Host.Proc.AddInstance(101, 7);
    // The first text is the path of the pid file.
    Host.Failures.Fail("VQ_SNPrintf", -75, 2);
    EXPECT_THAT(KilledBy(7), ElementsAre("VQ_KillPid(101)"));
    EXPECT_THAT(Logs(), Contains(testing::AllOf(testing::StartsWith("4 _VQCtrl_KillDnsServiceChildPid: filename "),
                                                testing::EndsWith(" is overflow\n"))));
}

TEST_F(LeftOvers, PathsAndTagsAreFormattedIntoBuffersOfTheirSize)
{
    Host.Proc.AddInstance(100, 7);
    Host.Calls.Record(fakehost::EntryKind::Text, true);
    KilledBy(7);
    EXPECT_THAT(Host.Calls.Named("VQ_SNPrintf"), testing::IsSupersetOf({"VQ_SNPrintf(1024, \"/proc/100/cmdline\")",
                                                                        "VQ_SNPrintf(20, \"kvl_dns_vpn_7\")"}));
}

TEST_F(LeftOvers, OfSevenDigitIdsAreFound)
{
    Host.Proc.AddInstance(100, 9999999);
    EXPECT_THAT(KilledBy(9999999), ElementsAre("VQ_KillPid(100)"));
}

// The tag of an eight-digit id does not fit 20 bytes, so no process is found for such a VPN.
TEST_F(LeftOvers, OfEightDigitIdsAreNotFound)
{
    Host.Proc.AddInstance(100, 10000000);
    Host.Proc.AddInstance(101, 10000000);
    EXPECT_THAT(KilledBy(10000000), IsEmpty());
    EXPECT_EQ(Result, 0);
    const std::vector<std::string> Lines = Logs();
    const std::string Overflow = "4 _VQCtrl_IsDnsServiceExistInCmdline: Dns vpn name content is overflow\n";
    EXPECT_EQ(std::count(Lines.begin(), Lines.end(), Overflow), 2);
    EXPECT_THAT(Lines, Contains(kKillSuccess));
    EXPECT_THAT(Host.Calls.Named("fopen"), testing::SizeIs(2));
}

} // namespace
