// Requests behind a launch that is pending.
#include <cerrno>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "requests_fixture.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class RequestsQueueTest : public RequestsTest {
  protected:
    // A launch that is pending as long as its process lives and has no pid file, 2 s at most.
    const std::vector<Answer> &BeginLaunch()
    {
        const auto &answers = SendApply(launch_);
        EXPECT_TRUE(answers.empty());
        EXPECT_TRUE(launches_.IsPending(vpnId_));
        return answers;
    }

    void EndLaunch() const { WritePid(vpnId_, instance_); }

    [[nodiscard]] std::size_t Configured() const
    {
        return static_cast<std::size_t>(std::ranges::count(module_.calls, "configure"));
    }

    FakeInstance instance_{box_, vpnId_};
};

TEST_F(RequestsQueueTest, ALaunchIsAnsweredWhenThePidFileIsWritten)
{
    const auto &answers = BeginLaunch();
    DispatchReady(loop_);
    EXPECT_TRUE(answers.empty());
    EndLaunch();
    EXPECT_TRUE(RunUntilAnswered(answers));
    const Answer answer = AnswerIn(answers);
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.vpn, vpnId_);
    EXPECT_EQ(answer.text, std::nullopt);
    EXPECT_TRUE(instances_.IsMeantToRun(vpnId_));
}

TEST_F(RequestsQueueTest, ALaunchIsAnsweredAtOnceWhenTheInstanceRuns)
{
    EndLaunch();
    EXPECT_EQ(Apply(launch_).text, std::nullopt);
}

TEST_F(RequestsQueueTest, ALaunchThatFailedIsAppliedAndHasAText)
{
    instance_.Stop();
    const auto &answers = SendApply(launch_);
    EXPECT_TRUE(RunUntilAnswered(answers));
    const Answer answer = AnswerIn(answers);
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.text, "the instance did not come up");
    EXPECT_EQ(answer.enabled, true);
    EXPECT_EQ(answer.running, false);
    EXPECT_TRUE(instances_.IsMeantToRun(vpnId_));
    EXPECT_THAT(log_.Take(), HasSubstr("ERROR vpn " + std::to_string(vpnId_) + ": the instance did not come up"));
}

TEST_F(RequestsQueueTest, ALaunchThatFailedGivesTheReasonOfDnsmasqAtOnce)
{
    module_.onConfigure = [this](const VQ_CTRL_DNSMASQ_CONFIG_PB &) {
        constexpr std::string_view kReason = "\ndnsmasq: Address already in use\n";
        return static_cast<VQ_ERR_T>(::write(host_.launchOutputs.Begin(vpnId_), kReason.data(), kReason.size()));
    };
    const auto &answers = SendApply(launch_); // a process of the VPN lives on
    bool isTimedOut = false;
    EventSource timeout = loop_.AddTimer([&] { isTimedOut = true; });
    timeout.ArmTimer(EventLoop::Clock::now() + std::chrono::seconds(2));
    EXPECT_TRUE(RunUntilAnswered(answers));
    EXPECT_FALSE(isTimedOut) << "it does not wait for the timeout";
    EXPECT_EQ(AnswerIn(answers).text, "the instance did not come up: dnsmasq: Address already in use");
}

TEST_F(RequestsQueueTest, ALaunchThatHangsFailsAfterTwoSeconds)
{
    const auto start = EventLoop::Clock::now();
    const auto &answers = BeginLaunch();
    EXPECT_TRUE(RunUntilAnswered(answers));
    EXPECT_EQ(AnswerIn(answers).text, "the instance did not come up");
    EXPECT_GE(EventLoop::Clock::now() - start, std::chrono::seconds(2));
}

TEST_F(RequestsQueueTest, ASecondMessageForTheVpnWaits)
{
    const auto &first = BeginLaunch();
    const auto &second = SendApply(reload_);
    DispatchReady(loop_);
    EXPECT_EQ(Configured(), 1U);
    EXPECT_TRUE(second.empty());
    EndLaunch();
    EXPECT_TRUE(RunUntilAnswered(second));
    EXPECT_EQ(first.size(), 1U) << "it was answered before";
    EXPECT_EQ(Configured(), 2U);
    EXPECT_EQ(AnswerIn(second).text, std::nullopt) << "the instance runs by then";
}

