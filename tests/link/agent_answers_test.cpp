#include "agent_answers.h"

#include <cerrno>
#include <functional>
#include <gtest/gtest.h>

#include "link_fixture.h"

namespace kavel::link {
namespace {

using broker::Report;
using broker::Result;
using Change = std::function<void(Kavel__Reply &reply)>;

Report AfterAnswer(std::int32_t result, const Change &change, Report report = {})
{
    Kavel__Reply reply = KAVEL__REPLY__INIT;
    reply.result = result;
    change(reply);
    TakeAnswer(report, reply, 17, kUnixTime);
    return report;
}

Report AfterStatus(const FakeStatus &status, Report report = {})
{
    WithStatusReply({status}, false, [&report](const Kavel__Reply &reply) { TakeStatus(report, *reply.vpns[0]); });
    return report;
}

const Report kApplied17{17, Result::kApplied, "", kUnixTime, 17, true, true, ""};

void SetState(Kavel__Reply &reply, bool enabled, bool running)
{
    reply.has_enabled = reply.has_running = 1;
    reply.enabled = enabled ? 1 : 0;
    reply.running = running ? 1 : 0;
}

TEST(AgentAnswersTest, AnAppliedMessageIsInForce)
{
    std::string revision = "17";
    EXPECT_EQ(AfterAnswer(0,
                          [&](Kavel__Reply &reply) {
                              SetState(reply, true, true);
                              reply.in_force_revision = revision.data();
                          }),
              kApplied17);
}

TEST(AgentAnswersTest, AMessageWithoutItsServiceHasAReason)
{
    std::string text = "the instance did not come up";
    const Report report = AfterAnswer(0, [&](Kavel__Reply &reply) {
        SetState(reply, true, false);
        reply.text = text.data();
    });
    EXPECT_EQ(report.result, Result::kApplied);
    EXPECT_EQ(report.reason, text);
    EXPECT_EQ(report.running, false);
}

TEST(AgentAnswersTest, ARefusalHasTheReasonOfTheModuleOrOfTheAgent)
{
    std::string text = "vpn: it is 8";
    std::string reason = "dnshosts[0].ip: expected an address";
    EXPECT_EQ(AfterAnswer(-EINVAL, [&](Kavel__Reply &reply) { reply.text = text.data(); }).reason, text);
    const Report report = AfterAnswer(-EINVAL, [&](Kavel__Reply &reply) {
        reply.text = text.data();
        reply.reason = reason.data();
    });
    EXPECT_EQ(report.result, Result::kRefused);
    EXPECT_EQ(report.revision, 17U);
    EXPECT_EQ(report.reason, reason);
}

TEST(AgentAnswersTest, ARefusalLeavesWhatItDoesNotSay)
{
    Report before = kApplied17;
    before.revision = before.inForce = 16;
    std::string text = "no";
    const Report after = AfterAnswer(
        -EINVAL, [&](Kavel__Reply &reply) { reply.text = text.data(); }, before);
    EXPECT_EQ(after.inForce, 16U);
    EXPECT_EQ(after.enabled, true);
    EXPECT_EQ(after.running, true);
}

class NotNewerTest : public testing::Test {
  protected:
    Report After(const std::string &revision, std::int32_t result, const std::string &outcome)
    {
        std::string revisionText = revision;
        std::string outcomeText = outcome;
        Kavel__HistoryEntry entry = KAVEL__HISTORY_ENTRY__INIT;
        entry.time = 1000;
        entry.revision = revisionText.data();
        entry.result = result;
        entry.outcome = outcomeText.data();
        std::array<Kavel__HistoryEntry *, 1> entries{&entry};
        return AfterAnswer(-EALREADY, [&](Kavel__Reply &reply) {
            reply.has_not_newer = reply.not_newer = 1;
            reply.history = entries.data();
            reply.n_history = entries.size();
            SetState(reply, true, true);
            reply.in_force_revision = inForce_.data();
        });
    }

