// Messages that are applied only if their revision is newer. Most switch the service off: the module's part is nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "control.pb-c.h"
#include "requests_fixture.h"
#include "services/message_history.h"
#include "services/numbered_messages.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class OnlyNewerTest : public RequestsTest {
  protected:
    explicit OnlyNewerTest(bool isPersistent = true)
        : RequestsTest([isPersistent](Config &config) { config.persistence = isPersistent; })
    {
    }

    // `change` completes a request to apply the message only if the revision is newer.
    const std::vector<Answer> &SendNewer(Bytes message, std::optional<std::string> revision,
                                         const std::function<void(Kavel__Request &)> &change = {})
    {
        Kavel__Request request = KAVEL__REQUEST__INIT;
        request.verb = KAVEL__REQUEST__VERB__APPLY;
        request.has_message = 1;
        request.message = {message.size(), message.data()};
        request.revision = revision ? revision->data() : nullptr;
        request.has_only_newer = request.only_newer = 1;
        if (change) {
            change(request);
        }
        Bytes packed(kavel__request__get_packed_size(&request));
        kavel__request__pack(&request, packed.data());
        return Send(packed);
    }

    Answer ApplyNewer(const std::optional<std::string> &revision,
                      const std::function<void(Kavel__Request &)> &change = {})
    {
        return AnswerIn(SendNewer(switchOff_, revision, change));
    }

    // What the next agent knows is in the store alone.
    void ForgetMemory()
    {
        std::destroy_at(&host_.numbered);
        std::construct_at(&host_.numbered, host_);
    }

    void BreakTheStore() const
    {
        std::filesystem::remove_all(box_.Path("/store"));
        box_.Write("/store", "a file in the place of the directory");
    }

    [[nodiscard]] std::size_t Configured() const
    {
        return static_cast<std::size_t>(std::ranges::count(module_.calls, "configure"));
    }

    static void ExpectNotNewer(const Answer &answer, const std::string &text)
    {
        EXPECT_EQ(answer.result, -EALREADY);
        EXPECT_TRUE(answer.isNotNewer);
        EXPECT_FALSE(answer.mayRetry);
        EXPECT_EQ(answer.text, text);
        EXPECT_EQ(answer.history.size(), 1U);
    }
};

class OnlyNewerWithoutStoreTest : public OnlyNewerTest {
  protected:
    OnlyNewerWithoutStoreTest() : OnlyNewerTest(false) {}
};

TEST_F(OnlyNewerTest, TheFirstAndEveryHigherOneIsApplied)
{
    for (const char *revision : {"1", "2", "10", "9223372036854775807"}) {
        const Answer answer = ApplyNewer(revision);
        EXPECT_EQ(answer.result, 0) << revision;
        EXPECT_FALSE(answer.isNotNewer);
        EXPECT_EQ(answer.inForceRevision, revision);
    }
    EXPECT_EQ(Configured(), 4U);
}

TEST_F(OnlyNewerTest, TheSameAndALowerOneAreToldWhatBecameOfTheLast)
{
    ASSERT_EQ(ApplyNewer("12").result, 0);
    const Answer same = ApplyNewer("12");
    ExpectNotNewer(same, "revision 12 is not newer than 12, which was applied");
    EXPECT_EQ(same.vpn, vpnId_);
    EXPECT_EQ(same.enabled, false);
    EXPECT_EQ(same.running, false);
    EXPECT_EQ(same.inForceRevision, "12");
    const HistoryEntry &entry = same.history.front().entry;
    EXPECT_EQ(entry.revision, "12");
    EXPECT_EQ(entry.outcome, "applied");
    EXPECT_EQ(entry.peer, kSender);
    EXPECT_EQ(entry.messageBytes, switchOff_.size());
    EXPECT_EQ(entry.message, std::nullopt);
    ExpectNotNewer(ApplyNewer("9"), "revision 9 is not newer than 12, which was applied");
    EXPECT_EQ(Configured(), 1U);
    EXPECT_EQ(host_.store.ReadHistory(vpnId_).size(), 1U) << "what is not newer is not in the history";
}

TEST_F(OnlyNewerTest, TheVpnIsToldAsItIsNow)
{
    const FakeInstance instance(box_, vpnId_);
    WritePid(vpnId_, instance);
    ASSERT_EQ(AnswerIn(SendNewer(launch_, "3")).result, 0);
    ASSERT_EQ(Apply(reload_, "by hand").inForceRevision, "by hand");
    const Answer answer = ApplyNewer("3");
    ExpectNotNewer(answer, "revision 3 is not newer than 3, which was applied");
    EXPECT_EQ(answer.enabled, true);
    EXPECT_EQ(answer.running, true);
    EXPECT_EQ(answer.inForceRevision, "by hand");
}

