#include "base/instance_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <limits>
#include <string>

#include "scratch.h"

namespace kavel::agent {
namespace {

using testing::Optional;

constexpr std::uint32_t kLargest = std::numeric_limits<std::uint32_t>::max();

// The arguments as the kernel keeps them.
std::string CommandLine(std::initializer_list<std::string_view> arguments)
{
    std::string line;
    for (const std::string_view argument : arguments) {
        line.append(argument).push_back('\0');
    }
    return line;
}

std::string OptionOf(const std::string &file)
{
    return "--pid-file=/var/run/" + file;
}

TEST(PidFilePath, NamesTheVpn)
{
    EXPECT_EQ(PidFilePath(0), "/var/run/kvl_dns_vpn_0.pid");
    EXPECT_EQ(PidFilePath(kLargest), "/var/run/kvl_dns_vpn_4294967295.pid");
}

TEST(VpnOfPidFile, ReadsTheNumberBetweenStemAndEnding)
{
    EXPECT_THAT(VpnOfPidFile("kvl_dns_vpn_0.pid"), Optional(0U));
    EXPECT_THAT(VpnOfPidFile("kvl_dns_vpn_10.pid"), Optional(10U));
    EXPECT_THAT(VpnOfPidFile("kvl_dns_vpn_4294967295.pid"), Optional(kLargest));
}

TEST(VpnOfPidFile, IgnoresEveryOtherName)
{
    for (const char *name :
         {"", "kvl_dns_vpn_.pid", "kvl_dns_vpn_7", "kvl_dns_vpn_7.pid.old", "xkvl_dns_vpn_7.pid", "kvl_dns_vpn_x7.pid",
          "kvl_dns_vpn_7x.pid", "kvl_dns_vpn_-7.pid", "kvl_dns_vpn_+7.pid", "kvl_dns_vpn_ 7.pid",
          "kvl_dns_vpn_4294967296.pid", "dnsmasq.pid", "/var/run/kvl_dns_vpn_7.pid"}) {
        EXPECT_EQ(VpnOfPidFile(name), std::nullopt) << name;
    }
}

TEST(VpnOfStateFile, ReadsTheNumberOfAFileOfTheKind)
{
    EXPECT_EQ(StateFileName(7, "launch"), "vpn_7.launch");
    for (const std::uint32_t vpnId : {0U, 10U, kLargest}) {
        EXPECT_THAT(VpnOfStateFile(StateFileName(vpnId, "launch"), "launch"), Optional(vpnId));
    }
    for (const char *name :
         {"", "launch", "vpn_.launch", "vpn_7.meant", "vpn_7launch", "vpn_07.launch", "vpn_7.x.launch", "vpn_-7.launch",
          "vpn_4294967296.launch", ".vpn_7.launch", "vpn_7.launch.x"}) {
        EXPECT_EQ(VpnOfStateFile(name, "launch"), std::nullopt) << name;
    }
}

TEST(VpnOfCommandLine, FindsTheOptionAmongTheArguments)
{
    EXPECT_THAT(VpnOfCommandLine(CommandLine({"/usr/sbin/dnsmasq", OptionOf("kvl_dns_vpn_7.pid"), "-k"})),
                Optional(7U));
    EXPECT_THAT(VpnOfCommandLine(CommandLine({"dnsmasq", "-C", "/etc/x", OptionOf("kvl_dns_vpn_4294967295.pid")})),
                Optional(kLargest));
}

TEST(VpnOfCommandLine, TellsVpn1FromVpn10)
{
    EXPECT_THAT(VpnOfCommandLine(CommandLine({"dnsmasq", OptionOf("kvl_dns_vpn_10.pid")})), Optional(10U));
    EXPECT_THAT(VpnOfCommandLine(CommandLine({"dnsmasq", OptionOf("kvl_dns_vpn_1.pid")})), Optional(1U));
}

// The shell that starts an instance has the whole command in one argument.
TEST(VpnOfCommandLine, FindsTheOptionInsideAShellCommand)
{
    EXPECT_THAT(VpnOfCommandLine(CommandLine({"sh", "-c",
                                              "/usr/bin/nsenter --net=/run/netns/vpn_7 /usr/sbin/dnsmasq " +
                                                  OptionOf("kvl_dns_vpn_7.pid") + " -C /etc/x"})),
                Optional(7U));
    EXPECT_THAT(VpnOfCommandLine(CommandLine({"sh", "-c", "dnsmasq " + OptionOf("kvl_dns_vpn_7.pid")})), Optional(7U));
}

TEST(VpnOfCommandLine, TheOptionEndsAfterThePidFile)
{
    for (const char *file : {"kvl_dns_vpn_7.pid.old", "kvl_dns_vpn_7.pids", "kvl_dns_vpn_7.pi", "kvl_dns_vpn_7",
                             "kvl_dns_vpn_7/x.pid", "kvl_dns_vpn_7.pid;"}) {
        EXPECT_EQ(VpnOfCommandLine(CommandLine({"dnsmasq", OptionOf(file)})), std::nullopt) << file;
        EXPECT_EQ(VpnOfCommandLine("dnsmasq " + OptionOf(file)), std::nullopt) << file;
    }
    EXPECT_THAT(VpnOfCommandLine("dnsmasq " + OptionOf("kvl_dns_vpn_7.pid")), Optional(7U));
}

TEST(VpnOfCommandLine, RefusesWhatIsNoVpn)
{
    for (const char *file : {"kvl_dns_vpn_.pid", "kvl_dns_vpn_-7.pid", "kvl_dns_vpn_x.pid",
                             "kvl_dns_vpn_4294967296.pid", "dns_vpn_7.pid"}) {
        EXPECT_EQ(VpnOfCommandLine(CommandLine({"dnsmasq", OptionOf(file)})), std::nullopt) << file;
    }
}

TEST(VpnOfCommandLine, NeedsTheProgramAndTheOption)
{
    EXPECT_EQ(VpnOfCommandLine(""), std::nullopt);
    EXPECT_EQ(VpnOfCommandLine(CommandLine({"dnsmasq", "-k"})), std::nullopt);
    EXPECT_EQ(VpnOfCommandLine(CommandLine({"tail", OptionOf("kvl_dns_vpn_7.pid")})), std::nullopt);
    EXPECT_EQ(VpnOfCommandLine(CommandLine({"dnsmasq", "/var/run/kvl_dns_vpn_7.pid"})), std::nullopt);
    EXPECT_EQ(VpnOfCommandLine(CommandLine({"dnsmasq", "--pid-file=/tmp/kvl_dns_vpn_7.pid"})), std::nullopt);
}

constexpr uid_t kAgentUser = 0;
constexpr uid_t kDnsmasqUser = 65534;
constexpr uid_t kOtherUser = 1000;

const InstanceIdentity &Identity()
{
    static const InstanceIdentity identity{
        "dnsmasq", {"/usr/bin/dash", "/usr/bin/nsenter"}, {kAgentUser, kDnsmasqUser}};
    return identity;
}

Process Running(const std::string &executable, const std::string &commandLine = "")
{
    Process process;
    process.alive = true;
    process.executable = executable;
    process.executableOwner = 0;
    process.user = kDnsmasqUser;
    process.commandLine = commandLine;
    return process;
}

Process InstanceOf(const std::string &vpn)
{
    return Running("/usr/sbin/dnsmasq", CommandLine({"/usr/sbin/dnsmasq", OptionOf("kvl_dns_vpn_" + vpn + ".pid")}));
}

TEST(IsDnsmasq, KnowsTheProcessByItsExecutable)
{
    EXPECT_TRUE(IsDnsmasq(Running("/usr/sbin/dnsmasq"), Identity()));
    EXPECT_TRUE(IsDnsmasq(Running("/usr/sbin/dnsmasq (deleted)"), Identity())) << "replaced by an upgrade";
    EXPECT_TRUE(IsDnsmasq(Running("/opt/aside/dnsmasq"), Identity())) << "executed by a wrapper";
    for (const char *other : {"", "/usr/bin/dash", "/usr/sbin/dnsmasq2", "/opt/dnsmasq/sh"}) {
        EXPECT_FALSE(IsDnsmasq(Running(other), Identity())) << other;
    }
}

TEST(IsDnsmasq, AProcessThatIsNotAliveIsNone)
{
    Process process = Running("/usr/sbin/dnsmasq");
    process.alive = false;
    EXPECT_FALSE(IsDnsmasq(process, Identity()));
}

TEST(IsDnsmasq, AProcessOfAnotherUserIsNone)
{
    Process process = Running("/usr/sbin/dnsmasq");
    process.user = kOtherUser;
    EXPECT_FALSE(IsDnsmasq(process, Identity()));
}

TEST(IsDnsmasq, AnExecutableThatOthersCanChangeIsNone)
{
    Process process = Running("/tmp/dnsmasq");
    process.executableOwner = kDnsmasqUser;
    EXPECT_FALSE(IsDnsmasq(process, Identity()));
    process.executableOwner = std::nullopt;
    EXPECT_FALSE(IsDnsmasq(process, Identity()));
}

TEST(IsInstanceOf, IsTheDnsmasqWithTheVpnsPidFile)
{
    const Process process = InstanceOf("10");
    EXPECT_TRUE(IsInstanceOf(process, 10, Identity()));
    EXPECT_FALSE(IsInstanceOf(process, 1, Identity()));
    EXPECT_FALSE(IsInstanceOf(process, 100, Identity()));
    EXPECT_FALSE(IsInstanceOf(Running("/usr/sbin/dnsmasq", CommandLine({"/usr/sbin/dnsmasq"})), 10, Identity()));
}

TEST(IsInstanceOf, TheShellThatStartsAnInstanceIsNone)
{
    const Process process =
        Running("/usr/bin/dash", CommandLine({"sh", "-c", "dnsmasq " + OptionOf("kvl_dns_vpn_10.pid")}));
    EXPECT_FALSE(IsInstanceOf(process, 10, Identity()));
}

TEST(VpnOfProcess, KnowsTheInstanceAndWhatStartsIt)
{
    EXPECT_THAT(VpnOfProcess(InstanceOf("10"), Identity()), Optional(10U));
    Process shell = Running("/usr/bin/dash", CommandLine({"sh", "-c", "dnsmasq " + OptionOf("kvl_dns_vpn_10.pid")}));
    shell.user = kAgentUser;
    EXPECT_THAT(VpnOfProcess(shell, Identity()), Optional(10U));
    shell.user = kDnsmasqUser;
    EXPECT_EQ(VpnOfProcess(shell, Identity()), std::nullopt) << "only the agent starts instances";
}

TEST(VpnOfProcess, APersonsCommandIsNone)
{
    Process process = Running("/usr/bin/vim", CommandLine({"vim", "dnsmasq", OptionOf("kvl_dns_vpn_10.pid")}));
    process.user = kAgentUser;
    EXPECT_EQ(VpnOfProcess(process, Identity()), std::nullopt);
    Process stranger = InstanceOf("10");
    stranger.user = kOtherUser;
    EXPECT_EQ(VpnOfProcess(stranger, Identity()), std::nullopt);
}

TEST(VpnOfCommandLine, TheOptionIsAnArgumentOfItsOwn)
{
    EXPECT_EQ(VpnOfCommandLine(CommandLine({"dnsmasq", "x" + OptionOf("kvl_dns_vpn_7.pid")})), std::nullopt);
}

TEST(VpnsWithProcesses, HasTheVpnsOfRunningProcesses)
{
    constexpr std::uint32_t kVpn = 4000000001; // no instance of a real agent on this host
    const WaitingProcess stranger({"tail", OptionOf("kvl_dns_vpn_4000000002.pid")});
    {
        const WaitingProcess instance({"/usr/sbin/dnsmasq", OptionOf("kvl_dns_vpn_4000000001.pid")});
        EXPECT_THAT(VpnsWithProcesses(InstanceIdentity::OfBox()), testing::Contains(kVpn));
    }
    EXPECT_THAT(VpnsWithProcesses(InstanceIdentity::OfBox()),
                testing::Not(testing::AnyOf(testing::Contains(kVpn), testing::Contains(kVpn + 1))));
}

} // namespace
} // namespace kavel::agent
