// The link and its broker: presence, reports, connections.
#include <gmock/gmock.h>

#include "link_fixture.h"
#include "presence.h"

namespace kavel::link {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char *kOnlineTopic = "kavel/branch-1/online";

using LinkBrokerTest = LinkTest;

TEST_F(LinkBrokerTest, PresenceIsPublishedFirst)
{
    ConnectAll();
    ASSERT_FALSE(broker_.publications.empty());
    EXPECT_EQ(broker_.publications.front().topic, kOnlineTopic);
    EXPECT_EQ(broker::ParsePresence(LastText(kOnlineTopic)), (broker::Presence{true, true, "1.2", kUnixTime}));
}

TEST_F(LinkBrokerTest, ReportsAreMadeAgainAfterAConnection)
{
    ConnectAll();
    Receive(7, "5");
    AnswerApplied();
    const auto report = LastReport(7);
    EXPECT_EQ(report->revision, 5U);
    CloseBroker();
    ConnectBroker();
    Receive(7, "5");
    EXPECT_FALSE(HasRequest());
    EXPECT_EQ(LastReport(7), report);
    EXPECT_TRUE(broker::ParsePresence(LastText(kOnlineTopic)).online);
}

TEST_F(LinkBrokerTest, WhatIsAnsweredWithoutABrokerIsReportedLater)
{
    ConnectAll();
    Receive(7, "5");
    CloseBroker();
    AnswerApplied();
    EXPECT_THAT(broker_.publications, IsEmpty());
    ConnectBroker();
    EXPECT_EQ(LastReport(7)->revision, 5U);
}

TEST_F(LinkBrokerTest, AMessageThatVanishesAtTheBrokerChangesNothing)
{
    ConnectAll();
    Receive(7, "5");
    AnswerApplied();
    CloseBroker();
    ConnectBroker();
    EXPECT_FALSE(HasRequest());
    EXPECT_EQ(LastReport(7)->inForce, 5U);
}

TEST_F(LinkBrokerTest, OneReportOfAVpnIsUnderWay)
{
    ConnectAll();
    (void)LastText(kOnlineTopic);
    for (const char *revision : {"1", "2", "3"}) {
        Receive(7, revision);
        AnswerApplied();
    }
    ASSERT_EQ(broker_.publications.size(), 1U);
    EXPECT_THAT(broker_.publications.front().text, HasSubstr(R"("revision":1)"));
    Acknowledge();
    ASSERT_EQ(broker_.publications.size(), 1U);
    EXPECT_THAT(broker_.publications.front().text, HasSubstr(R"("revision":3)"));
}

TEST_F(LinkBrokerTest, ARefusedReportIsMadeAgainWithTheNextStatus)
{
    ConnectAll();
    (void)LastText(kOnlineTopic);
    Receive(7, "5");
    AnswerApplied();
    Acknowledge("Not authorized");
    EXPECT_THAT(broker_.publications, IsEmpty());
    WaitForStatus();
    AnswerStatus({});
    EXPECT_EQ(LastReport(7)->revision, 5U);
}

TEST_F(LinkBrokerTest, AnOldMessageOfAnotherBrokerIsNotApplied)
{
    ConnectAll();
    Receive(7, "5");
    AnswerApplied();
    CloseBroker();
    ConnectBroker();
    Receive(7, "3");
    EXPECT_FALSE(HasRequest());
    EXPECT_EQ(LastReport(7)->revision, 5U);
}

TEST_F(LinkBrokerTest, ItLeavesWhenTheBrokerKnows)
{
    ConnectAll();
    bool isDone = false;
    link_.Leave([&isDone] { isDone = true; });
    EXPECT_FALSE(isDone);
    EXPECT_EQ(broker::ParsePresence(LastText(kOnlineTopic)), broker::Presence());
    EXPECT_TRUE(isDone);
    Receive(7, "5");
    EXPECT_FALSE(HasRequest());
    EXPECT_EQ(link_.NextTime(), std::nullopt);
}

TEST_F(LinkBrokerTest, ItLeavesAtOnceWithoutABroker)
{
    bool isDone = false;
    link_.Leave([&isDone] { isDone = true; });
    EXPECT_TRUE(isDone);
}

TEST_F(LinkBrokerTest, ItLeavesWhenTheConnectionEnds)
{
    ConnectAll();
    int count = 0;
    link_.Leave([&count] { ++count; });
    CloseBroker();
    EXPECT_EQ(count, 1);
}

TEST_F(LinkBrokerTest, ItsStateIsOneLine)
{
    EXPECT_EQ(link_.StateText(), "the broker is not connected, the agent does not answer");
    ConnectAll();
    EXPECT_EQ(link_.StateText(), "the broker is connected, the agent answers");
    Receive(7, "1");
    Receive(8, "1");
    EXPECT_EQ(link_.StateText(), "the broker is connected, the agent answers, 1 message waits");
    Receive(9, "1");
    EXPECT_EQ(link_.StateText(), "the broker is connected, the agent answers, 2 messages wait");
}

TEST_F(LinkBrokerTest, AProblemThatRepeatsIsLoggedOnce)
{
    testing::internal::CaptureStderr();
    link_.BrokerClosed("cannot connect: Connection refused");
    link_.BrokerClosed("cannot connect: Connection refused");
    link_.BrokerClosed("TLS: certificate expired");
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(log, "WARNING the broker: cannot connect: Connection refused\n"
                   "WARNING the broker: TLS: certificate expired\n");
}

} // namespace
} // namespace kavel::link
