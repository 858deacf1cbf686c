#include "report_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "link_fixture.h"

namespace kavel::link {
namespace {

class ReportQueueTest : public testing::Test {
  protected:
    void SetUp() override
    {
        broker_.isConnected = true;
        queue_.Connected();
    }

    // The texts that were published and are not acknowledged.
    std::vector<std::string> Texts() const
    {
        std::vector<std::string> texts;
        for (const Publication &publication : broker_.publications) {
            texts.push_back(publication.topic + "=" + publication.text);
        }
        return texts;
    }

    void Acknowledge(const std::string &problem = {})
    {
        ASSERT_FALSE(broker_.publications.empty());
        const std::uint64_t number = broker_.publications.front().number;
        broker_.publications.erase(broker_.publications.begin());
        queue_.Published(number, problem);
    }

    void Close()
    {
        broker_.isConnected = false;
        broker_.publications.clear();
        queue_.Closed();
    }

    FakeBroker broker_;
    ReportQueue queue_{broker_};
};

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(ReportQueueTest, ATextIsPublishedAtOnce)
{
    queue_.Put("a", "1");
    EXPECT_THAT(Texts(), ElementsAre("a=1"));
    EXPECT_FALSE(queue_.IsPublished("a"));
    Acknowledge();
    EXPECT_TRUE(queue_.IsPublished("a"));
    EXPECT_THAT(Texts(), IsEmpty());
}

TEST_F(ReportQueueTest, OneTextOfATopicIsUnderWay)
{
    queue_.Put("a", "1");
    queue_.Put("a", "2");
    queue_.Put("a", "3");
    queue_.Put("b", "1");
    EXPECT_THAT(Texts(), ElementsAre("a=1", "b=1"));
    Acknowledge();
    EXPECT_THAT(Texts(), ElementsAre("b=1", "a=3"));
}

TEST_F(ReportQueueTest, AnEqualTextIsNotPublishedAgain)
{
    queue_.Put("a", "1");
    Acknowledge();
    queue_.Put("a", "1");
    EXPECT_THAT(Texts(), IsEmpty());
}

TEST_F(ReportQueueTest, WhatIsPutWithoutAConnectionIsPublishedLater)
{
    Close();
    queue_.Put("a", "1");
    EXPECT_THAT(Texts(), IsEmpty());
    broker_.isConnected = true;
    queue_.Connected();
    EXPECT_THAT(Texts(), ElementsAre("a=1"));
}

TEST_F(ReportQueueTest, ANewConnectionGetsAllTexts)
{
    queue_.Put("a", "1");
    Acknowledge();
    queue_.Put("b", "1");
    Close();
    EXPECT_FALSE(queue_.IsPublished("a"));
    broker_.isConnected = true;
    queue_.Connected();
    EXPECT_THAT(Texts(), ElementsAre("a=1", "b=1"));
}

TEST_F(ReportQueueTest, AnAcknowledgementOfAnotherPublicationIsPassedOver)
{
    queue_.Put("a", "1");
    queue_.Published(4711, "");
    EXPECT_FALSE(queue_.IsPublished("a"));
}

TEST_F(ReportQueueTest, ARefusedTextIsTriedAgainOnRequest)
{
    queue_.Put("a", "1");
    Acknowledge("Not authorized");
    EXPECT_FALSE(queue_.IsPublished("a"));
    EXPECT_THAT(Texts(), IsEmpty());
    queue_.TryRefusedAgain();
    EXPECT_THAT(Texts(), ElementsAre("a=1"));
    queue_.TryRefusedAgain();
    EXPECT_EQ(broker_.publications.size(), 1U);
    Acknowledge();
    EXPECT_TRUE(queue_.IsPublished("a"));
}

TEST_F(ReportQueueTest, ANewerTextFollowsARefusedOne)
{
    queue_.Put("a", "1");
    queue_.Put("a", "2");
    Acknowledge("Quota exceeded");
    EXPECT_THAT(Texts(), ElementsAre("a=2"));
}

} // namespace
} // namespace kavel::link
