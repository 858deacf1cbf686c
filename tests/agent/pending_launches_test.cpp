#include "instances/pending_launches.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <utility>

#include "base/instance_process.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::Pair;
using testing::UnorderedElementsAre;

class PendingLaunchesTest : public testing::Test {
  protected:
    // Watches a launch, and notes its end.
    void Add(std::uint32_t vpnId, std::chrono::milliseconds timeout = 10min)
    {
        launches_.Add(vpnId, timeout, [this, vpnId](LaunchOutcome outcome) {
            EXPECT_FALSE(launches_.IsPending(vpnId)) << "a handler may add the next launch of the VPN";
            outcomes_.push_back(outcome);
        });
    }

    void WritePid(std::uint32_t vpnId, const FakeInstance &instance) const
    {
        box_.WritePidFile(vpnId, std::to_string(instance.Pid()) + "\n");
    }

    [[nodiscard]] bool RunUntilEnded(std::size_t count = 1)
    {
        return RunUntil(loop_, [&] { return outcomes_.size() >= count; });
    }

    const std::uint32_t vpnId_ = TestVpn(1);
    const std::uint32_t other_ = TestVpn(2);
    TestBox box_;
    Instances instances_{box_.Root()};
    EventLoop loop_;
    LaunchOutputs outputs_;
    PendingLaunches launches_{loop_, instances_, outputs_};
    std::vector<LaunchOutcome> outcomes_;
};

TEST_F(PendingLaunchesTest, ALaunchEndsAtOnceWhenTheInstanceRuns)
{
    const FakeInstance instance(box_, vpnId_);
    WritePid(vpnId_, instance);
    Add(vpnId_);
    EXPECT_THAT(outcomes_, ElementsAre(LaunchOutcome::kRunning));
    EXPECT_TRUE(launches_.IsEmpty());
}

TEST_F(PendingLaunchesTest, ALaunchIsPendingWithoutAPidFile)
{
    const FakeInstance instance(box_, vpnId_);
    Add(vpnId_);
    DispatchReady(loop_);
    EXPECT_THAT(outcomes_, ElementsAre());
    EXPECT_TRUE(launches_.IsPending(vpnId_));
    EXPECT_FALSE(launches_.IsPending(other_));
    EXPECT_FALSE(launches_.IsEmpty());
}

TEST_F(PendingLaunchesTest, TheInstanceRunsWhenItsPidFileIsWritten)
{
    const FakeInstance instance(box_, vpnId_);
    Add(vpnId_);
    WritePid(vpnId_, instance);
    DispatchReady(loop_); // no timer
    EXPECT_THAT(outcomes_, ElementsAre(LaunchOutcome::kRunning));
    EXPECT_TRUE(launches_.IsEmpty());
}

TEST_F(PendingLaunchesTest, TheInstanceRunsWhenItsPidFileIsMovedThere)
{
    const FakeInstance instance(box_, vpnId_);
    Add(vpnId_);
    box_.Write("/pid", std::to_string(instance.Pid()));
    std::filesystem::rename(box_.Path("/pid"), box_.Path(PidFilePath(vpnId_)));
    DispatchReady(loop_);
    EXPECT_THAT(outcomes_, ElementsAre(LaunchOutcome::kRunning));
}

TEST_F(PendingLaunchesTest, FilesThatDoNotNameTheInstanceAreIgnored)
{
    const FakeInstance instance(box_, vpnId_);
    Add(vpnId_);
    WritePid(other_, instance);
    box_.Write("/var/run/other.pid", std::to_string(instance.Pid()));
    box_.WritePidFile(vpnId_, "");
    DispatchReady(loop_);
    EXPECT_TRUE(launches_.IsPending(vpnId_));
    WritePid(vpnId_, instance);
    DispatchReady(loop_);
    EXPECT_FALSE(launches_.IsPending(vpnId_));
}

TEST_F(PendingLaunchesTest, ALaunchHasFailedAsSoonAsNoProcessIsLeft)
{
    FakeInstance instance(box_, vpnId_);
    Add(vpnId_);
    instance.Stop();
    EXPECT_TRUE(RunUntilEnded());
    EXPECT_THAT(outcomes_, ElementsAre(LaunchOutcome::kFailed));
}

TEST_F(PendingLaunchesTest, ALaunchHasFailedAfterItsTimeout)
{
    const FakeInstance instance(box_, vpnId_);
    const auto start = EventLoop::Clock::now();
    Add(vpnId_, 150ms);
    EXPECT_TRUE(RunUntilEnded());
    EXPECT_THAT(outcomes_, ElementsAre(LaunchOutcome::kFailed));
    EXPECT_GE(EventLoop::Clock::now() - start, 150ms);
}

TEST_F(PendingLaunchesTest, LaunchesEndIndependently)
{
    const FakeInstance slow(box_, vpnId_);
    const FakeInstance quick(box_, other_);
    Add(vpnId_);
    Add(other_);
    WritePid(other_, quick);
    EXPECT_TRUE(RunUntilEnded());
    EXPECT_TRUE(launches_.IsPending(vpnId_));
    EXPECT_FALSE(launches_.IsPending(other_));
    WritePid(vpnId_, slow);
    EXPECT_TRUE(RunUntilEnded(2));
    EXPECT_THAT(outcomes_, ElementsAre(LaunchOutcome::kRunning, LaunchOutcome::kRunning));
}