TEST_F(OnlyNewerTest, ARefusedOneCounts)
{
    module_.onConfigure = [](const VQ_CTRL_DNSMASQ_CONFIG_PB &) { return -EIO; };
    EXPECT_EQ(ApplyNewer("5").result, -EIO);
    const Answer byModule = ApplyNewer("5");
    ExpectNotNewer(byModule, "revision 5 is not newer than 5, which was refused");
    EXPECT_EQ(byModule.history.front().entry.result, -EIO);
    EXPECT_THAT(byModule.history.front().entry.outcome, StartsWith("refused: "));
    EXPECT_EQ(byModule.inForceRevision, std::nullopt);

    EXPECT_EQ(AnswerIn(SendNewer(WithBadInterfaceName(vpnId_), "6")).result, -EINVAL);
    ExpectNotNewer(ApplyNewer("6"), "revision 6 is not newer than 6, which was refused");
    EXPECT_EQ(Configured(), 1U);
}

TEST_F(OnlyNewerTest, OneThatWasAppliedWithoutTheQuestionCounts)
{
    EXPECT_EQ(Apply(switchOff_, "5").result, 0);
    ExpectNotNewer(ApplyNewer("5"), "revision 5 is not newer than 5, which was applied");
    EXPECT_EQ(Apply(switchOff_, "4").result, 0) << "a person may go back";
    ExpectNotNewer(ApplyNewer("5"), "revision 5 is not newer than 5, which was applied");
}

TEST_F(OnlyNewerTest, AnotherNameDoesNotCount)
{
    for (const char *revision : {"v7", "007", "9223372036854775808", "-7", "7 "}) {
        EXPECT_EQ(Apply(switchOff_, revision).result, 0);
    }
    EXPECT_EQ(ApplyNewer("1").result, 0);
}

TEST_F(OnlyNewerTest, EachVpnHasItsOwn)
{
    ASSERT_EQ(ApplyNewer("5").result, 0);
    EXPECT_EQ(AnswerIn(SendNewer(PackCpe(other_, false, VQ_DNSMASQ_OP_RELOAD), "5")).result, 0);
}

TEST_F(OnlyNewerTest, TheRevisionMustBeANumber)
{
    for (const char *revision : {"0", "x", "01", "+1", "1.0", "9223372036854775808"}) {
        const Answer answer = ApplyNewer(revision);
        EXPECT_EQ(answer.result, -EINVAL) << revision;
        EXPECT_EQ(answer.text, "revision: it is \"" + std::string(revision) +
                                   "\"; only_newer needs a number from 1 to 9223372036854775807");
    }
    EXPECT_EQ(ApplyNewer(std::nullopt).text,
              "revision: it is missing; only_newer needs a number from 1 to 9223372036854775807");
    EXPECT_EQ(Configured(), 0U);
}

// ---- The form of a request ----

TEST_F(OnlyNewerTest, AMessageForAnotherVpnIsRefusedAndDoesNotCount)
{
    const Answer answer = ApplyNewer("5", [this](Kavel__Request &request) {
        request.has_vpn = 1;
        request.vpn = other_;
    });
    EXPECT_EQ(answer.result, -EINVAL);
    EXPECT_EQ(answer.text,
              "vpn: it is " + std::to_string(other_) + ", and the message is for vpn " + std::to_string(vpnId_));
    EXPECT_EQ(ApplyNewer("5",
                         [this](Kavel__Request &request) {
                             request.has_vpn = 1;
                             request.vpn = vpnId_;
                         })
                  .result,
              0);
}

TEST_F(OnlyNewerTest, AMessageForAnotherKindOfBoxIsRefusedAndDoesNotCount)
{
    const auto isForPop = [](bool isPop) {
        return [isPop](Kavel__Request &request) {
            request.has_pop = 1;
            request.pop = isPop ? 1 : 0;
        };
    };
    const Answer answer = ApplyNewer("5", isForPop(true));
    EXPECT_EQ(answer.result, -EINVAL);
    EXPECT_EQ(answer.text, "pop: the message is for a POP, and the box is a CPE");
    EXPECT_EQ(ApplyNewer("5", isForPop(false)).result, 0);
}

TEST_F(OnlyNewerTest, WhatIsNoMessageDoesNotCount)
{
    EXPECT_EQ(AnswerIn(SendNewer({0xFF}, "5")).result, -EINVAL);
    EXPECT_EQ(ApplyNewer("5").result, 0);
}

// ---- Requests that wait ----

