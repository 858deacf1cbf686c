#include "moduleTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *kPidPath = "/var/run/kvl_dns_vpn_7.pid";
constexpr const char *kOpenPidFile = "fopen(\"/var/run/kvl_dns_vpn_7.pid\", \"re\")";
constexpr const char *kNoPidFile =
    "1 VQCtrl_GetDnsServicePid: Open pid file /var/run/kvl_dns_vpn_7.pid failed(2:No such file or directory)\n";

// The command line behind the prefix.
std::string Arguments()
{
    return "/usr/sbin/dnsmasq -C /etc/kavel/dnsmasq/vpn_7/dnsmasq.conf --dns-forward-max=1000 "
           "--no-hosts --pid-file=/var/run/kvl_dns_vpn_7.pid -k &";
}

std::string Launch(const std::string &Command)
{
    return "VQ_CmdExec(\"" + Command + "\")";
}

class Lifecycle : public ModuleTest {
  protected:
    void RunInstance(pid_t Pid = 1234)
    {
        Host.Proc.AddInstance(Pid, 7);
        Host.Proc.PutPidFile(7, std::to_string(Pid) + "\n");
    }

    [[nodiscard]] bool PidFileExists() const { return Host.Files.Exists(kPidPath); }
};

TEST_F(Lifecycle, AnInstanceIsLaunchedInTheNamespaceOfItsVpn)
{
    EXPECT_EQ(VQCtrl_DnsmasqStart(7), 0);
    EXPECT_THAT(Host.Calls.Trace(),
                ElementsAre("VQ_RtcGetNetNsExecCmdPrefix(7, 512)", Launch("ip netns exec vpn_7 " + Arguments())));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(Lifecycle, TheBoxWideInstanceIsLaunchedWithoutAPrefixFromTheGlobalFile)
{
    EXPECT_EQ(VQCtrl_DnsmasqStart(0), 0);
    EXPECT_THAT(Host.Calls.Trace(),
                ElementsAre(Launch("/usr/sbin/dnsmasq -C /etc/kavel/dnsmasq/dnsmasq.conf --dns-forward-max=1000 "
                                   "--no-hosts --pid-file=/var/run/kvl_dns_vpn_0.pid -k &")));
}

TEST_F(Lifecycle, TheCommandIsFormattedBehindThePrefixIn512Bytes)
{
    Host.Calls.Record(fakehost::EntryKind::Text, true);
    VQCtrl_DnsmasqStart(7);
    VQCtrl_DnsmasqStart(0);
    const std::vector<std::string> Printed = Host.Calls.Named("VQ_SNPrintf");
    ASSERT_THAT(Printed, testing::SizeIs(2));
    EXPECT_EQ(Printed[0], "VQ_SNPrintf(492, \"" + Arguments() + "\")");
    EXPECT_THAT(Printed[1], testing::StartsWith("VQ_SNPrintf(512, "));
}

TEST_F(Lifecycle, TheLargestVpnIdFits)
{
    EXPECT_EQ(VQCtrl_DnsmasqStart(4294967295U), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), ElementsAre(testing::HasSubstr("kvl_dns_vpn_4294967295.pid -k &")));
}

TEST_F(Lifecycle, TheResultOfTheLaunchIsReturned)
{
    Host.SuccessResults["VQ_CmdExec"] = 256;
    EXPECT_EQ(VQCtrl_DnsmasqStart(7), 256);
}

TEST_F(Lifecycle, AFailedLaunchIsMinus22WhateverTheError)
{
    Host.Failures.Fail("VQ_CmdExec", -5);
    EXPECT_EQ(VQCtrl_DnsmasqStart(7), -22);
    EXPECT_THAT(Logs(),
                ElementsAre("4 VQCtrl_DnsmasqStart: cmd:ip netns exec vpn_7 " + Arguments() + " exec failed\n"));
}

TEST_F(Lifecycle, AVpnWithoutANamespaceIsNotLaunched)
{
    Host.Netns.Forget(7);
    EXPECT_EQ(VQCtrl_DnsmasqStart(7), -2);
    EXPECT_THAT(Logs(),
                ElementsAre("4 VQCtrl_DnsmasqStart: Get netns cmd prefix failed(2:No such file or directory)\n"));
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), IsEmpty());
}

TEST_F(Lifecycle, ACommandOf511CharactersIsTheLongest)
{
    const std::string Prefix = std::string(510 - Arguments().size(), 'x') + ' ';
    Host.Netns.SetPrefix(Prefix);
    EXPECT_EQ(VQCtrl_DnsmasqStart(7), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), ElementsAre(Launch(Prefix + Arguments())));
}

