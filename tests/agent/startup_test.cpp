// What needs no namespace: the checks of namespaces that do not exist, and the order of the start on such a box.
#include "instances/startup.h"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <system_error>

#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::Not;

std::string CheckFailure(const Config &config)
{
    Host host(config);
    try {
        CheckVpns(host);
    } catch (const ConfigError &error) {
        return error.what();
    }
    return "passed";
}

TEST(CheckVpns, PassesWithoutVpns)
{
    const TestBox box;
    Config config = box.Configuration();
    config.vpns.clear();
    EXPECT_EQ(CheckFailure(config), "passed");
}

TEST(CheckVpns, NamesTheFirstNamespaceThatDoesNotExist)
{
    const TestBox box;
    const Config config = box.Configuration();
    EXPECT_EQ(CheckFailure(config), "vpns[0].namespace: \"" + config.vpns.front().netns + "\" does not exist");
}

TEST(PrepareNamespace, LeavesTheBoxAlone)
{
    const TestBox box;
    Host host(box.Configuration());
    EXPECT_NO_THROW(PrepareNamespace(host, 0));
}

TEST(PrepareNamespace, ThrowsWhenTheNamespaceCannotBeEntered)
{
    const TestBox box;
    Host host(box.Configuration());
    EXPECT_THROW(PrepareNamespace(host, TestVpn(1)), std::system_error);
}

// Puts the limit of open files back.
class LimitsTest : public testing::Test {
  protected:
    LimitsTest() { EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0); }
    ~LimitsTest() override { EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &before_), 0); }

    // The limit after the agent has adjusted it for so many VPNs.
    rlim_t Adjusted(std::size_t vpns, rlim_t from) const
    {
        const rlimit start{from, before_.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &start), 0);
        Config config;
        config.vpns.resize(vpns);
        AdjustLimits(config);
        rlimit now{};
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &now), 0);
        EXPECT_EQ(now.rlim_max, before_.rlim_max);
        return now.rlim_cur;
    }

    const Unprivileged unprivileged_;
    rlimit before_{};
};

TEST_F(LimitsTest, RaisesTheLimitToThreeDescriptorsPerVpnAndTheOthers)
{
    EXPECT_EQ(Adjusted(10, 64), std::min<rlim_t>(10 * 3 + 1024 + 256, before_.rlim_max));
}

TEST_F(LimitsTest, DoesNotLowerTheLimit)
{
    const rlim_t high = std::min<rlim_t>(2000, before_.rlim_max);
    EXPECT_EQ(Adjusted(1, high), high);
}

TEST_F(LimitsTest, RaisesTheLimitAtMostToTheHardOne)
{
    if (before_.rlim_max > 4'000'000) {
        GTEST_SKIP() << "the hard limit is too high to be reached";
    }
    LogCapture log;
    EXPECT_EQ(Adjusted(2'000'000, 64), before_.rlim_max);
}

TEST_F(LimitsTest, WarnsWhenThereAreTooFewInotifyInstances)
{
    LogCapture none;
    (void)Adjusted(0, 64);
    EXPECT_EQ(none.Take(), "");
    LogCapture log;
    (void)Adjusted(1'000'000, 64);
    EXPECT_THAT(log.Take(), HasSubstr("too few for the instances of 1000000 VPNs"));
}

// ---- The start ----

class StartServicesTest : public testing::Test {
  protected:
    bool Start(const Config &config)
    {
        Host host(config);
        host.conversions.DnsmasqStrToConf = ConvertStoredText;
        EventLoop loop;
        if (exits_) {
            loop.Exit();
        }
        PendingLaunches launches(loop, instances_, outputs_);
        LogCapture log;
        const bool isStarted = StartServices(loop, host, instances_, module_.functions, launches);
        EXPECT_TRUE(launches.IsEmpty());
        log_ = log.Take();
        return isStarted;
    }

    static std::string Call(const std::string &name, std::uint32_t number)
    {
        return name + " " + std::to_string(TestVpn(number));
    }

