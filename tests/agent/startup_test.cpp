// What needs no namespace.
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

TEST(PrepareNamespace, LeavesTheBoxAlone)
{
    const TestBox box;
    Host host(box.Configuration());
    EXPECT_FALSE(PrepareNamespace(host, 0));
}

TEST(PrepareNamespace, ThrowsWhenTheNamespaceCannotBeEntered)
{
    const TestBox box;
    Host host(box.Configuration());
    EXPECT_THROW((void)PrepareNamespace(host, TestVpn(1)), std::system_error);
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

TEST_F(LimitsTest, RaisesTheLimitToSevenDescriptorsPerVpnAndTheOthers)
{
    EXPECT_EQ(Adjusted(10, 64), std::min<rlim_t>(10 * 7 + 1024 + 256, before_.rlim_max));
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

// ---- The box ----

class PrepareBoxTest : public testing::Test {
  protected:
    std::string Prepare()
    {
        LogCapture log;
        PrepareBox(instances_, module_.functions);
        return log.Take();
    }

    TestBox box_;
    Instances instances_{box_.Root()};
    FakeModule module_;
};

TEST_F(PrepareBoxTest, PreparesTheDirectoryAndThePlatform)
{
    box_.Write("/etc/kavel/dnsmasq/.hosts.Ab12Cd", "left by an interrupted write");
    EXPECT_EQ(Prepare(), "");
    EXPECT_FALSE(std::filesystem::exists(box_.Path("/etc/kavel/dnsmasq/.hosts.Ab12Cd")));
    EXPECT_TRUE(std::filesystem::exists(box_.Path("/etc/kavel/dnsmasq/dnsmasq.conf")));
    EXPECT_THAT(module_.calls, ElementsAre("platform", "stop old service"));
}

TEST_F(PrepareBoxTest, LogsAFailureAndGoesOn)
{
    std::filesystem::remove_all(box_.Path("/etc/kavel"));
    box_.Write("/etc/kavel", "a file in the place of the directory");
    EXPECT_THAT(Prepare(), HasSubstr("ERROR the box-wide directory is not complete: "));
    EXPECT_THAT(module_.calls, ElementsAre("platform", "stop old service"));
}

} // namespace
} // namespace kavel::agent