TEST_F(OnlyNewerTest, ACopyThatWaitsIsNotApplied)
{
    const FakeInstance instance(box_, vpnId_);
    const auto &first = SendNewer(launch_, "7");
    const auto &copy = SendNewer(launch_, "7");
    const auto &older = SendNewer(launch_, "6");
    DispatchReady(loop_);
    EXPECT_TRUE(first.empty());
    EXPECT_TRUE(copy.empty());
    WritePid(vpnId_, instance);
    EXPECT_TRUE(RunUntilAnswered(older));
    EXPECT_EQ(AnswerIn(first).inForceRevision, "7");
    ExpectNotNewer(AnswerIn(copy), "revision 7 is not newer than 7, which was applied");
    ExpectNotNewer(AnswerIn(older), "revision 6 is not newer than 7, which was applied");
    EXPECT_EQ(Configured(), 1U);
}

TEST_F(OnlyNewerTest, OneThatTheAgentDoesNotGetToMayBeSentAgain)
{
    (void)SendNewer(launch_, "7");
    const auto &waiting = SendNewer(launch_, "8");
    requests_.Stop();
    EXPECT_EQ(AnswerIn(waiting).result, -ECANCELED);
    EXPECT_TRUE(AnswerIn(waiting).mayRetry);
    EXPECT_EQ(host_.numbered.Last(vpnId_)->number, 7U);
}

TEST_F(OnlyNewerTest, OneForWhichTheQueueHasNoRoomMayBeSentAgain)
{
    (void)SendNewer(launch_, "7");
    for (std::size_t i = 0; i < RequestQueues::kPerVpnMax; ++i) {
        (void)SendNewer(launch_, "8");
    }
    const Answer answer = AnswerIn(SendNewer(launch_, "9"));
    EXPECT_EQ(answer.result, -EBUSY);
    EXPECT_TRUE(answer.mayRetry);
    EXPECT_EQ(answer.vpn, vpnId_);
}

// ---- What is remembered ----

TEST_F(OnlyNewerTest, TheNextAgentKnowsItFromTheHistory)
{
    ASSERT_EQ(ApplyNewer("12").result, 0);
    for (int i = 0; i < 20; ++i) {
        (void)Apply(switchOff_);
        (void)Apply(switchOff_, "by hand");
    }
    ForgetMemory();
    const Answer answer = ApplyNewer("12");
    ExpectNotNewer(answer, "revision 12 is not newer than 12, which was applied");
    EXPECT_EQ(answer.history.front().entry.message, std::nullopt);
    ForgetMemory();
    EXPECT_EQ(ApplyNewer("13").result, 0);
}

TEST_F(OnlyNewerWithoutStoreTest, TheMemoryIsEnough)
{
    ASSERT_EQ(ApplyNewer("12").result, 0);
    ExpectNotNewer(ApplyNewer("12"), "revision 12 is not newer than 12, which was applied");
    ForgetMemory();
    EXPECT_EQ(ApplyNewer("12").result, 0) << "the next agent knows nothing of it";
}

TEST_F(OnlyNewerTest, AHistoryThatCannotBeReadRefusesForNow)
{
    BreakTheStore();
    const Answer answer = ApplyNewer("5");
    EXPECT_EQ(answer.result, -EAGAIN);
    EXPECT_THAT(answer.text.value_or(""), StartsWith("the revisions that were applied before cannot be read: "));
    EXPECT_TRUE(answer.mayRetry);
    EXPECT_EQ(answer.vpn, vpnId_);
    EXPECT_EQ(Configured(), 0U);
    EXPECT_EQ(Apply(switchOff_, "5").result, 0) << "without the question it is applied";
    std::filesystem::remove(box_.Path("/store"));
    ExpectNotNewer(ApplyNewer("5"), "revision 5 is not newer than 5, which was applied");
}

TEST_F(OnlyNewerTest, AHistoryThatBreaksLaterIsNotNeeded)
{
    ASSERT_EQ(ApplyNewer("5").result, 0);
    BreakTheStore();
    ExpectNotNewer(ApplyNewer("5"), "revision 5 is not newer than 5, which was applied");
    EXPECT_EQ(ApplyNewer("6").result, 0);
    ExpectNotNewer(ApplyNewer("6"), "revision 6 is not newer than 6, which was applied");
}

TEST_F(OnlyNewerTest, AnUndoneOneCountsAsApplied)
{
    ASSERT_EQ(ApplyNewer("1").result, 0);
    const Answer applied = ApplyNewer("2", [](Kavel__Request &request) {
        request.has_confirm_seconds = 1;
        request.confirm_seconds = 1;
    });
    ASSERT_EQ(applied.inForceRevision, "2");
    ASSERT_TRUE(RunUntil(loop_, [this] { return !supervisor_.Confirmation(vpnId_); }));
    const Answer answer = ApplyNewer("2");
    ExpectNotNewer(answer, "revision 2 is not newer than 2, which was applied");
    EXPECT_TRUE(answer.history.front().isUndone);
    EXPECT_EQ(answer.inForceRevision, "1");
}

