// The link and its agent: status, failures, restarts.
#include <gmock/gmock.h>

#include "link_fixture.h"
#include "presence.h"

namespace kavel::link {
namespace {

using namespace std::chrono_literals;
using broker::Result;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *kOnline = "kavel/branch-1/online";

class LinkAgentTest : public LinkTest {
  protected:
    void CloseAgent()
    {
        agent_.requests.clear();
        link_.AgentClosed("it closed the connection");
    }

    void Restart(const std::vector<FakeStatus> &statuses)
    {
        CloseAgent();
        link_.AgentConnected();
        AnswerStatus(statuses);
    }

    void AnswerRetry()
    {
        std::string text = "the store cannot be read";
        Answer(-EAGAIN, [&](Kavel__Reply &reply) {
            reply.text = text.data();
            reply.has_retry = reply.retry = 1;
        });
    }

    bool IsAgentReported() { return broker::ParsePresence(LastText(kOnline)).agent == true; }
};

TEST_F(LinkAgentTest, ItsStatusIsAskedFirst)
{
    ConnectBroker();
    Receive(7, "1");
    EXPECT_FALSE(HasRequest());
    link_.AgentConnected();
    AnswerStatus({});
    EXPECT_EQ(Request().verb, KAVEL__REQUEST__VERB__APPLY);
}

TEST_F(LinkAgentTest, ItsStatusIsAskedEveryTenSeconds)
{
    ConnectAll();
    for (int i = 0; i < 3; ++i) {
        Pass(9999ms);
        EXPECT_FALSE(HasRequest());
        Pass(1ms);
        AnswerStatus({});
    }
}

TEST_F(LinkAgentTest, AChangedStatusIsReported)
{
    ConnectAll();
    Receive(7, "1");
    AnswerApplied();
    EXPECT_TRUE(*LastReport(7)->running);
    WaitForStatus();
    AnswerStatus({{.revision = "1", .lastRevision = "1"}});
    EXPECT_THAT(broker_.publications, IsEmpty());
    WaitForStatus();
    AnswerStatus({{.revision = "1", .isRunning = false, .lastRevision = "1", .problem = "it ended"}});
    EXPECT_FALSE(*LastReport(7)->running);
    EXPECT_EQ(LastReport(7)->reason, "it ended");
}

TEST_F(LinkAgentTest, ReportsAreMadeAgainFromItsHistory)
{
    ConnectAll({{.vpn = 7, .revision = "16", .lastRevision = "17", .lastResult = -22, .lastOutcome = "refused: no"},
                {.vpn = 8, .revision = "nightly"}});
    EXPECT_EQ(LastReport(7), (broker::Report{17, Result::kRefused, "no", kUnixTime - 100, 16, true, true, ""}));
    EXPECT_EQ(LastReport(8), std::nullopt);
}

TEST_F(LinkAgentTest, WhileItStartsItsStatusIsNotReported)
{
    ConnectBroker();
    link_.AgentConnected();
    AnswerStatus({{.isMeant = false, .isRunning = false, .lastRevision = "17"}}, true);
    EXPECT_EQ(LastReport(7), std::nullopt);
    WaitForStatus();
    AnswerStatus({{.revision = "17", .lastRevision = "17"}});
    EXPECT_EQ(LastReport(7)->inForce, 17U);
}

TEST_F(LinkAgentTest, AStatusThatIsRefusedIsAskedForAgain)
{
    ConnectBroker();
    link_.AgentConnected();
    AnswerRefused("this user may not ask for the status");
    Receive(7, "1");
    AnswerApplied();
    WaitForStatus();
}

TEST_F(LinkAgentTest, PresenceSaysWhetherItAnswers)
{
    ConnectBroker();
    EXPECT_FALSE(IsAgentReported());
    link_.AgentConnected();
    EXPECT_FALSE(IsAgentReported());
    AnswerStatus({});
    EXPECT_TRUE(IsAgentReported());
    CloseAgent();
    EXPECT_FALSE(IsAgentReported());
}

TEST_F(LinkAgentTest, MessagesWaitWhileItIsAway)
{
    ConnectAll();
    CloseAgent();
    Receive(7, "1");
    Receive(7, "2");
    Pass(1h);
    EXPECT_FALSE(HasRequest());
    link_.AgentConnected();
    AnswerStatus({});
    EXPECT_EQ(Request().revision, "2");
}

TEST_F(LinkAgentTest, AMessageThatWasNotAnsweredIsGivenAgain)
{
    ConnectAll();
    Receive(7, "1");
    CloseAgent();
    link_.AgentConnected();
    AnswerStatus({});
    Pass(1s);
    EXPECT_EQ(Request().revision, "1");
    AnswerApplied();
    EXPECT_EQ(LastReport(7)->revision, 1U);
}

TEST_F(LinkAgentTest, AVpnThatEndsItDoesNotStarveTheOthers)
{
    ConnectAll();
    Receive(7, "1");
    Receive(8, "1");
    CloseAgent();
    link_.AgentConnected();
    AnswerStatus({});
    EXPECT_EQ(Request().vpn, 8U);
    AnswerApplied();
    Pass(1s);
    EXPECT_EQ(Request().vpn, 7U);
}

TEST_F(LinkAgentTest, WhatItCannotJudgeNowIsTriedAgainLater)
{
    ConnectAll();
    Receive(7, "1");
    Receive(8, "1");
    AnswerRetry();
    EXPECT_EQ(LastReport(7), std::nullopt);
    EXPECT_EQ(Request().vpn, 8U);
    AnswerApplied();
    EXPECT_FALSE(HasRequest());
    Pass(1s);
    EXPECT_EQ(Request().vpn, 7U);
    AnswerRetry();
    Pass(999ms);
    EXPECT_FALSE(HasRequest());
    Pass(1001ms);
    EXPECT_EQ(Request().vpn, 7U);
    AnswerApplied();
    EXPECT_EQ(LastReport(7)->revision, 1U);
}

TEST_F(LinkAgentTest, ANewerMessageTakesThePlaceOfOneThatIsTriedAgain)
{
    ConnectAll();
    Receive(7, "1");
    Receive(7, "2");
    AnswerRetry();
    EXPECT_FALSE(HasRequest());
    Pass(1s);
    EXPECT_EQ(Request().revision, "2");
    AnswerApplied();
    EXPECT_FALSE(HasRequest());
}

TEST_F(LinkAgentTest, WhatIsNumberedByOthersIsReported)
{
    ConnectAll();
    Receive(7, "5");
    AnswerApplied();
    WaitForStatus();
    AnswerStatus({{.revision = "20", .lastRevision = "20"}});
    EXPECT_EQ(LastReport(7)->revision, 20U);
}

TEST_F(LinkAgentTest, AnAgentThatKnowsTheRevisionIsNotAskedAgain)
{
    ConnectAll();
    Receive(7, "5");
    AnswerApplied();
    Restart({{.revision = "5", .lastRevision = "5"}});
    EXPECT_THAT(broker_.asked, IsEmpty());
}

TEST_F(LinkAgentTest, AnAgentThatHasLostItsStoreGetsTheMessageAgain)
{
    ConnectAll();
    Receive(7, "5");
    AnswerApplied();
    Restart({{.isMeant = false, .isRunning = false}});
    EXPECT_THAT(broker_.asked, ElementsAre("kavel/branch-1/desired/7"));
    EXPECT_EQ(LastReport(7)->inForce, std::nullopt);
    Receive(7, "5");
    EXPECT_EQ(Request().revision, "5");
    AnswerApplied();
    EXPECT_EQ(LastReport(7)->inForce, 5U);
}

TEST_F(LinkAgentTest, AMessageIsAskedForOnceAfterARestart)
{
    ConnectAll();
    Receive(7, "5");
    AnswerRefused("pop: the message is for a POP, and the box is a CPE");
    WaitForStatus();
    AnswerStatus({{}});
    EXPECT_THAT(broker_.asked, IsEmpty());
    Restart({{}});
    EXPECT_EQ(broker_.asked.size(), 1U);
    Receive(7, "5");
    AnswerRefused("pop: the message is for a POP, and the box is a CPE");
    WaitForStatus();
    AnswerStatus({{}});
    EXPECT_EQ(broker_.asked.size(), 1U);
}

TEST_F(LinkAgentTest, AVpnThatIsConfiguredLaterGetsItsMessage)
{
    ConnectAll();
    Receive(9, "5");
    Answer(-ENODEV, [](Kavel__Reply &reply) { reply.has_unknown_vpn = reply.unknown_vpn = 1; });
    EXPECT_EQ(LastReport(9)->result, Result::kRefused);
    WaitForStatus();
    AnswerStatus({{.vpn = 9, .netns = "-"}});
    EXPECT_THAT(broker_.asked, IsEmpty());
    WaitForStatus();
    AnswerStatus({{.vpn = 9, .isMeant = false, .isRunning = false, .netns = "vpn_9"}});
    EXPECT_THAT(broker_.asked, ElementsAre("kavel/branch-1/desired/9"));
    Receive(9, "5");
    AnswerApplied();
    EXPECT_EQ(LastReport(9)->result, Result::kApplied);
}

TEST_F(LinkAgentTest, WithoutARequestItNeedsNoTime)
{
    EXPECT_EQ(link_.NextTime(), std::nullopt);
    link_.AgentConnected();
    EXPECT_EQ(link_.NextTime(), std::nullopt);
    AnswerStatus({});
    EXPECT_EQ(link_.NextTime(), now_ + Link::kStatusInterval);
}

} // namespace
} // namespace kavel::link