    TestBox box_;
    Instances instances_{box_.Root()};
    LaunchOutputs outputs_;
    FakeModule module_;
    bool exits_ = false;
    std::string log_;
};

TEST_F(StartServicesTest, PreparesTheBoxAndTheModule)
{
    box_.Write("/etc/kavel/dnsmasq/.hosts.Ab12Cd", "left by an interrupted write");
    EXPECT_TRUE(Start(box_.Configuration()));
    EXPECT_FALSE(std::filesystem::exists(box_.Path("/etc/kavel/dnsmasq/.hosts.Ab12Cd")));
    EXPECT_TRUE(std::filesystem::exists(box_.Path("/etc/kavel/dnsmasq/dnsmasq.conf")));
    EXPECT_THAT(module_.calls,
                ElementsAre("platform", "stop old service", Call("init", 1), Call("init", 2), Call("init", 3)));
}

TEST_F(StartServicesTest, RecoversTheRecordsWithPersistence)
{
    Config config = box_.Configuration();
    config.persistence = true;
    EXPECT_TRUE(Start(config));
    EXPECT_EQ(module_.calls.back(), "recover");
}

TEST_F(StartServicesTest, LogsFailuresAndGoesOn)
{
    std::filesystem::remove_all(box_.Path("/etc/kavel"));
    box_.Write("/etc/kavel", "a file in the place of the directory");
    module_.directoryResult = -ENOSPC;
    EXPECT_TRUE(Start(box_.Configuration()));
    EXPECT_THAT(log_, HasSubstr("ERROR the box-wide directory is not complete: "));
    for (std::uint32_t number = 1; number <= 3; ++number) {
        const std::string subject = "ERROR vpn " + std::to_string(TestVpn(number));
        EXPECT_THAT(log_, HasSubstr(subject + ": its namespace is not ready: "));
        EXPECT_THAT(log_, HasSubstr(subject + ": no instance directory: No space left on device"));
    }
    EXPECT_EQ(module_.calls.size(), 5U);
}

TEST_F(StartServicesTest, WarnsOfInstancesWhoseVpnsAreNotConfigured)
{
    const FakeInstance stray(box_, TestVpn(9));
    const FakeInstance configured(box_, TestVpn(1));
    for (const auto &[number, pid] : {std::pair(9U, stray.Pid()), std::pair(1U, configured.Pid())}) {
        box_.WritePidFile(TestVpn(number), std::to_string(pid));
    }
    EXPECT_TRUE(Start(box_.Configuration()));
    const auto warning = [](std::uint32_t number) {
        return "WARNING vpn " + std::to_string(TestVpn(number)) + ": an instance runs, but the VPN is not configured";
    };
    EXPECT_THAT(log_, HasSubstr(warning(9)));
    EXPECT_THAT(log_, Not(HasSubstr(warning(1))));
}

TEST_F(StartServicesTest, CallsTheModuleOnlyWhenEarlierLaunchesHaveEnded)
{
    FakeInstance starting(box_, TestVpn(1));
    Host host(box_.Configuration());
    EventLoop loop;
    PendingLaunches launches(loop, instances_, outputs_);
    EventSource writer = loop.AddDeferred([&] {
        EXPECT_THAT(module_.calls, ElementsAre());
        box_.WritePidFile(TestVpn(1), std::to_string(starting.Pid()));
    });
    writer.Enable();
    LogCapture log;
    EXPECT_TRUE(StartServices(loop, host, instances_, module_.functions, launches));
    EXPECT_EQ(module_.calls.size(), 5U);
}

TEST_F(StartServicesTest, StopsWhenTheLoopIsToExit)
{
    exits_ = true;
    const FakeInstance starting(box_, TestVpn(1));
    EXPECT_FALSE(Start(box_.Configuration()));
    EXPECT_THAT(module_.calls, ElementsAre());
}

} // namespace
} // namespace kavel::agent
