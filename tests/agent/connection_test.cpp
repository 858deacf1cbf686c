#include "socket/connection.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include "frame.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

using namespace std::chrono_literals;

const Connection::Clock::time_point kStart{1000s};
constexpr std::chrono::seconds kStallTime{10};

// A connection and the client's end of it, which does not block either.
class ConnectionTest : public testing::Test {
  protected:
    ConnectionTest() : connection_(MakePair(), 4711, kStart, budget_) {}

    UniqueFd MakePair()
    {
        std::array<int, 2> pair{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()), 0);
        client_ = UniqueFd(pair[0]);
        return UniqueFd(pair[1]);
    }

    void Send(const Bytes &bytes) const
    {
        ASSERT_EQ(::send(client_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }

    void SendAndAdvance(const Bytes &bytes, Connection::Clock::time_point now = kStart)
    {
        Send(bytes);
        connection_.Advance(now);
    }

    // What the client can read at the moment.
    Bytes Received() const
    {
        Bytes all;
        std::array<std::uint8_t, 65536> bytes{};
        for (ssize_t size = 0; (size = ::recv(client_.Get(), bytes.data(), bytes.size(), 0)) > 0;) {
            all.insert(all.end(), bytes.begin(), bytes.begin() + size);
        }
        return all;
    }

    [[nodiscard]] bool HasEnded() const
    {
        std::uint8_t byte = 0;
        return ::recv(client_.Get(), &byte, 1, 0) == 0;
    }

    [[nodiscard]] Bytes TakeFrame()
    {
        const ReceivedFrame frame = connection_.BeginRequest();
        return {frame.Content().begin(), frame.Content().end()};
    }

    // A reply that does not fit into the buffers of the socket.
    void LeaveAReplyUnsent(Connection::Clock::time_point now)
    {
        SendAndAdvance(FrameOf({1}), now);
        (void)connection_.BeginRequest();
        connection_.Reply(Bytes(4'000'000, 7), now);
        ASSERT_TRUE(connection_.HasUnsentReply());
    }

    UniqueFd client_;
    ReceiveBudget budget_{std::size_t{32} * 1024 * 1024};
    Connection connection_;
};

TEST_F(ConnectionTest, IsIdleAndReadsBeforeAnythingCame)
{
    EXPECT_TRUE(connection_.IsIdle());
    EXPECT_FALSE(connection_.WasServed());
    EXPECT_FALSE(connection_.IsFinished());
    EXPECT_EQ(connection_.ActiveAt(), kStart);
    EXPECT_EQ(connection_.Peer(), 4711);
    EXPECT_EQ(connection_.WantedEvents(), EPOLLIN);
    connection_.Advance(kStart);
    EXPECT_TRUE(connection_.IsIdle());
    EXPECT_EQ(connection_.Deadline(), std::nullopt);
}

TEST_F(ConnectionTest, PutsAFrameTogetherFromSingleBytes)
{
    const Bytes frame = FrameOf({10, 20, 30});
    for (const std::uint8_t byte : frame) {
        EXPECT_FALSE(connection_.HasFrame());
        SendAndAdvance({byte});
    }
    ASSERT_TRUE(connection_.HasFrame());
    EXPECT_EQ(TakeFrame(), (Bytes{10, 20, 30}));
}

TEST_F(ConnectionTest, AFrameMayBeEmpty)
{
    SendAndAdvance(FrameOf({}));
    ASSERT_TRUE(connection_.HasFrame());
    EXPECT_EQ(TakeFrame(), Bytes{});
}

TEST_F(ConnectionTest, KeepsWhatFollowsAFrame)
{
    Bytes both = FrameOf({1, 2});
    const Bytes second = FrameOf({3});
    both.insert(both.end(), second.begin(), second.end());
    SendAndAdvance(both);
    EXPECT_EQ(TakeFrame(), (Bytes{1, 2}));
    EXPECT_FALSE(connection_.HasFrame()) << "before the reply to the first";
    connection_.Reply(FrameOf({9}), kStart);
    ASSERT_TRUE(connection_.HasFrame());
    EXPECT_EQ(TakeFrame(), Bytes{3});
}

TEST_F(ConnectionTest, SendsTheReply)
{
    SendAndAdvance(FrameOf({1}));
    (void)TakeFrame();
    EXPECT_FALSE(connection_.WasServed());
    connection_.Reply(FrameOf({4, 5}), kStart + 3s);
    EXPECT_EQ(Received(), FrameOf({4, 5}));
    EXPECT_TRUE(connection_.WasServed());
    EXPECT_TRUE(connection_.IsIdle());
    EXPECT_EQ(connection_.ActiveAt(), kStart + 3s);
    EXPECT_EQ(connection_.WantedEvents(), EPOLLIN);
}

TEST_F(ConnectionTest, ReadsNothingAndHasNoDeadlineWhileBusy)
{
    SendAndAdvance(FrameOf({1}));
    (void)TakeFrame();
    EXPECT_TRUE(connection_.IsBusy());
    EXPECT_FALSE(connection_.IsIdle());
    EXPECT_EQ(connection_.WantedEvents(), 0U);
    SendAndAdvance({0, 0}, kStart + 1s);
    EXPECT_EQ(connection_.Deadline(), std::nullopt);
    connection_.Reply(FrameOf({2}), kStart + 60s);
    EXPECT_EQ(connection_.Deadline(), kStart + 60s + kStallTime) << "read only now";
}

TEST_F(ConnectionTest, ABegunFrameHasADeadlineThatMoreBytesDoNotMove)
{
    SendAndAdvance({0}, kStart + 1s);
    EXPECT_EQ(connection_.Deadline(), kStart + 1s + kStallTime);
    EXPECT_FALSE(connection_.IsIdle());
    SendAndAdvance({0, 0}, kStart + 5s);
    EXPECT_EQ(connection_.Deadline(), kStart + 1s + kStallTime);
    SendAndAdvance({0}, kStart + 6s);
    EXPECT_EQ(connection_.Deadline(), std::nullopt) << "the frame is complete";
}

TEST_F(ConnectionTest, TheNextFrameHasADeadlineOfItsOwn)
{
    SendAndAdvance({0}, kStart);
    SendAndAdvance({0, 0, 0}, kStart + 1s);
    (void)TakeFrame();
    Send({0});
    connection_.Reply(FrameOf({}), kStart + 7s);
    EXPECT_EQ(connection_.Deadline(), kStart + 7s + kStallTime);
}

TEST_F(ConnectionTest, AnUnreadReplyHasADeadlineAndKeepsRequestsUnread)
{
    LeaveAReplyUnsent(kStart + 2s);
    EXPECT_EQ(connection_.Deadline(), kStart + 2s + kStallTime);
    EXPECT_EQ(connection_.WantedEvents(), EPOLLOUT);
    EXPECT_FALSE(connection_.IsIdle());
    Send(FrameOf({5}));
    connection_.Advance(kStart + 4s);
    EXPECT_FALSE(connection_.HasFrame());
    EXPECT_EQ(connection_.Deadline(), kStart + 2s + kStallTime);

    std::size_t read = 0;
    for (int round = 0; round < 1000 && connection_.HasUnsentReply(); ++round) {
        read += Received().size();
        connection_.Advance(kStart + 5s);
    }
    EXPECT_EQ(read + Received().size(), 4'000'000U);
    EXPECT_EQ(connection_.Deadline(), std::nullopt);
    EXPECT_TRUE(connection_.HasFrame());
}

TEST_F(ConnectionTest, AcceptsTheLongestFrameAndNoLongerOne)
{
    SendAndAdvance({1, 0, 0, 0});
    EXPECT_FALSE(connection_.IsOversized());
    EXPECT_FALSE(connection_.HasFrame());
    EXPECT_EQ(connection_.WantedEvents(), EPOLLIN);

    Connection other(MakePair(), 1, kStart, budget_);
    Send({1, 0, 0, 1});
    other.Advance(kStart);
    EXPECT_TRUE(other.IsOversized());
    EXPECT_FALSE(other.HasFrame());
    EXPECT_EQ(other.WantedEvents(), 0U);
}

TEST_F(ConnectionTest, ReadsAFrameThatIsLongerThanTheBuffersOfTheSocket)
{
    const Bytes content(3'000'000, 0x5A);
    const Bytes frame = FrameOf(content);
    std::size_t sent = 0;
    for (int round = 0; round < 1000 && !connection_.HasFrame(); ++round) {
        const ssize_t size = ::send(client_.Get(), frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL);
        sent += size > 0 ? static_cast<std::size_t>(size) : 0;
        connection_.Advance(kStart);
    }
    ASSERT_TRUE(connection_.HasFrame());
    EXPECT_TRUE(TakeFrame() == content);
}

TEST_F(ConnectionTest, ExceedsTheBudgetWithBytesThatDoNotFit)
{
    ReceiveBudget small(1000);
    Connection other(MakePair(), 1, kStart, small);
    Send({1, 0, 0, 0});
    Send(Bytes(ReceiveBudget::kOwnBytes, 7));
    other.Advance(kStart);
    EXPECT_EQ(small.Shared(), 4U);
    EXPECT_FALSE(other.ExceedsBudget());
    EXPECT_EQ(other.WantedEvents(), EPOLLIN);

    Send(Bytes(997, 7));
    other.Advance(kStart);
    EXPECT_TRUE(other.ExceedsBudget());
    EXPECT_EQ(other.WantedEvents(), 0U);
    EXPECT_FALSE(other.IsFinished());
    EXPECT_FALSE(other.IsIdle());

    other.Dismiss(FrameOf({8}), kStart);
    EXPECT_EQ(small.Shared(), 0U);
    EXPECT_FALSE(other.ExceedsBudget());
    EXPECT_EQ(Received(), FrameOf({8}));
    Send(Bytes(100'000, 7));
    other.Advance(kStart);
    EXPECT_EQ(small.Shared(), 0U);
    EXPECT_FALSE(other.ExceedsBudget());
}

TEST_F(ConnectionTest, AFrameThatIsHandedOverLeavesTheBudget)
{
    const std::size_t size = ReceiveBudget::kOwnBytes + 500;
    SendAndAdvance(FrameOf(Bytes(size - control::kFrameHeaderSize)));
    EXPECT_EQ(budget_.Shared(), 500U);
    const ReceivedFrame frame = connection_.BeginRequest();
    EXPECT_EQ(frame.bytes.size(), size);
    EXPECT_EQ(budget_.Shared(), 0U);
}

TEST_F(ConnectionTest, DismissSendsALastAnswerAndDiscardsWhatComes)
{
    SendAndAdvance({1, 0, 0, 1, 1, 2, 3});
    connection_.Dismiss(FrameOf({8}), kStart);
    EXPECT_EQ(Received(), FrameOf({8}));
    EXPECT_TRUE(HasEnded()) << "nothing follows the last answer";
    EXPECT_EQ(connection_.Deadline(), kStart + kStallTime);
    SendAndAdvance(FrameOf({1}), kStart + 1s);
    EXPECT_FALSE(connection_.HasFrame());
    EXPECT_FALSE(connection_.IsOversized());
    EXPECT_FALSE(connection_.IsFinished());
    EXPECT_EQ(connection_.Deadline(), kStart + kStallTime);
    ::shutdown(client_.Get(), SHUT_WR);
    connection_.Advance(kStart + 2s);
    EXPECT_TRUE(connection_.IsFinished());
    EXPECT_FALSE(connection_.IsTruncated());
}

TEST_F(ConnectionTest, AnEndBetweenFramesFinishes)
{
    ::shutdown(client_.Get(), SHUT_WR);
    connection_.Advance(kStart);
    EXPECT_TRUE(connection_.IsFinished());
    EXPECT_FALSE(connection_.IsTruncated());
    EXPECT_EQ(connection_.WantedEvents(), 0U);
}

TEST_F(ConnectionTest, AnEndWithinAFrameIsATruncatedOne)
{
    SendAndAdvance({0, 0, 0, 2, 1});
    EXPECT_FALSE(connection_.IsTruncated());
    ::shutdown(client_.Get(), SHUT_WR);
    connection_.Advance(kStart);
    EXPECT_TRUE(connection_.IsTruncated());
    EXPECT_TRUE(connection_.IsFinished());
}

TEST_F(ConnectionTest, AClientThatSendsNoMoreGetsItsReply)
{
    Send(FrameOf({1}));
    ::shutdown(client_.Get(), SHUT_WR);
    connection_.Advance(kStart);
    EXPECT_FALSE(connection_.IsFinished());
    (void)TakeFrame();
    EXPECT_FALSE(connection_.IsFinished());
    connection_.Reply(FrameOf({6}), kStart);
    EXPECT_EQ(Received(), FrameOf({6}));
    EXPECT_TRUE(connection_.IsFinished());
}

TEST_F(ConnectionTest, AClientThatIsGoneFinishesWithTheReply)
{
    SendAndAdvance(FrameOf({1}));
    (void)TakeFrame();
    client_ = UniqueFd();
    connection_.Reply(FrameOf({6}), kStart);
    EXPECT_TRUE(connection_.IsFinished());
}

TEST_F(ConnectionTest, AResetConnectionFinishes)
{
    SendAndAdvance(FrameOf({1}));
    (void)TakeFrame();
    connection_.Reply(FrameOf({6}), kStart);
    client_ = UniqueFd(); // what it has not read turns its end into a reset
    connection_.Advance(kStart);
    EXPECT_TRUE(connection_.IsFinished());
}

} // namespace
} // namespace kavel::agent
