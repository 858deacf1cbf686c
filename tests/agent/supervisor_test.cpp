#include "finding_texts.h"
#include "supervision/supervisor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "supervisor_fixture.h"

namespace kavel::agent {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// Only in the log of a start that is not made at once.
const std::string kDelayed = "NOTICE vpn 0: its instance is started again in ";

std::size_t CountOf(const std::string &text, const std::string &part)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

// ---- An instance that ends ----

TEST_F(SupervisorTest, AnInstanceThatEndsIsStartedAgainAtOnce)
{
    Start();
    const FakeInstance &instance = Serve();
    instance.Kill();
    ASSERT_TRUE(RunUntilLaunched(1));
    EXPECT_TRUE(instances_.IsRunning(0));
    const VpnStatus status = Described();
    EXPECT_EQ(status.fields.ends, 1U);
    EXPECT_TRUE(status.fields.has_last_end_time);
    EXPECT_EQ(status.lastEnd, "killed by signal 9");
    EXPECT_FALSE(status.fields.has_next_start_time);
    EXPECT_THAT(log_.Take(), AllOf(HasSubstr("WARNING vpn 0: its instance does not run: killed by signal 9"),
                                   Not(HasSubstr(kDelayed))));
}

TEST_F(SupervisorTest, AnInstanceThatEndsAgainIsStartedAfterLongerAndLongerDelays)
{
    Start();
    (void)Serve();
    for (const auto delay : {0s, 1s, 2s}) {
        const auto killed = EventLoop::Clock::now();
        running_.back().Kill();
        ASSERT_TRUE(RunUntilLaunched(launches_.size() + 1));
        EXPECT_GE(launches_.back() - killed, delay);
    }
    EXPECT_EQ(Described().fields.ends, 3U);
    const std::string log = log_.Take();
    EXPECT_THAT(log, AllOf(HasSubstr(kDelayed + "1 s\n"), HasSubstr(kDelayed + "2 s\n")));
    EXPECT_EQ(CountOf(log, kDelayed), 2U) << "the first start comes at once";
}

TEST_F(SupervisorTest, WhileItWaitsTheStatusHasTheTimeOfTheNextStart)
{
    Start();
    const FakeInstance &instance = Serve();
    instance.Kill();
    ASSERT_TRUE(RunUntilLaunched(1));
    running_.back().Kill();
    ASSERT_TRUE(RunUntil(loop_, [this] { return Described().fields.ends == 2; }));
    const auto now = static_cast<std::uint64_t>(std::time(nullptr));
    EXPECT_TRUE(Described().fields.has_next_start_time);
    EXPECT_NEAR(static_cast<double>(Described().fields.next_start_time), static_cast<double>(now + 1), 1);
}

TEST_F(SupervisorTest, AMessageBeginsWithoutADelay)
{
    Start();
    (void)Serve();
    running_.back().Kill();
    ASSERT_TRUE(RunUntilLaunched(1));
    (void)Serve();
    running_.back().Kill();
    ASSERT_TRUE(RunUntilLaunched(2));
    EXPECT_THAT(log_.Take(), Not(HasSubstr(kDelayed)));
}

TEST_F(SupervisorTest, AMessageEndsTheWaitForTheNextStart)
{
    Start();
    (void)Serve();
    running_.back().Kill();
    ASSERT_TRUE(RunUntilLaunched(1));
    running_.back().Kill();
    ASSERT_TRUE(RunUntil(loop_, [this] { return Described().fields.ends == 2; }));
    Apply(0, false, VQ_DNSMASQ_OP_RELOAD);
    EXPECT_FALSE(Described().fields.has_next_start_time);
    RunFor(1500ms);
    EXPECT_EQ(launches_.size(), 1U);
}

TEST_F(SupervisorTest, AnInstanceThatIsSwitchedOffMayEnd)
{
    Start();
    const FakeInstance &instance = Serve();
    Apply(0, false, VQ_DNSMASQ_OP_RELOAD);
    instance.Kill();
    RunFor(300ms);
    EXPECT_THAT(launches_, IsEmpty());
    EXPECT_EQ(Described().fields.ends, 0U);
}

TEST_F(SupervisorTest, AReloadedInstanceIsStillWatched)
{
    Start();
    const FakeInstance &instance = Serve();
    Apply(0, true, VQ_DNSMASQ_OP_RELOAD);
    instance.Kill();
    EXPECT_TRUE(RunUntilLaunched(1));
}

TEST_F(SupervisorTest, AnInstanceThatDoesNotStartIsStartedAgainAfterASecond)
{
    Start();
    const FakeInstance &instance = Serve();
    failure_ = "\ndnsmasq: Address already in use\n";
    instance.Kill();
    ASSERT_TRUE(RunUntilLaunched(1));
    EXPECT_EQ(Described().lastEnd, "did not start: dnsmasq: Address already in use");
    EXPECT_EQ(Described().fields.ends, 2U);
    failure_.clear();
    ASSERT_TRUE(RunUntilLaunched(2));
    EXPECT_GE(launches_[1] - launches_[0], 1s);
    EXPECT_TRUE(instances_.IsRunning(0));
}

TEST_F(SupervisorTest, TheModulesMessageTellsWhyAnInstanceDidNotStart)
{
    Start();
    const FakeInstance &instance = Serve();
    module_.onRecover = [this] {
        VQ_SqliteConfListRelease(host_.store.List(VQ_SQL_CONF_CPE_DNSMASQ));
        host_.moduleErrors.Add("the route is bad (101:Network is unreachable).");
        return 0;
    };
    module_.onRestart = [] { return -101; };
    instance.Kill();
    ASSERT_TRUE(RunUntil(loop_, [this] { return Described().fields.ends == 2; }));
    EXPECT_THAT(Described().lastEnd.value_or(""), HasSubstr("did not start: "));
    EXPECT_THAT(TextsOf(Described().problems), Not(IsEmpty()));
}

// ---- Who has to wait ----

TEST_F(SupervisorTest, AVpnIsBusyWhileItsInstanceStarts)
{
    Start();
    std::vector<std::uint32_t> freed;
    supervisor_.OnFree([&](std::uint32_t vpnId) { freed.push_back(vpnId); });
    EXPECT_FALSE(supervisor_.IsBusy(0));
    const FakeInstance &starting = running_.emplace_back(box_, 0, OwnProgram());
    Apply(0, true, VQ_DNSMASQ_OP_REBOOT);
    EXPECT_TRUE(supervisor_.IsBusy(0));
    EXPECT_FALSE(supervisor_.IsBusy(TestVpn(1)));
    EXPECT_THAT(freed, ElementsAre());
    box_.WritePidFile(0, std::to_string(starting.Pid()));
    EXPECT_TRUE(RunUntil(loop_, [&] { return !freed.empty(); }));
    EXPECT_THAT(freed, ElementsAre(0U));
    EXPECT_FALSE(supervisor_.IsBusy(0));
}

// ---- Status ----

TEST_F(SupervisorTest, NothingIsKnownOfOtherVpns)
{
    Start();
    const VpnStatus status = Described(TestVpn(9));
    EXPECT_FALSE(status.fields.has_ends);
    EXPECT_EQ(status.revision, std::nullopt);
    EXPECT_THAT(TextsOf(status.problems), IsEmpty());
}

TEST_F(SupervisorTest, TheStatusHasTheRevisionOfTheLastMessage)
{
    Start();
    Apply(0, false, VQ_DNSMASQ_OP_RELOAD, "r7");
    EXPECT_EQ(Described().revision, "r7");
    Apply(0, false, VQ_DNSMASQ_OP_RELOAD);
    EXPECT_EQ(Described().revision, std::nullopt);
}

// The status of a VPN has a problem of its own for it.
TEST_F(SupervisorTest, AMissingNamespaceIsNoSecondProblem)
{
    Start();
    Apply(TestVpn(1), true, VQ_DNSMASQ_OP_RELOAD);
    EXPECT_THAT(TextsOf(Described(TestVpn(1)).problems), IsEmpty());
    EXPECT_THAT(log_.Take(), HasSubstr("WARNING vpn " + std::to_string(TestVpn(1)) + ": namespace "));
}

TEST_F(SupervisorTest, WhatIsAppliedIsKeptForTheNextAgent)
{
    Start();
    (void)Serve();
    const InForceFiles files(instances_);
    const auto facts = files.Read(0);
    ASSERT_TRUE(facts);
    EXPECT_TRUE(facts->enables);
    EXPECT_EQ(facts->revision, "r1");
    EXPECT_EQ(facts->files.size(), instances_.Files(0).size());
    const Bytes message = PackCpe(0, true, VQ_DNSMASQ_OP_REBOOT);
    EXPECT_EQ(files.ReadContent(0).bytes, std::string(message.begin(), message.end()));
}

// ---- Stopped ----

TEST_F(SupervisorTest, WhatWasMeantToRunIsStoppedUntilTheNextMessage)
{
    Start();
    EXPECT_FALSE(supervisor_.IsStopped(0));
    (void)Serve();
    EXPECT_FALSE(supervisor_.IsStopped(0));
    for (int i = 0; i < 2; ++i) {
        (void)supervisor_.TakeDown(0);
        EXPECT_TRUE(supervisor_.IsStopped(0));
    }
    Apply(0, false, VQ_DNSMASQ_OP_RELOAD);
    EXPECT_FALSE(supervisor_.IsStopped(0));
}

TEST_F(SupervisorTest, WhatIsOffIsNotStopped)
{
    Start();
    Apply(0, false, VQ_DNSMASQ_OP_RELOAD);
    (void)supervisor_.TakeDown(0);
    EXPECT_FALSE(supervisor_.IsStopped(0));
}

// ---- The mark of a launch ----

TEST_F(SupervisorTest, TheMarkIsRemovedWhenTheLaunchHasEnded)
{
    Start();
    box_.Write("/run/kavel/vpn_0.launch", "");
    (void)Serve();
    EXPECT_THAT(instances_.WithState("launch"), IsEmpty());
}

// ---- The end ----

TEST_F(SupervisorTest, AfterTheEndNothingIsStarted)
{
    Start();
    const FakeInstance &instance = Serve();
    supervisor_.Stop();
    instance.Kill();
    RunFor(300ms);
    EXPECT_THAT(launches_, IsEmpty());
    EXPECT_EQ(Described().fields.ends, 0U);
}

// The next agent cannot know how it ended.
TEST_F(SupervisorTest, ALaunchThatIsPendingAtTheEndKeepsItsMark)
{
    Start();
    box_.Write("/run/kavel/vpn_0.launch", "");
    running_.emplace_back(box_, 0, OwnProgram());
    Apply(0, true, VQ_DNSMASQ_OP_REBOOT);
    supervisor_.Stop();
    pending_.CancelAll();
    EXPECT_THAT(instances_.WithState("launch"), ElementsAre(0U));
}

// ---- Without repairs ----

class UnrepairedTest : public SupervisorTest {
  protected:
    UnrepairedTest() : SupervisorTest([](Config &config) { config.watch.repair = false; }) {}
};

TEST_F(UnrepairedTest, AnInstanceThatEndsIsToldAlone)
{
    Start();
    const FakeInstance &instance = Serve();
    instance.Kill();
    EXPECT_TRUE(RunUntil(loop_, [this] { return Described().fields.ends == 1; }));
    RunFor(300ms);
    EXPECT_THAT(launches_, IsEmpty());
    EXPECT_FALSE(Described().fields.has_next_start_time);
}

TEST_F(UnrepairedTest, WhatAPersonAsksForIsRepaired)
{
    Start();
    const FakeInstance &instance = Serve();
    instance.Kill();
    EXPECT_TRUE(RunUntil(loop_, [this] { return Described().fields.ends == 1; }));
    EXPECT_THAT(RepairNow().notes, ElementsAre("vpn 0: repaired: its instance was started"));
    EXPECT_TRUE(instances_.IsRunning(0));
}

} // namespace
} // namespace kavel::agent