// One character too many; no room for the command; no room for the prefix itself.
TEST_F(Lifecycle, ALongerCommandIsNotLaunched)
{
    for (const std::size_t Length : {512 - Arguments().size(), std::size_t{511}, std::size_t{512}, std::size_t{600}}) {
        Host.Netns.SetPrefix(std::string(Length, 'x'));
        EXPECT_EQ(VQCtrl_DnsmasqStart(7), -75) << Length;
        EXPECT_THAT(Logs(), ElementsAre("4 VQCtrl_DnsmasqStart: Start dns service cmd is overflow\n"));
        Host.Log.Clear();
    }
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), IsEmpty());
}

TEST_F(Lifecycle, StartingTwiceLaunchesTwice)
{
    RunInstance();
    EXPECT_EQ(VQCtrl_DnsmasqStart(7), 0);
    EXPECT_EQ(VQCtrl_DnsmasqStart(7), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), testing::SizeIs(2));
    EXPECT_THAT(Host.Calls.Named("fopen"), IsEmpty());
}

TEST_F(Lifecycle, AStopWithoutAPidFileDoesNothingMore)
{
    Host.Netns.PutListener(7, 53);
    Host.Proc.AddInstance(1234, 7);
    EXPECT_EQ(VQCtrl_DnsmasqStop(7), 0);
    EXPECT_THAT(World(), ElementsAre(kOpenPidFile));
    EXPECT_THAT(Logs(), ElementsAre(kNoPidFile, "1 VQCtrl_DnsmasqStop: Dns service is not exist\n"));
    EXPECT_TRUE(Host.Proc.IsAlive(1234));
}

TEST_F(Lifecycle, AStopWithAnEmptyPidFileKeepsTheFile)
{
    Host.Proc.PutPidFile(7, "");
    EXPECT_EQ(VQCtrl_DnsmasqStop(7), 0);
    EXPECT_THAT(World(), ElementsAre(kOpenPidFile));
    EXPECT_THAT(Logs(), ElementsAre("1 VQCtrl_DnsmasqStop: Dns service is not exist\n"));
    EXPECT_TRUE(PidFileExists());
}

TEST_F(Lifecycle, AStopKillsTheProcessChecksThePortAndRemovesThePidFile)
{
    RunInstance();
    Host.Netns.PutListener(7, 5353);
    EXPECT_EQ(VQCtrl_DnsmasqStop(7), 0);
    EXPECT_THAT(Host.Calls.Of(fakehost::EntryKind::World),
                ElementsAre(kOpenPidFile, "VQ_KillPid(1234)", "VQ_RtcNetNsSaveAndSwitch(7)",
                            testing::StartsWith("fopen(\"/proc/net/tcp\""), "VQ_RtcNetNsSwitchToDefault()",
                            "remove(\"/var/run/kvl_dns_vpn_7.pid\")"));
    EXPECT_THAT(Logs(), ElementsAre("1 VQCtrl_DnsmasqStop: Pid is 1234\n"));
    EXPECT_FALSE(Host.Proc.IsAlive(1234));
    EXPECT_FALSE(PidFileExists());
}