TEST_F(RequestsQueueTest, OtherVpnsAreServedMeanwhile)
{
    const auto &first = BeginLaunch();
    EXPECT_EQ(Apply(PackCpe(other_, false, VQ_DNSMASQ_OP_RELOAD)).vpn, other_);
    EXPECT_EQ(AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__VPN_RELEASE, other_))).result, 0);
    EXPECT_TRUE(first.empty());
}

TEST_F(RequestsQueueTest, RequestsThatOnlyReadDoNotWait)
{
    const auto &first = BeginLaunch();
    EXPECT_EQ(AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__CHECK, std::nullopt, launch_))).result, 0);
    EXPECT_EQ(AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__STORE_LIST))).result, -EOPNOTSUPP);
    const auto &status = Send(PackRequest(KAVEL__REQUEST__VERB__STATUS, vpnId_));
    EXPECT_TRUE(RunUntilAnswered(status));
    EXPECT_TRUE(AnswerIn(status).vpns.at(0).fields.starting);
    EXPECT_TRUE(first.empty());
}

TEST_F(RequestsQueueTest, DirectoryRequestsWait)
{
    (void)BeginLaunch();
    const auto &init = Send(PackRequest(KAVEL__REQUEST__VERB__VPN_INIT, vpnId_));
    const auto &release = Send(PackRequest(KAVEL__REQUEST__VERB__VPN_RELEASE, vpnId_));
    DispatchReady(loop_);
    EXPECT_THAT(module_.calls, ElementsAre("configure"));
    EndLaunch();
    EXPECT_TRUE(RunUntilAnswered(release));
    EXPECT_THAT(module_.calls, ElementsAre("configure", "init " + std::to_string(vpnId_)));
    EXPECT_EQ(AnswerIn(init).result, 0);
    EXPECT_EQ(AnswerIn(release).result, -EBUSY) << "the instance runs by then";
}

TEST_F(RequestsQueueTest, WhatWaitsIsHandledInItsOrder)
{
    std::vector<std::uint32_t> operations;
    module_.onConfigure = [&](const VQ_CTRL_DNSMASQ_CONFIG_PB &message) {
        operations.push_back(message.DnsmasqPbCPE->operation);
        return 0;
    };
    (void)BeginLaunch();
    for (const std::uint32_t operation : {10U, 11U, 12U}) {
        (void)SendApply(PackCpe(vpnId_, true, operation));
    }
    EndLaunch();
    EXPECT_TRUE(RunUntil(loop_, [&] { return operations.size() == 4; }));
    EXPECT_THAT(operations, ElementsAre(1U, 10U, 11U, 12U));
}

TEST_F(RequestsQueueTest, OneWaitingRequestIsHandledPerIteration)
{
    (void)BeginLaunch();
    for (int i = 0; i < 5; ++i) {
        (void)SendApply(reload_);
    }
    EndLaunch();
    std::size_t handled = 1;
    std::size_t most = 0;
    EXPECT_TRUE(RunUntil(loop_, [&] {
        most = std::max(most, Configured() - handled);
        handled = Configured();
        return handled == 6;
    }));
    EXPECT_EQ(most, 1U);
}

TEST_F(RequestsQueueTest, ARequestDoesNotOvertakeThoseThatWait)
{
    (void)BeginLaunch();
    const auto &second = SendApply(reload_);
    const auto &third = SendApply(reload_);
    EndLaunch();
    EXPECT_TRUE(RunUntilAnswered(second));
    EXPECT_TRUE(third.empty());
    const auto &fourth = SendApply(reload_);
    EXPECT_TRUE(fourth.empty());
    EXPECT_TRUE(RunUntilAnswered(fourth));
    EXPECT_EQ(third.size(), 1U);
}

TEST_F(RequestsQueueTest, WhatWaitsBehindASecondLaunchWaitsForThatOne)
{
    (void)BeginLaunch();
    const auto &second = SendApply(launch_);
    const auto &third = SendApply(reload_);
    module_.onConfigure = [this](const VQ_CTRL_DNSMASQ_CONFIG_PB &) {
        box_.WritePidFile(vpnId_, ""); // a restart ends the instance before it launches the next
        return 0;
    };
    EndLaunch();
    EXPECT_TRUE(RunUntil(loop_, [&] { return Configured() == 2; }));
    DispatchReady(loop_);
    EXPECT_TRUE(second.empty());
    EXPECT_TRUE(third.empty());
    module_.onConfigure = {};
    EndLaunch();
    EXPECT_TRUE(RunUntilAnswered(third));
    EXPECT_EQ(AnswerIn(second).text, std::nullopt);
    EXPECT_EQ(Configured(), 3U);
}

