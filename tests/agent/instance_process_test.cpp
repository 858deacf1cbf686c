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

Process RunningProcess(const std::string &name, const std::string &executable)
{
    return {
        .alive = true, .name = name, .executable = executable, .commandLine = "", .uptimeSeconds = 0, .memoryBytes = 0};
}

TEST(IsDnsmasq, KnowsTheProcessByItsNameOrItsExecutable)
{
    EXPECT_TRUE(IsDnsmasq(RunningProcess("dnsmasq", "")));
    EXPECT_TRUE(IsDnsmasq(RunningProcess("renamed", "/usr/sbin/dnsmasq")));
    EXPECT_FALSE(IsDnsmasq(RunningProcess("sh", "/bin/dash")));
    EXPECT_FALSE(IsDnsmasq(RunningProcess("dnsmasq2", "/usr/sbin/dnsmasq2")));
    EXPECT_FALSE(IsDnsmasq(RunningProcess("sh", "/opt/dnsmasq/sh")));
}

TEST(IsDnsmasq, AProcessThatIsNotAliveIsNone)
{
    Process process = RunningProcess("dnsmasq", "/usr/sbin/dnsmasq");
    process.alive = false;
    EXPECT_FALSE(IsDnsmasq(process));
}

TEST(IsInstanceOf, IsTheDnsmasqWithTheVpnsPidFile)
{
    Process process = RunningProcess("dnsmasq", "/usr/sbin/dnsmasq");
    process.commandLine = CommandLine({"/usr/sbin/dnsmasq", OptionOf("kvl_dns_vpn_10.pid")});
    EXPECT_TRUE(IsInstanceOf(process, 10));
    EXPECT_FALSE(IsInstanceOf(process, 1));
    EXPECT_FALSE(IsInstanceOf(process, 100));
    process.commandLine = CommandLine({"/usr/sbin/dnsmasq"});
    EXPECT_FALSE(IsInstanceOf(process, 10));
}

TEST(IsInstanceOf, TheShellThatStartsAnInstanceIsNone)
{
    Process process = RunningProcess("sh", "/bin/dash");
    process.commandLine = CommandLine({"sh", "-c", "dnsmasq " + OptionOf("kvl_dns_vpn_10.pid")});
    EXPECT_FALSE(IsInstanceOf(process, 10));
}

TEST(VpnsWithProcesses, HasTheVpnsOfRunningProcesses)
{
    constexpr std::uint32_t kVpn = 4000000001; // no instance of a real agent on this host
    const WaitingProcess stranger({"tail", OptionOf("kvl_dns_vpn_4000000002.pid")});
    {
        const WaitingProcess instance({"/usr/sbin/dnsmasq", OptionOf("kvl_dns_vpn_4000000001.pid")});
        EXPECT_THAT(VpnsWithProcesses(), testing::Contains(kVpn));
    }
    EXPECT_THAT(VpnsWithProcesses(),
                testing::Not(testing::AnyOf(testing::Contains(kVpn), testing::Contains(kVpn + 1))));
}

} // namespace
} // namespace kavel::agent