TEST_F(Lifecycle, AProcessThatHasExitedIsNoError)
{
    Host.Proc.PutPidFile(7, "1234");
    EXPECT_EQ(VQCtrl_DnsmasqStop(7), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_RtcNetNsSaveAndSwitch"), testing::SizeIs(1));
    EXPECT_THAT(Logs(), ElementsAre("1 VQCtrl_DnsmasqStop: Pid is 1234\n"));
    EXPECT_FALSE(PidFileExists());
}

TEST_F(Lifecycle, APositiveResultOfTheKillIsASuccess)
{
    RunInstance();
    Host.SuccessResults["VQ_KillPid"] = 1;
    EXPECT_EQ(VQCtrl_DnsmasqStop(7), 0);
    EXPECT_FALSE(PidFileExists());
}

TEST_F(Lifecycle, AFailedKillEndsTheStop)
{
    RunInstance();
    Host.Failures.Fail("VQ_KillPid", -1);
    EXPECT_EQ(VQCtrl_DnsmasqStop(7), -1);
    EXPECT_THAT(World(), ElementsAre(kOpenPidFile, "VQ_KillPid(1234)"));
    EXPECT_THAT(Logs(), ElementsAre("1 VQCtrl_DnsmasqStop: Pid is 1234\n",
                                    "4 VQCtrl_DnsmasqStop: Kill pid 1234 failed(1:Operation not permitted)\n"));
    EXPECT_TRUE(PidFileExists());
}

TEST_F(Lifecycle, IfThePortIsTakenLeftOversAreKilled)
{
    RunInstance();
    Host.Proc.AddInstance(1300, 7);
    Host.Netns.PutListener(7, 53);
    EXPECT_EQ(VQCtrl_DnsmasqStop(7), 0);
    EXPECT_THAT(Logs(), ElementsAre("1 VQCtrl_DnsmasqStop: Pid is 1234\n",
                                    "1 _VQCtrl_IsTcpPortOccupied: The port 53 is occupied, VpnId = 7\n",
                                    "1 VQCtrl_DnsmasqStop: Port 53 is occupied\n",
                                    "1 VQCtrl_DnsmasqStop: Kill dns child pid success\n"));
    EXPECT_THAT(Host.Calls.Named("VQ_KillPid"), ElementsAre("VQ_KillPid(1234)", "VQ_KillPid(1300)"));
    EXPECT_FALSE(PidFileExists());
}

class FailedSearch : public Lifecycle {
  protected:
    void SetUp() override
    {
        Lifecycle::SetUp();
        RunInstance();
        Host.Proc.AddInstance(1300, 7);
        Host.Netns.PutListener(7, 53);
        Host.Failures.Fail("VQ_KillPid", -13, 2);
    }

    // The value of errno after the second kill has failed.
    void LeaveErrno(int Number)
    {
        Host.Hooks["VQ_KillPid"] = [Number] { errno = Number; };
    }
};

// Only the line of the search itself has the returned code.
TEST_F(FailedSearch, ResultIsTheCurrentErrnoAndNotTheCode)
{
    LeaveErrno(EPERM);
    EXPECT_EQ(VQCtrl_DnsmasqStop(7), -EPERM);
    EXPECT_THAT(Logs(), ElementsAre("1 VQCtrl_DnsmasqStop: Pid is 1234\n",
                                    "1 _VQCtrl_IsTcpPortOccupied: The port 53 is occupied, VpnId = 7\n",
                                    "1 VQCtrl_DnsmasqStop: Port 53 is occupied\n",
                                    "4 _VQCtrl_KillDnsServiceChildPid: Kill pid 1300 failed(13:Permission denied)\n",
                                    "4 VQCtrl_DnsmasqStop: Kill dns childpid failed(1:Operation not permitted)\n"));
    EXPECT_TRUE(PidFileExists());
}

TEST_F(FailedSearch, AnErrnoOfZeroIsReturned)
{
    LeaveErrno(0);
    EXPECT_EQ(VQCtrl_DnsmasqStop(7), 0);
    EXPECT_EQ(Logs().back(), "4 VQCtrl_DnsmasqStop: Kill dns childpid failed(0:Success)\n");
    EXPECT_TRUE(PidFileExists());
}

TEST_F(Lifecycle, ProcCannotBeSearched)
{
    RunInstance();
    Host.Netns.PutListener(7, 53);
    Host.Failures.Fail("opendir", -EMFILE);
    EXPECT_EQ(VQCtrl_DnsmasqStop(7), -EMFILE);
    const std::vector<std::string> Lines = Logs();
    ASSERT_THAT(Lines, testing::SizeIs(5));
    EXPECT_EQ(Lines[3], "4 _VQCtrl_KillDnsServiceChildPid: Open dir /proc failed(24:Too many open files)\n");
    EXPECT_EQ(Lines[4], "4 VQCtrl_DnsmasqStop: Kill dns childpid failed(24:Too many open files)\n");
    EXPECT_TRUE(PidFileExists());
}

TEST_F(Lifecycle, AFailedRemovalOfThePidFileIsIgnored)
{
    RunInstance();
    Host.Failures.Fail("remove", -13);
    EXPECT_EQ(VQCtrl_DnsmasqStop(7), 0);
    EXPECT_THAT(Logs(), ElementsAre("1 VQCtrl_DnsmasqStop: Pid is 1234\n"));
}

TEST_F(Lifecycle, APidFileNameThatDoesNotFitEndsTheStop)
{
    RunInstance();
    // The first text is the path to read, the second one the path to remove.
    Host.Failures.Fail("VQ_SNPrintf", -75, 2);
    EXPECT_EQ(VQCtrl_DnsmasqStop(7), -75);
    EXPECT_THAT(Logs(), ElementsAre("1 VQCtrl_DnsmasqStop: Pid is 1234\n",
                                    "4 _VQCtrl_RemoveDnsServicePidFile: pid file name is overflow\n",
                                    "4 VQCtrl_DnsmasqStop: Remove dns service pid file by vpnid 7 failed"
                                    "(75:Value too large for defined data type)\n"));
    EXPECT_THAT(Host.Calls.Named("remove"), IsEmpty());
}

TEST_F(Lifecycle, AReloadSignalsTheInstance)
{
    RunInstance();
    EXPECT_EQ(VQCtrl_DnsmasqReload(7), 0);
    EXPECT_THAT(World(), ElementsAre(kOpenPidFile, "kill(1234, 1)"));
    EXPECT_THAT(Logs(), ElementsAre("1 VQCtrl_DnsmasqReload: Pid is 1234\n"));
    EXPECT_TRUE(PidFileExists());
}

TEST_F(Lifecycle, AReloadWithoutAnInstanceIsASuccess)
{
    EXPECT_EQ(VQCtrl_DnsmasqReload(7), 0);
    EXPECT_THAT(World(), ElementsAre(kOpenPidFile));
    EXPECT_THAT(Logs(), ElementsAre(kNoPidFile, "1 VQCtrl_DnsmasqReload: Dns service is not exist\n"));
}

TEST_F(Lifecycle, AFailedSignalReturnsTheNegatedErrno)
{
    Host.Proc.PutPidFile(7, "1234\n");
    EXPECT_EQ(VQCtrl_DnsmasqReload(7), -3);
    EXPECT_THAT(Logs(), ElementsAre("1 VQCtrl_DnsmasqReload: Pid is 1234\n",
                                    "4 VQCtrl_DnsmasqReload: Reload dns service pid 1234 failed(3:No such process)\n"));
}

// The pid is not checked. The kill of the fake host reaches no process.
TEST_F(Lifecycle, AReloadDoesNotCheckThePid)
{
    for (const char *Pid : {"0", "-1"}) {
        Host.Proc.PutPidFile(7, Pid);
        Host.Calls.Clear();
        EXPECT_EQ(VQCtrl_DnsmasqReload(7), 0);
        EXPECT_THAT(Host.Calls.Named("kill"), ElementsAre(std::string("kill(") + Pid + ", 1)"));
    }
}

TEST_F(Lifecycle, ARebootStopsAndStarts)
{
    RunInstance();
    Host.SuccessResults["VQ_CmdExec"] = 9;
    EXPECT_EQ(VQCtrl_DnsmasqReboot(7), 9);
    EXPECT_THAT(Logs(), ElementsAre("1 VQCtrl_DnsmasqStop: Pid is 1234\n"));
    const std::vector<std::string> Calls = World();
    EXPECT_EQ(Calls[Calls.size() - 3], "remove(\"/var/run/kvl_dns_vpn_7.pid\")");
    EXPECT_EQ(Calls.back(), Launch("ip netns exec vpn_7 " + Arguments()));
}

TEST_F(Lifecycle, ARebootWithoutAnInstanceStartsOne)
{
    EXPECT_EQ(VQCtrl_DnsmasqReboot(7), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), testing::SizeIs(1));
    EXPECT_THAT(Logs(), ElementsAre(kNoPidFile, "1 VQCtrl_DnsmasqStop: Dns service is not exist\n"));
}

TEST_F(Lifecycle, ARebootStartsEvenAfterAFailedStop)
{
    RunInstance();
    Host.Failures.Fail("VQ_KillPid", -1);
    EXPECT_EQ(VQCtrl_DnsmasqReboot(7), 0);
    EXPECT_THAT(Logs(), ElementsAre("1 VQCtrl_DnsmasqStop: Pid is 1234\n",
                                    "4 VQCtrl_DnsmasqStop: Kill pid 1234 failed(1:Operation not permitted)\n",
                                    "3 VQCtrl_DnsmasqReboot: Stop dnsmasq failed\n"));
    EXPECT_THAT(Host.Calls.Named("VQ_CmdExec"), testing::SizeIs(1));
}

TEST_F(Lifecycle, ARebootReturnsTheFailureOfTheStart)
{
    RunInstance();
    Host.Failures.Fail("VQ_CmdExec", -5);
    EXPECT_EQ(VQCtrl_DnsmasqReboot(7), -22);
}

} // namespace
