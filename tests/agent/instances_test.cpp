#include "instances/instances.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <vector>

#include "base/instance_process.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAre;

class InstancesTest : public testing::Test {
  protected:
    [[nodiscard]] bool Exists(const std::string &path) const { return std::filesystem::exists(box_.Path(path)); }

    const std::uint32_t vpnId_ = TestVpn(1);
    TestBox box_;
    Instances instances_{box_.Root()};
};

TEST_F(InstancesTest, NamesTheDirectories)
{
    EXPECT_EQ(instances_.PidDirectory(), box_.Path("/var/run"));
    EXPECT_EQ(instances_.Directory(0), box_.Path("/etc/kavel/dnsmasq"));
    EXPECT_EQ(instances_.Directory(7), box_.Path("/etc/kavel/dnsmasq/vpn_7"));
    EXPECT_EQ(Instances().PidDirectory(), "/var/run");
    EXPECT_EQ(Instances().Directory(4'294'967'295U), "/etc/kavel/dnsmasq/vpn_4294967295");
}

TEST_F(InstancesTest, NamesTheFilesOfAnInstance)
{
    const std::vector<std::string> files = instances_.Files(7);
    const std::string directory = box_.Path("/etc/kavel/dnsmasq/vpn_7");
    EXPECT_THAT(files, ElementsAre(directory + "/hosts", directory + "/resolv.conf", directory + "/dnsmasq.conf",
                                   directory + "/dnsmasq.d/Mxhost.conf", directory + "/dnsmasq.d/ServerMap.conf",
                                   directory + "/dnsmasq.d/DnsProxy.conf"));
    EXPECT_EQ(instances_.Files(0).front(), box_.Path("/etc/kavel/dnsmasq/hosts"));
}

TEST_F(InstancesTest, FindsTheVpnsWithAStateFile)
{
    EXPECT_EQ(instances_.StatePath(7, "launch"), box_.Path("/run/kavel/vpn_7.launch"));
    EXPECT_THAT(instances_.WithState("launch"), ElementsAre());
    for (const char *name : {"vpn_7.launch", "vpn_0.launch", "vpn_8.meant", "agent.pid"}) {
        box_.Write(std::string("/run/kavel/") + name, "");
    }
    EXPECT_THAT(instances_.WithState("launch"), ElementsAre(0U, 7U));
    std::filesystem::remove_all(box_.Path("/run"));
    EXPECT_THAT(instances_.WithState("launch"), ElementsAre());
}

// ---- Pid files ----

TEST_F(InstancesTest, WritesAndRemovesAPidFile)
{
    box_.WritePidFile(vpnId_, "1\n");
    instances_.WritePidFile(vpnId_, 4711);
    const PidFile file = instances_.ReadPidFile(vpnId_);
    EXPECT_EQ(file.pid, 4711);
    EXPECT_TRUE(file.isOwn);
    instances_.RemovePidFile(vpnId_);
    EXPECT_FALSE(instances_.ReadPidFile(vpnId_).exists);
    EXPECT_NO_THROW(instances_.RemovePidFile(vpnId_)) << "there is none";
    std::filesystem::create_directories(box_.Path(PidFilePath(vpnId_)));
    EXPECT_THROW(instances_.RemovePidFile(vpnId_), std::system_error);
}

TEST_F(InstancesTest, FindsEveryProcessOfAnInstance)
{
    const FakeInstance first(box_, vpnId_);
    const FakeInstance second(box_, vpnId_);
    const FakeInstance other(box_, TestVpn(2));
    const FakeInstance notDnsmasq(box_, TestVpn(3), "dnsmasq-x");
    const auto processes = instances_.ProcessesByVpn();
    EXPECT_THAT(processes.at(vpnId_), UnorderedElementsAre(first.Pid(), second.Pid()));
    EXPECT_THAT(processes.at(TestVpn(2)), ElementsAre(other.Pid()));
    EXPECT_FALSE(processes.contains(TestVpn(3)));
}

TEST_F(InstancesTest, AMissingPidFileDoesNotExist)
{
    const PidFile file = instances_.ReadPidFile(vpnId_);
    EXPECT_FALSE(file.exists);
    EXPECT_TRUE(file.isEmpty);
    EXPECT_EQ(file.pid, 0);
}

TEST_F(InstancesTest, AnEmptyPidFileExists)
{
    box_.WritePidFile(vpnId_, "");
    const PidFile file = instances_.ReadPidFile(vpnId_);
    EXPECT_TRUE(file.exists);
    EXPECT_TRUE(file.isEmpty);
    EXPECT_EQ(file.pid, 0);
}

TEST_F(InstancesTest, ReadsAPidFileTheWayTheModuleDoes)
{
    struct Case {
        const char *text;
        pid_t pid;
    };
    for (const Case &each : {Case{"4711\n", 4711}, Case{"4711", 4711}, Case{" 12x", 12}, Case{"x12", 0}, Case{"\n", 0},
                             Case{"-1", -1}, Case{"0", 0}, Case{"                              1234", 12}}) {
        box_.WritePidFile(vpnId_, each.text);
        const PidFile file = instances_.ReadPidFile(vpnId_);
        EXPECT_TRUE(file.exists && !file.isEmpty) << each.text;
        EXPECT_EQ(file.pid, each.pid) << each.text;
    }
}

TEST_F(InstancesTest, APidFileThatIsADirectoryIsEmpty)
{
    std::filesystem::create_directories(box_.Path(PidFilePath(vpnId_)));
    EXPECT_TRUE(instances_.ReadPidFile(vpnId_).isEmpty);
}

// ---- Running ----

TEST_F(InstancesTest, AnInstanceRunsWhenThePidFileNamesIt)
{
    FakeInstance instance(box_, vpnId_);
    EXPECT_FALSE(instances_.IsRunning(vpnId_)) << "there is no pid file";
    box_.WritePidFile(vpnId_, std::to_string(instance.Pid()) + "\n");
    EXPECT_TRUE(instances_.IsRunning(vpnId_));
    instance.Stop();
    EXPECT_FALSE(instances_.IsRunning(vpnId_));
}

TEST_F(InstancesTest, TheInstanceOfAnotherVpnIsNotTheVpns)
{
    const FakeInstance instance(box_, TestVpn(2));
    box_.WritePidFile(vpnId_, std::to_string(instance.Pid()));
    EXPECT_FALSE(instances_.IsRunning(vpnId_));
}

TEST_F(InstancesTest, AnotherProgramIsNoInstance)
{
    const FakeInstance instance(box_, vpnId_, "dnsmasq2");
    box_.WritePidFile(vpnId_, std::to_string(instance.Pid()));
    EXPECT_FALSE(instances_.IsRunning(vpnId_));
}

// ---- Whether it is meant to run ----

TEST_F(InstancesTest, KeepsWhetherAnInstanceIsMeantToRun)
{
    EXPECT_FALSE(instances_.IsMeantToRun(vpnId_));
    instances_.SetMeantToRun(vpnId_, true);
    EXPECT_TRUE(instances_.IsMeantToRun(vpnId_));
    EXPECT_FALSE(instances_.IsMeantToRun(TestVpn(2)));
    EXPECT_TRUE(Instances(box_.Root()).IsMeantToRun(vpnId_)) << "for the next agent";
    instances_.SetMeantToRun(vpnId_, true);
    EXPECT_TRUE(instances_.IsMeantToRun(vpnId_));
    instances_.SetMeantToRun(vpnId_, false);
    EXPECT_FALSE(instances_.IsMeantToRun(vpnId_));
}

TEST_F(InstancesTest, AMarkThatIsMissingAlreadyIsNoFailure)
{
    LogCapture log;
    instances_.SetMeantToRun(vpnId_, false);
    EXPECT_EQ(log.Take(), "");
}

TEST_F(InstancesTest, LogsAMarkThatCannotBeChanged)
{
    std::filesystem::remove_all(box_.Path("/run/kavel"));
    LogCapture log;
    instances_.SetMeantToRun(vpnId_, true);
    EXPECT_THAT(log.Take(), StartsWith("WARNING vpn " + std::to_string(vpnId_) + ": "));
    box_.Write("/run/kavel", "a file in the place of the directory");
    LogCapture another;
    instances_.SetMeantToRun(vpnId_, false);
    EXPECT_THAT(another.Take(), HasSubstr("Not a directory"));
}

// ---- Reload ----

TEST_F(InstancesTest, AReloadWithoutAProcessIsSafe)
{
    EXPECT_EQ(instances_.ReloadObjection(vpnId_), std::nullopt) << "no pid file";
    box_.WritePidFile(vpnId_, "");
    EXPECT_EQ(instances_.ReloadObjection(vpnId_), std::nullopt) << "an empty one";
    FakeInstance instance(box_, vpnId_);
    const std::string pid = std::to_string(instance.Pid());
    instance.Stop();
    box_.WritePidFile(vpnId_, pid);
    EXPECT_EQ(instances_.ReloadObjection(vpnId_), std::nullopt) << "one of a process that is gone";
}

TEST_F(InstancesTest, AReloadOfTheInstanceIsSafe)
{
    const FakeInstance instance(box_, vpnId_);
    box_.WritePidFile(vpnId_, std::to_string(instance.Pid()));
    EXPECT_EQ(instances_.ReloadObjection(vpnId_), std::nullopt);
}

TEST_F(InstancesTest, ObjectsToAReloadThatWouldSignalManyProcesses)
{
    const std::string subject = "pid file " + PidFilePath(vpnId_);
    for (const char *pid : {"0", "-1", "none"}) {
        box_.WritePidFile(vpnId_, pid);
        const std::string number = std::string(pid) == "none" ? "0" : pid;
        EXPECT_EQ(instances_.ReloadObjection(vpnId_), subject + " holds " + number + ", which is not a process id");
    }
}

TEST_F(InstancesTest, ObjectsToAReloadOfAnotherProcess)
{
    const FakeInstance other(box_, TestVpn(2));
    const std::string pid = std::to_string(other.Pid());
    box_.WritePidFile(vpnId_, pid);
    EXPECT_EQ(instances_.ReloadObjection(vpnId_), "pid file " + PidFilePath(vpnId_) + " names process " + pid +
                                                      " (dnsmasq), which is not this VPN's dnsmasq");
}

// ---- Directories ----

TEST_F(InstancesTest, CreatesTheBoxWideDirectory)
{
    std::filesystem::remove_all(box_.Path("/etc"));
    instances_.CreateBoxDirectory();
    EXPECT_TRUE(std::filesystem::is_directory(box_.Path("/etc/kavel/dnsmasq/dnsmasq.d")));
    EXPECT_EQ(ReadText(box_.Path("/etc/kavel/dnsmasq/hosts")), "");
    EXPECT_TRUE(Exists("/etc/kavel/dnsmasq/hosts"));
    EXPECT_TRUE(Exists("/etc/kavel/dnsmasq/resolv.conf"));
    EXPECT_EQ(ReadText(box_.Path("/etc/kavel/dnsmasq/dnsmasq.conf")), "resolv-file=/etc/kavel/dnsmasq/resolv.conf\n"
                                                                      "addn-hosts=/etc/kavel/dnsmasq/hosts\n"
                                                                      "conf-dir=/etc/kavel/dnsmasq/dnsmasq.d/,*.conf\n"
                                                                      "cache-size=1000\n"
                                                                      "domain-needed\n");
}

TEST_F(InstancesTest, LeavesTheFilesOfTheBoxWideDirectory)
{
    for (const char *name : {"hosts", "resolv.conf", "dnsmasq.conf"}) {
        box_.Write(std::string("/etc/kavel/dnsmasq/") + name, name);
    }
    instances_.CreateBoxDirectory();
    for (const char *name : {"hosts", "resolv.conf", "dnsmasq.conf"}) {
        EXPECT_EQ(ReadText(box_.Path(std::string("/etc/kavel/dnsmasq/") + name)), name);
    }
}

TEST_F(InstancesTest, ThrowsWhenTheBoxWideDirectoryCannotBeCreated)
{
    std::filesystem::remove_all(box_.Path("/etc/kavel"));
    box_.Write("/etc/kavel", "a file in the place of the directory");
    EXPECT_THROW(instances_.CreateBoxDirectory(), std::system_error);
}

TEST_F(InstancesTest, RemovesLeftoversOfInterruptedWrites)
{
    const std::string box = "/etc/kavel/dnsmasq";
    const std::vector<std::string> leftovers{box + "/.hosts.Ab12Cd", box + "/dnsmasq.d/.Mxhost.conf.Ab12Cd",
                                             box + "/vpn_7/.resolv.conf.Ab12Cd",
                                             box + "/vpn_7/dnsmasq.d/.DnsProxy.conf.Ab12Cd"};
    const std::vector<std::string> others{box + "/hosts", box + "/vpn_7/resolv.conf", box + "/vpn_7/.notes.Ab12Cd",
                                          box + "/copy/.hosts.Ab12Cd"};
    for (const std::string &path : leftovers) {
        box_.Write(path, "");
    }
    for (const std::string &path : others) {
        box_.Write(path, "");
    }
    instances_.RemoveLeftovers();
    for (const std::string &path : leftovers) {
        EXPECT_FALSE(Exists(path)) << path;
    }
    for (const std::string &path : others) {
        EXPECT_TRUE(Exists(path)) << path;
    }
}

TEST_F(InstancesTest, RemovesNothingWhereThereIsNoDirectory)
{
    std::filesystem::remove_all(box_.Path("/etc"));
    EXPECT_NO_THROW(instances_.RemoveLeftovers());
    EXPECT_FALSE(Exists("/etc"));
}

} // namespace
} // namespace kavel::agent
