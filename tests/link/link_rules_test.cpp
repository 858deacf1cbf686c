// What becomes of the messages of the broker.
#include <gmock/gmock.h>

#include "frame.h"
#include "link_fixture.h"

namespace kavel::link {
namespace {

using namespace std::chrono_literals;
using broker::Result;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class LinkRulesTest : public LinkTest {
  protected:
    void SetUp() override { ConnectAll(); }
};

TEST_F(LinkRulesTest, AMessageIsAppliedAndReported)
{
    Receive(7, "17", "packed");
    const SentRequest request = Request();
    EXPECT_EQ(request.verb, KAVEL__REQUEST__VERB__APPLY);
    EXPECT_EQ(request.message, "packed");
    EXPECT_EQ(request.vpn, 7U);
    EXPECT_EQ(request.revision, "17");
    EXPECT_TRUE(request.isOnlyNewer);
    EXPECT_EQ(request.isForPop, false);
    EXPECT_EQ(LastReport(7), std::nullopt);
    AnswerApplied();
    EXPECT_EQ(LastReport(7), (broker::Report{17, Result::kApplied, "", kUnixTime, 17, true, true, ""}));
    EXPECT_FALSE(HasRequest());
}

TEST_F(LinkRulesTest, WithoutAPlatformTheAgentIsNotAskedToCompareIt)
{
    ReceiveMessage({"kavel/branch-1/desired/7", {1}, true, {{"revision", "17"}}});
    EXPECT_EQ(Request().isForPop, std::nullopt);
}

TEST_F(LinkRulesTest, ARefusalIsReportedWithItsReason)
{
    Receive(7, "17");
    AnswerRefused("dnshosts[0].ip: expected an address");
    const auto report = LastReport(7);
    EXPECT_EQ(report->revision, 17U);
    EXPECT_EQ(report->result, Result::kRefused);
    EXPECT_EQ(report->reason, "dnshosts[0].ip: expected an address");
}

TEST_F(LinkRulesTest, OnlyTheNewestOfAVpnWaits)
{
    Receive(7, "1");
    Receive(7, "2");
    Receive(7, "4");
    Receive(7, "3");
    EXPECT_EQ(Request().revision, "1");
    AnswerApplied();
    EXPECT_EQ(Request().revision, "4");
    AnswerApplied();
    EXPECT_FALSE(HasRequest());
    EXPECT_EQ(LastReport(7)->revision, 4U);
    EXPECT_EQ(LastReport(7)->problem, "");
}

TEST_F(LinkRulesTest, WhatIsNotNewerThanTheAnsweredIsNotGivenToTheAgent)
{
    Receive(7, "5");
    AnswerApplied();
    Receive(7, "5");
    Receive(7, "4");
    EXPECT_FALSE(HasRequest());
    EXPECT_EQ(LastReport(7)->revision, 5U);
    Receive(7, "6");
    EXPECT_EQ(Request().revision, "6");
}

TEST_F(LinkRulesTest, TheNextRevisionFollowsARefusedOne)
{
    Receive(7, "5");
    AnswerRefused("no");
    Receive(7, "6");
    AnswerApplied();
    EXPECT_EQ(LastReport(7)->result, Result::kApplied);
    EXPECT_EQ(LastReport(7)->reason, "");
}

TEST_F(LinkRulesTest, WhatTheAgentHandledBeforeIsReportedAsItStands)
{
    Receive(7, "5");
    std::string revision = "9";
    std::string outcome = "applied";
    Kavel__HistoryEntry entry = KAVEL__HISTORY_ENTRY__INIT;
    entry.time = 1000;
    entry.revision = revision.data();
    entry.outcome = outcome.data();
    std::array<Kavel__HistoryEntry *, 1> entries{&entry};
    Answer(-EALREADY, [&](Kavel__Reply &reply) {
        reply.has_not_newer = reply.not_newer = 1;
        reply.history = entries.data();
        reply.n_history = entries.size();
        reply.in_force_revision = revision.data();
    });
    EXPECT_EQ(LastReport(7)->revision, 9U);
    EXPECT_EQ(LastReport(7)->inForce, 9U);
    EXPECT_EQ(LastReport(7)->time, 1000);
}

TEST_F(LinkRulesTest, VpnsTakeTurns)
{
    Receive(7, "1");
    Receive(9, "1");
    Receive(8, "1");
    EXPECT_EQ(Request().vpn, 7U);
    Receive(7, "2");
    AnswerApplied();
    EXPECT_EQ(Request().vpn, 8U);
    AnswerApplied();
    EXPECT_EQ(Request().vpn, 9U);
    AnswerApplied();
    EXPECT_EQ(Request().vpn, 7U);
}

TEST_F(LinkRulesTest, AnEmptyMessageIsToldAndChangesNothing)
{
    Receive(7, "5");
    AnswerApplied();
    ReceiveMessage({"kavel/branch-1/desired/7", {}, false, {}});
    EXPECT_FALSE(HasRequest());
    const auto report = LastReport(7);
    EXPECT_EQ(report->inForce, 5U);
    EXPECT_THAT(report->problem, HasSubstr("empty"));
}

TEST_F(LinkRulesTest, AnUnusableMessageIsToldWithoutAReportOfARevision)
{
    Receive(7, "x");
    EXPECT_FALSE(HasRequest());
    const auto report = LastReport(7);
    EXPECT_EQ(report->revision, std::nullopt);
    EXPECT_THAT(report->problem, HasSubstr("revision: it is \"x\""));
}

TEST_F(LinkRulesTest, AProblemEndsWithTheNextGoodMessage)
{
    Receive(7, "x");
    Receive(7, "5");
    AnswerApplied();
    EXPECT_EQ(LastReport(7)->problem, "");
    Receive(7, "x");
    EXPECT_NE(LastReport(7)->problem, "");
    Receive(7, "5");
    EXPECT_EQ(LastReport(7)->problem, "");
    EXPECT_FALSE(HasRequest());
}

TEST_F(LinkRulesTest, AnUnusableMessageDoesNotRemoveTheOneThatWaits)
{
    Receive(8, "1");
    Receive(7, "1");
    Receive(7, "x");
    AnswerApplied();
    EXPECT_EQ(Request().vpn, 7U);
}

TEST_F(LinkRulesTest, AForeignTopicIsDropped)
{
    EXPECT_EQ(LastReport(7), std::nullopt);
    ReceiveMessage({"kavel/branch-2/desired/7", {1}, true, {{"revision", "1"}}});
    ReceiveMessage({"kavel/branch-1/reported/7", {1}, true, {{"revision", "1"}}});
    EXPECT_FALSE(HasRequest());
    EXPECT_THAT(broker_.publications, IsEmpty());
}

TEST_F(LinkRulesTest, MessagesForTooManyVpnsAreDropped)
{
    for (std::uint32_t vpn = 0; vpn <= Link::kVpnsMax; ++vpn) {
        Receive(vpn, "1");
    }
    for (std::size_t i = 0; i < Link::kVpnsMax; ++i) {
        AnswerApplied();
    }
    EXPECT_FALSE(HasRequest());
    EXPECT_EQ(LastReport(Link::kVpnsMax), std::nullopt);
    EXPECT_EQ(LastReport(Link::kVpnsMax - 1)->revision, 1U);
}

TEST_F(LinkRulesTest, WhatHasNoRoomIsToldAndAskedForAgain)
{
    const std::string large(control::kMessageMax, 'x');
    Receive(100, "1");
    for (const std::uint32_t vpn : {1U, 2U, 3U, 4U, 5U}) {
        Receive(vpn, "2", large);
    }
    EXPECT_THAT(LastReport(5)->problem, HasSubstr("revision 2: the messages that wait"));
    for (int i = 0; i < 5; ++i) {
        AnswerApplied();
    }
    EXPECT_FALSE(HasRequest());
    EXPECT_THAT(broker_.asked, IsEmpty());
    WaitForStatus();
    AnswerStatus({});
    EXPECT_THAT(broker_.asked, ElementsAre("kavel/branch-1/desired/5"));
    Receive(5, "2", large);
    AnswerApplied();
    EXPECT_EQ(LastReport(5)->revision, 2U);
    EXPECT_EQ(LastReport(5)->problem, "");
    WaitForStatus();
    AnswerStatus({});
    EXPECT_EQ(broker_.asked.size(), 1U);
}

} // namespace
} // namespace kavel::link