TEST_F(PendingLaunchesTest, ALaunchThatBeganLaterIsCheckedLater)
{
    const FakeInstance quick(box_, vpnId_);
    Add(vpnId_);
    EXPECT_FALSE(RunUntil(
        loop_, [] { return false; }, 25ms));
    Add(other_);
    WritePid(vpnId_, quick);
    EXPECT_TRUE(RunUntilEnded(2));
    EXPECT_THAT(outcomes_, ElementsAre(LaunchOutcome::kRunning, LaunchOutcome::kFailed));
}

TEST_F(PendingLaunchesTest, LaunchesThatFailEndInTheirOrder)
{
    Add(vpnId_);
    EXPECT_FALSE(RunUntil(
        loop_, [] { return false; }, 25ms));
    Add(other_);
    EXPECT_TRUE(RunUntilEnded());
    EXPECT_FALSE(launches_.IsPending(vpnId_));
    EXPECT_TRUE(RunUntilEnded(2));
    EXPECT_THAT(outcomes_, ElementsAre(LaunchOutcome::kFailed, LaunchOutcome::kFailed));
}

TEST_F(PendingLaunchesTest, AHandlerMayAddTheNextLaunchOfTheVpn)
{
    launches_.Add(vpnId_, 10min, [this](LaunchOutcome outcome) {
        outcomes_.push_back(outcome);
        Add(vpnId_);
    });
    EXPECT_TRUE(RunUntilEnded(2));
    EXPECT_THAT(outcomes_, ElementsAre(LaunchOutcome::kFailed, LaunchOutcome::kFailed));
}

TEST_F(PendingLaunchesTest, CancelAllEndsEveryLaunch)
{
    const FakeInstance instance(box_, vpnId_);
    Add(vpnId_);
    Add(other_);
    launches_.CancelAll();
    EXPECT_THAT(outcomes_, ElementsAre(LaunchOutcome::kCancelled, LaunchOutcome::kCancelled));
    EXPECT_TRUE(launches_.IsEmpty());
    DispatchReady(loop_);
    EXPECT_EQ(outcomes_.size(), 2U);
}

// The directory did not exist when the watch was to be set up.
TEST_F(PendingLaunchesTest, FindsThePidFileWithoutAWatch)
{
    const TestBox other;
    std::filesystem::remove_all(other.Path("/var"));
    const Instances instances(other.Root());
    PendingLaunches launches(loop_, instances, outputs_);
    const FakeInstance instance(other, vpnId_);
    launches.Add(vpnId_, 10min, [this](LaunchOutcome outcome) { outcomes_.push_back(outcome); });
    other.WritePidFile(vpnId_, std::to_string(instance.Pid()));
    EXPECT_TRUE(RunUntilEnded());
    EXPECT_THAT(outcomes_, ElementsAre(LaunchOutcome::kRunning));
}

// ---- The observer ----

class ObservedLaunchesTest : public PendingLaunchesTest {
  protected:
    ObservedLaunchesTest()
    {
        launches_.Observe([this](std::uint32_t vpnId, LaunchOutcome outcome) {
            EXPECT_EQ(outcomes_.size(), observed_.size() + 1) << "the launch's own handler is called first";
            EXPECT_FALSE(launches_.IsPending(vpnId)) << "the next launch of the VPN may be added";
            observed_.emplace_back(vpnId, outcome);
        });
    }

    std::vector<std::pair<std::uint32_t, LaunchOutcome>> observed_;
};

TEST_F(ObservedLaunchesTest, AnInstanceThatRunsAlreadyIsObserved)
{
    const FakeInstance instance(box_, vpnId_);
    WritePid(vpnId_, instance);
    Add(vpnId_);
    EXPECT_THAT(observed_, ElementsAre(Pair(vpnId_, LaunchOutcome::kRunning)));
}

TEST_F(ObservedLaunchesTest, EveryEndIsObserved)
{
    const FakeInstance good(box_, vpnId_);
    Add(vpnId_);
    Add(other_);
    EXPECT_THAT(observed_, ElementsAre());
    WritePid(vpnId_, good);
    EXPECT_TRUE(RunUntilEnded(2));
    EXPECT_THAT(observed_,
                UnorderedElementsAre(Pair(vpnId_, LaunchOutcome::kRunning), Pair(other_, LaunchOutcome::kFailed)));
}

TEST_F(ObservedLaunchesTest, ACancelledLaunchIsObserved)
{
    Add(vpnId_);
    launches_.CancelAll();
    EXPECT_THAT(observed_, ElementsAre(Pair(vpnId_, LaunchOutcome::kCancelled)));
}

TEST_F(ObservedLaunchesTest, NothingIsObservedWithoutAnObserver)
{
    Add(vpnId_);
    launches_.Observe({});
    launches_.CancelAll();
    EXPECT_THAT(outcomes_, ElementsAre(LaunchOutcome::kCancelled));
    EXPECT_THAT(observed_, ElementsAre());
}

} // namespace
} // namespace kavel::agent