TEST_F(RequestsQueueTest, QueuesOfSeveralVpnsAreDrained)
{
    const FakeInstance otherInstance(box_, other_);
    (void)BeginLaunch();
    (void)SendApply(PackCpe(other_, true, VQ_DNSMASQ_OP_REBOOT));
    const auto &mine = SendApply(reload_);
    const auto &others = SendApply(PackCpe(other_, true, VQ_DNSMASQ_OP_RELOAD));
    EndLaunch();
    WritePid(other_, otherInstance);
    EXPECT_TRUE(RunUntil(loop_, [&] { return !mine.empty() && !others.empty(); }));
    EXPECT_EQ(AnswerIn(mine).vpn, vpnId_);
    EXPECT_EQ(AnswerIn(others).vpn, other_);
}

TEST_F(RequestsQueueTest, AFullQueueRefuses)
{
    (void)BeginLaunch();
    for (int i = 0; i < 16; ++i) {
        EXPECT_TRUE(SendApply(reload_).empty()) << i;
    }
    const Answer answer = Apply(reload_);
    EXPECT_EQ(answer.result, -EBUSY);
    EXPECT_EQ(answer.vpn, vpnId_);
    EXPECT_EQ(answer.text, "16 requests are waiting for vpn " + std::to_string(vpnId_) + " already");
    EXPECT_EQ(Apply(PackCpe(other_, false, 0)).result, 0);
    EXPECT_EQ(Configured(), 2U);
}

TEST_F(RequestsQueueTest, WhatIsRefusedAnywayDoesNotWait)
{
    (void)BeginLaunch();
    EXPECT_EQ(AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__VPN_INIT))).text, "no vpn is named");
    EXPECT_EQ(Apply({1, 2, 3}).text, "not a CPE message");
}

// ---- Stop ----

TEST_F(RequestsQueueTest, StopAnswersEverything)
{
    const auto &launch = BeginLaunch();
    const auto &waiting = SendApply(reload_);
    const auto &release = Send(PackRequest(KAVEL__REQUEST__VERB__VPN_RELEASE, vpnId_));
    const auto &status = Send(PackRequest(KAVEL__REQUEST__VERB__STATUS));
    requests_.Stop();
    for (const Answer &answer : {AnswerIn(waiting), AnswerIn(release)}) {
        EXPECT_EQ(answer.result, -ECANCELED);
        EXPECT_EQ(answer.text, "the agent is stopping; nothing was applied");
    }
    EXPECT_EQ(AnswerIn(status).result, -ECANCELED);
    EXPECT_EQ(AnswerIn(status).text, "the agent is stopping");
    EXPECT_EQ(AnswerIn(launch).result, 0) << "it is applied";
    EXPECT_EQ(AnswerIn(launch).text, "the agent is stopping; the instance was still starting");
    EXPECT_TRUE(launches_.IsEmpty());

    EndLaunch();
    DispatchReady(loop_);
    EXPECT_EQ(Configured(), 1U);
    for (const std::vector<Answer> &answers : answers_) {
        EXPECT_EQ(answers.size(), 1U) << "nothing is answered twice";
    }
}

TEST_F(RequestsQueueTest, StopAnswersWhatWasAboutToBeTaken)
{
    (void)BeginLaunch();
    const auto &waiting = SendApply(reload_);
    EndLaunch();
    EXPECT_TRUE(RunUntil(loop_, [&] { return launches_.IsEmpty(); }));
    EXPECT_TRUE(waiting.empty()) << "the queue is drained in a later iteration";
    requests_.Stop();
    EXPECT_EQ(AnswerIn(waiting).result, -ECANCELED);
    DispatchReady(loop_);
    EXPECT_EQ(Configured(), 1U);
    EXPECT_EQ(waiting.size(), 1U);
}

TEST_F(RequestsTest, StopWithoutRequestsDoesNothing)
{
    requests_.Stop();
    DispatchReady(loop_);
    EXPECT_THAT(module_.calls, ElementsAre());
}

} // namespace
} // namespace kavel::agent