    std::string inForce_ = "19";
};

TEST_F(NotNewerTest, TheReportIsAboutTheNewerMessage)
{
    EXPECT_EQ(After("19", 0, "applied"), (Report{19, Result::kApplied, "", 1000, 19, true, true, ""}));
}

TEST_F(NotNewerTest, TheReasonIsThatOfTheHistory)
{
    inForce_ = "16";
    EXPECT_EQ(After("17", -EINVAL, "refused: dnshosts[0].ip: bad"),
              (Report{17, Result::kRefused, "dnshosts[0].ip: bad", 1000, 16, true, true, ""}));
}

TEST_F(NotNewerTest, WhatRunsByNowHasNoReason)
{
    EXPECT_EQ(After("19", 0, "applied, NOT RUNNING: the port is taken").reason, "");
}

TEST(StatusTest, AReportIsMadeOfTheHistory)
{
    EXPECT_EQ(AfterStatus({.revision = "17", .lastRevision = "17"}),
              (Report{17, Result::kApplied, "", kUnixTime - 100, 17, true, true, ""}));
    EXPECT_EQ(AfterStatus({.revision = "16", .lastRevision = "17", .lastResult = -22, .lastOutcome = "refused: no"}),
              (Report{17, Result::kRefused, "no", kUnixTime - 100, 16, true, true, ""}));
}

TEST(StatusTest, AnOlderHistoryDoesNotReplaceAnAnswer)
{
    EXPECT_EQ(AfterStatus({.revision = "17", .lastRevision = "16"}, kApplied17), kApplied17);
    EXPECT_EQ(AfterStatus({.revision = "17", .lastRevision = "17"}, kApplied17), kApplied17);
}

TEST(StatusTest, ANewerMessageOfAnotherSenderIsReported)
{
    EXPECT_EQ(AfterStatus({.revision = "20", .lastRevision = "20"}, kApplied17).revision, 20U);
}

TEST(StatusTest, AnotherResultOfTheSameRevisionIsReported)
{
    Report refused = kApplied17;
    refused.result = Result::kRefused;
    refused.reason = "no";
    const Report after = AfterStatus({.revision = "17", .lastRevision = "17"}, refused);
    EXPECT_EQ(after.result, Result::kApplied);
    EXPECT_EQ(after.reason, "");
}

TEST(StatusTest, WhatIsNotInForceAnyMoreIsReported)
{
    const Report after = AfterStatus({.isMeant = false, .isRunning = false, .lastRevision = "17"}, kApplied17);
    EXPECT_EQ(after.inForce, std::nullopt);
    EXPECT_EQ(after.enabled, false);
    EXPECT_EQ(after.running, false);
    EXPECT_EQ(AfterStatus({.revision = "nightly"}, kApplied17).inForce, std::nullopt);
}

TEST(StatusTest, AServiceThatHasEndedHasAReason)
{
    const Report after =
        AfterStatus({.revision = "17", .isRunning = false, .lastRevision = "17", .problem = "it ended"}, kApplied17);
    EXPECT_EQ(after.running, false);
    EXPECT_EQ(after.reason, "it ended");
    EXPECT_EQ(AfterStatus({.revision = "17", .lastRevision = "17"}, after), kApplied17);
}

TEST(StatusTest, WhetherAStartingServiceRunsIsNotKnown)
{
    const Report after =
        AfterStatus({.revision = "17", .isRunning = false, .isStarting = true, .lastRevision = "17"}, kApplied17);
    EXPECT_EQ(after.running, std::nullopt);
    EXPECT_EQ(after.reason, "");
}

TEST(StatusTest, OnlyNumbersAreRevisions)
{
    WithStatusReply({{.lastRevision = "nightly"}, {.lastRevision = "17"}, {}}, false, [](const Kavel__Reply &reply) {
        EXPECT_EQ(LastHandled(*reply.vpns[0]), 0U);
        EXPECT_EQ(LastHandled(*reply.vpns[1]), 17U);
        EXPECT_EQ(LastHandled(*reply.vpns[2]), 0U);
    });
}

TEST(StatusTest, AVpnThatOnlyHasAnInstanceIsNotConfigured)
{
    WithStatusReply({{.vpn = 9, .netns = "-"}, {.vpn = 0, .netns = "-"}, {.vpn = 7}}, false,
                    [](const Kavel__Reply &reply) {
                        EXPECT_FALSE(IsConfigured(*reply.vpns[0]));
                        EXPECT_TRUE(IsConfigured(*reply.vpns[1]));
                        EXPECT_TRUE(IsConfigured(*reply.vpns[2]));
                    });
}

} // namespace
} // namespace kavel::link