// ---- VPNs that are not configured ----

TEST_F(OnlyNewerTest, ARefusalOfAVpnThatIsNotConfiguredCountsUntilTheConfigurationIsReadAgain)
{
    const Bytes message = PackCpe(unknown_, false, VQ_DNSMASQ_OP_RELOAD);
    const auto apply = [&](const std::string &revision) { return AnswerIn(SendNewer(message, revision)); };
    const Answer first = apply("5");
    EXPECT_EQ(first.result, -ENOENT);
    EXPECT_TRUE(first.isUnknownVpn);
    const Answer again = apply("5");
    ExpectNotNewer(again, "revision 5 is not newer than 5, which was refused");
    EXPECT_EQ(again.history.front().entry.outcome, "refused: vpn " + std::to_string(unknown_) + " is not configured");
    EXPECT_EQ(apply("6").result, -ENOENT);

    host_.config.vpns.push_back({.id = unknown_, .customer = {}, .netns = "n", .lan = {}, .wan = {}, .path = ""});
    std::ranges::sort(host_.config.vpns, {}, &Vpn::id);
    requests_.ConfigurationRead();
    EXPECT_EQ(apply("6").result, 0);
}

TEST_F(OnlyNewerTest, AsManyVpnsAsOneLikesAreNotRemembered)
{
    HistoryEntry entry;
    entry.revision = "5";
    const auto most = static_cast<std::uint32_t>(NumberedMessages::kUnconfiguredMax);
    for (std::uint32_t i = 0; i <= most; ++i) {
        entry.time = i;
        host_.numbered.Note(1'000'000'000 + i, entry);
    }
    EXPECT_EQ(host_.numbered.Known(1'000'000'000), nullptr) << "the oldest one is forgotten";
    EXPECT_NE(host_.numbered.Known(1'000'000'001), nullptr);
    EXPECT_NE(host_.numbered.Known(1'000'000'000 + most), nullptr);
}

// ---- What is told ----

TEST_F(OnlyNewerTest, TheStatusTellsTheLast)
{
    ASSERT_EQ(ApplyNewer("4").result, 0);
    ASSERT_EQ(Apply(switchOff_, "by hand").result, 0);
    const auto &answers = Send(PackRequest(KAVEL__REQUEST__VERB__STATUS, vpnId_));
    ASSERT_TRUE(RunUntilAnswered(answers));
    const VpnStatus status = AnswerIn(answers).vpns.at(0);
    EXPECT_EQ(status.revision, "by hand");
    ASSERT_TRUE(status.lastNumbered);
    EXPECT_EQ(status.lastNumbered->entry.revision, "4");
    const auto &others = Send(PackRequest(KAVEL__REQUEST__VERB__STATUS, other_));
    ASSERT_TRUE(RunUntilAnswered(others));
    EXPECT_FALSE(AnswerIn(others).vpns.at(0).lastNumbered);
}

TEST_F(OnlyNewerTest, TheStatusOfAnAgentThatCannotReadItsStoreTellsWhatIsInMemory)
{
    ASSERT_EQ(ApplyNewer("4").result, 0);
    BreakTheStore();
    const auto &answers = Send(PackRequest(KAVEL__REQUEST__VERB__STATUS, vpnId_));
    ASSERT_TRUE(RunUntilAnswered(answers));
    const VpnStatus status = AnswerIn(answers).vpns.at(0);
    ASSERT_TRUE(status.lastNumbered);
    EXPECT_EQ(status.lastNumbered->entry.revision, "4");
}

TEST_F(OnlyNewerTest, WhatIsNotNewerIsCountedApart)
{
    ASSERT_EQ(ApplyNewer("4").result, 0);
    ExpectNotNewer(ApplyNewer("3"), "revision 3 is not newer than 4, which was applied");
    const auto &answers = Send(PackRequest(KAVEL__REQUEST__VERB__METRICS));
    ASSERT_TRUE(RunUntilAnswered(answers));
    const std::string metrics = AnswerIn(answers).metrics.value_or("");
    EXPECT_THAT(metrics, HasSubstr("kavel_messages_total{result=\"applied\"} 1\n"));
    EXPECT_THAT(metrics, HasSubstr("kavel_messages_total{result=\"not_newer\"} 1\n"));
    EXPECT_THAT(metrics, HasSubstr("kavel_messages_total{result=\"refused\"} 0\n"));
}

} // namespace
} // namespace kavel::agent
