// The end of a control socket: what is still sent.
#include "socket/control_socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "control_socket_fixture.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;

class DrainTest : public ControlSocketTest {
  protected:
    void Drain()
    {
        socket_->Drain([this] { ++drained_; });
    }

    int drained_ = 0;
};

TEST_F(DrainTest, EndsAtOnceWithoutClients)
{
    Drain();
    EXPECT_EQ(drained_, 0) << "the loop calls it";
    EXPECT_TRUE(RunUntil(
        loop_, [&] { return drained_ > 0; }, std::chrono::milliseconds(900)));
}

TEST_F(DrainTest, SendsEveryReplyBeforeItEnds)
{
    padding_ = 5'000'000;
    for (std::uint8_t mark = 1; mark <= 2; ++mark) {
        Connect().SendRequest(mark);
    }
    ASSERT_TRUE(RunUntil(loop_, [&] { return marks_.size() == 2; }));
    Drain();
    DispatchReady(loop_);
    EXPECT_EQ(drained_, 0);
    EXPECT_TRUE(RunUntil(loop_, [&] {
        Client(0).Results();
        Client(1).Results();
        return drained_ > 0;
    }));
    EXPECT_THAT(Client(0).Results(), ElementsAre(1));
    EXPECT_THAT(Client(1).Results(), ElementsAre(2));
    EXPECT_TRUE(Client(0).HasEnded());
    DispatchReady(loop_);
    EXPECT_EQ(drained_, 1);
}

TEST_F(DrainTest, ClosesClientsThatAreOwedNothing)
{
    answersAtOnce_ = false;
    Connect().SendRequest(1);
    Connect().Send({0, 0});
    ConnectAndAdmit(1);
    ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 1; }));
    Drain();
    EXPECT_TRUE(RunUntil(
        loop_, [&] { return drained_ > 0; }, std::chrono::milliseconds(900)));
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(Client(i).HasEnded()) << i;
    }
    AnswerKept(1); // its client is gone: nothing happens
    DispatchReady(loop_);
    EXPECT_EQ(drained_, 1);
}

TEST_F(DrainTest, HandlesNoFurtherFrames)
{
    TestClient &client = Connect();
    client.SendRequest(1);
    client.SendRequest(2);
    ASSERT_TRUE(RunUntil(loop_, [&] { return marks_.size() == 1; }));
    Drain();
    TestClient &late = Connect();
    late.SendRequest(3);
    EXPECT_TRUE(RunUntil(loop_, [&] { return drained_ > 0; }));
    DispatchReady(loop_);
    EXPECT_THAT(marks_, ElementsAre(1));
    EXPECT_THAT(client.Results(), ElementsAre(1));
}

TEST_F(DrainTest, EndsAfterASecondWhenAClientDoesNotRead)
{
    padding_ = 5'000'000;
    Connect().SendRequest(1);
    ASSERT_TRUE(RunUntil(loop_, [&] { return marks_.size() == 1; }));
    const auto start = EventLoop::Clock::now();
    Drain();
    EXPECT_TRUE(RunUntil(loop_, [&] { return drained_ > 0; }));
    EXPECT_GE(EventLoop::Clock::now() - start, std::chrono::seconds(1));
}

TEST_F(DrainTest, EndsOnceAlsoWhenTheClientReadsAfterwards)
{
    padding_ = 5'000'000;
    Connect().SendRequest(1);
    ASSERT_TRUE(RunUntil(loop_, [&] { return marks_.size() == 1; }));
    Drain();
    EXPECT_TRUE(RunUntil(loop_, [&] { return drained_ > 0; }));
    EXPECT_TRUE(RunUntil(loop_, [&] { return !Client(0).Results().empty(); }));
    (void)RunUntil(
        loop_, [&] { return drained_ > 1; }, std::chrono::milliseconds(100));
    EXPECT_EQ(drained_, 1);
}

} // namespace
} // namespace kavel::agent
