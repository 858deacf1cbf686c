#include "socket/control_socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "control_socket_fixture.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

TEST_F(ControlSocketTest, AnswersARequest)
{
    TestClient &client = Connect();
    client.SendRequest(5);
    AwaitReplies(client, 1);
    EXPECT_THAT(client.Results(), ElementsAre(5));
    EXPECT_FALSE(client.HasEnded());
}

TEST_F(ControlSocketTest, AnswersTheRightClientWheneverTheAnswerComes)
{
    answersAtOnce_ = false;
    for (std::uint8_t mark = 1; mark <= 3; ++mark) {
        Connect().SendRequest(mark);
    }
    ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 3; }));
    for (const std::uint8_t mark : Bytes{3, 1, 2}) {
        AnswerKept(mark);
        AwaitReplies(Client(mark - 1U), 1);
        EXPECT_THAT(Client(mark - 1U).Results(), ElementsAre(mark));
    }
}

TEST_F(ControlSocketTest, AnswersPipelinedFramesInTheirOrder)
{
    answersAtOnce_ = false;
    TestClient &client = Connect();
    Bytes three;
    for (const std::uint8_t mark : Bytes{1, 2, 3}) {
        const Bytes frame = FrameOf({mark});
        three.insert(three.end(), frame.begin(), frame.end());
    }
    client.Send(three);
    for (const std::uint8_t mark : Bytes{1, 2, 3}) {
        ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 1; }));
        DispatchReady(loop_);
        EXPECT_EQ(requests_.size(), 1U) << "the next one waits for the answer";
        AnswerKept(mark);
    }
    AwaitReplies(client, 3);
    EXPECT_THAT(client.Results(), ElementsAre(1, 2, 3));
}

TEST_F(ControlSocketTest, HandlesTheNextFramesOfSeveralClients)
{
    answersAtOnce_ = false;
    for (std::uint8_t mark = 1; mark <= 3; ++mark) {
        TestClient &client = Connect();
        client.SendRequest(mark);
        client.SendRequest(mark);
    }
    ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 3; }));
    for (std::uint8_t mark = 1; mark <= 3; ++mark) {
        AnswerKept(mark);
    }
    ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 3; }));
    EXPECT_THAT(marks_, UnorderedElementsAre(1, 2, 3, 1, 2, 3));
}

TEST_F(ControlSocketTest, HandsOverOneFramePerIteration)
{
    for (std::uint8_t mark = 1; mark <= 5; ++mark) {
        TestClient &client = Connect();
        client.SendRequest(mark);
        client.SendRequest(mark);
    }
    std::size_t handled = 0;
    std::size_t most = 0;
    EXPECT_TRUE(RunUntil(loop_, [&] {
        most = std::max(most, marks_.size() - handled);
        handled = marks_.size();
        return handled == 10;
    }));
    EXPECT_EQ(most, 1U);
}

TEST_F(ControlSocketTest, DoesNotAnswerAnotherClientInPlaceOfOneThatLeft)
{
    answersAtOnce_ = false;
    Connect().SendRequest(1);
    ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 1; }));
    clients_.clear();
    AnswerKept(1); // the reply fails, and the descriptor is free again
    TestClient &next = Connect();
    next.SendRequest(2);
    ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 1; }));
    AnswerKept(2);
    AwaitReplies(next, 1);
    EXPECT_THAT(next.Results(), ElementsAre(2));
}

TEST_F(ControlSocketTest, AClientThatLeftIsDroppedWithItsAnswer)
{
    Connect().SendRequest(1);
    clients_.clear();
    TestClient &next = Connect();
    next.SendRequest(2);
    AwaitReplies(next, 1);
    EXPECT_THAT(next.Results(), ElementsAre(2));
    EXPECT_THAT(marks_, ElementsAre(1, 2));
}

TEST_F(ControlSocketTest, IgnoresASecondAnswerToARequest)
{
    answersAtOnce_ = false;
    TestClient &client = Connect();
    client.SendRequest(1);
    ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 1; }));
    const Respond respond = requests_.front().respond;
    respond(AnswerTo(1));
    respond(AnswerTo(9));
    DispatchReady(loop_);
    EXPECT_THAT(client.Results(), ElementsAre(1));
}

TEST_F(ControlSocketTest, LogsAClientThatLeavesWithinAFrame)
{
    TestClient &client = Connect();
    client.Send({0, 0, 0, 9, 1});
    client.EndSending();
    LogCapture log;
    EXPECT_TRUE(RunUntil(loop_, [&] { return client.HasEnded(); }));
    EXPECT_THAT(log.Take(), HasSubstr("disconnected in the middle of a frame"));
}

TEST_F(ControlSocketTest, DropsAClientThatLeavesBetweenFramesSilently)
{
    TestClient &client = Connect();
    client.EndSending();
    LogCapture log;
    EXPECT_TRUE(RunUntil(loop_, [&] { return client.HasEnded(); }));
    EXPECT_EQ(log.Take(), "");
}

TEST_F(ControlSocketTest, RefusesAnOversizedFrameAndClosesTheConnection)
{
    TestClient &client = Connect();
    client.Send({1, 0, 0, 1, 7, 7, 7});
    LogCapture log;
    AwaitReplies(client, 1);
    EXPECT_THAT(client.Results(), ElementsAre(-EMSGSIZE));
    EXPECT_EQ(client.Text(), "a frame holds 16777216 bytes at most");
    EXPECT_TRUE(client.HasEnded());
    EXPECT_THAT(log.Take(), HasSubstr("announced a longer frame"));
    EXPECT_THAT(marks_, ElementsAre());
}

TEST_F(ControlSocketTest, AnswersTheFrameBeforeAnOversizedOne)
{
    TestClient &client = Connect();
    Bytes both = FrameOf({5});
    both.insert(both.end(), {0xFF, 0, 0, 0, 7, 7});
    client.Send(both);
    LogCapture log;
    AwaitReplies(client, 2);
    EXPECT_THAT(client.Results(), ElementsAre(5, -EMSGSIZE));
}

TEST_F(ControlSocketTest, LetsInA65thClientForOneThatNeverSentARequest)
{
    ConnectAndAdmit(64);
    for (std::size_t i = 0; i < 64; ++i) {
        if (i != 5 && i != 9) {
            Client(i).SendRequest(1);
            AwaitReplies(Client(i), 1);
        }
    }
    LogCapture log;
    TestClient &next = Connect();
    next.SendRequest(2);
    AwaitReplies(next, 1);
    EXPECT_THAT(next.Results(), ElementsAre(2));
    for (std::size_t i = 0; i < 64; ++i) {
        EXPECT_EQ(Client(i).HasEnded(), i == 5) << i;
    }
    EXPECT_THAT(log.Take(), HasSubstr("all 64 are in use"));
}

TEST_F(ControlSocketTest, AServedClientStaysAlthoughItIsIdleLonger)
{
    for (std::size_t i = 0; i < 63; ++i) {
        Connect().SendRequest(1);
        AwaitReplies(Client(i), 1);
    }
    ConnectAndAdmit(1);
    LogCapture log;
    TestClient &next = Connect();
    next.SendRequest(2);
    AwaitReplies(next, 1);
    EXPECT_FALSE(Client(0).HasEnded());
    EXPECT_TRUE(Client(63).HasEnded());
}

TEST_F(ControlSocketTest, ClosesTheLongestIdleClientWhenAllWereServed)
{
    ConnectAndAdmit(64);
    for (std::size_t i = 64; i > 0; --i) {
        Client((i + 40) % 64).SendRequest(1); // client 40 first
        AwaitReplies(Client((i + 40) % 64), 1);
    }
    LogCapture log;
    TestClient &next = Connect();
    next.SendRequest(2);
    AwaitReplies(next, 1);
    for (std::size_t i = 0; i < 64; ++i) {
        EXPECT_EQ(Client(i).HasEnded(), i == 40) << i;
    }
}

TEST_F(ControlSocketTest, AClientWaitsWhileNoneOf64IsIdle)
{
    answersAtOnce_ = false;
    for (std::uint8_t mark = 1; mark <= 64; ++mark) {
        Connect().SendRequest(mark);
    }
    ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 64; }));
    TestClient &next = Connect();
    next.SendRequest(65);
    DispatchReady(loop_);
    EXPECT_EQ(requests_.size(), 64U);
    LogCapture log;
    AnswerKept(30);
    ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 64; }));
    EXPECT_EQ(requests_.back().mark, 65);
    EXPECT_THAT(Client(29).Results(), ElementsAre(30));
    EXPECT_TRUE(Client(29).HasEnded());
}

// Their requests are still handled, but they must not keep others out.
TEST_F(ControlSocketTest, ClientsThatLeaveWhileTheirRequestIsHandledFreeTheirSlots)
{
    answersAtOnce_ = false;
    TestClient idle(path_);
    for (std::uint8_t mark = 1; mark <= 63; ++mark) {
        Connect().SendRequest(mark);
    }
    ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 63; }));
    clients_.clear();
    DispatchReady(loop_);
    for (std::uint8_t mark = 64; mark <= 126; ++mark) {
        Connect().SendRequest(mark);
    }
    ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 126; }));
    EXPECT_FALSE(idle.HasEnded());
    AnswerKept(1);
    AnswerKept(126);
    AwaitReplies(Client(62), 1);
    EXPECT_THAT(Client(62).Results(), ElementsAre(126));
}

TEST_F(ControlSocketTest, AClientThatSendsNoMoreStillGetsItsAnswer)
{
    answersAtOnce_ = false;
    TestClient &client = Connect();
    client.SendRequest(1);
    client.EndSending();
    ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 1; }));
    DispatchReady(loop_);
    AnswerKept(1);
    AwaitReplies(client, 1);
    EXPECT_THAT(client.Results(), ElementsAre(1));
}

TEST_F(ControlSocketTest, SendsAReplyThatDoesNotFitIntoTheSocket)
{
    padding_ = 5'000'000;
    TestClient &client = Connect();
    client.SendRequest(1);
    AwaitReplies(client, 1);
    EXPECT_THAT(client.Results(), ElementsAre(1));
}

TEST_F(ControlSocketTest, AcceptsAgainAfterALackOfDescriptors)
{
    TestClient &client = Connect();
    client.SendRequest(4);
    LogCapture log;
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    DispatchReady(loop_);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_THAT(marks_, ElementsAre());
    AwaitReplies(client, 1);
    EXPECT_THAT(client.Results(), ElementsAre(4));
    EXPECT_THAT(log.Take(), HasSubstr("cannot accept: Too many open files"));
}

TEST_F(ControlSocketTest, OnlyItsUserMayConnect)
{
    struct stat info {};
    ASSERT_EQ(::stat(path_.c_str(), &info), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(info.st_mode & ALLPERMS, 0600U);
}

TEST_F(ControlSocketTest, RemovesTheSocketAtTheEnd)
{
    socket_.reset();
    EXPECT_EQ(::access(path_.c_str(), F_OK), -1);
}

TEST_F(ControlSocketTest, RemovesNoSocketOfAnotherOwnerAtTheEnd)
{
    const auto second = std::make_unique<ControlSocket>(
        loop_, path_, [](const ReceivedFrame & /*frame*/, const Respond &respond) { respond(Refusal(-77)); });
    socket_.reset();
    TestClient client(path_);
    client.SendRequest(1);
    AwaitReplies(client, 1);
    EXPECT_THAT(client.Results(), ElementsAre(-77));
}

TEST_F(ControlSocketTest, RemovesNoFileThatTookItsPlaceAtTheEnd)
{
    ASSERT_EQ(::unlink(path_.c_str()), 0);
    box_.Write("/agent.sock", "content");
    socket_.reset();
    EXPECT_EQ(ReadText(path_), "content");
}

TEST_F(ControlSocketTest, TakesThePlaceOfASocketThatWasLeftThere)
{
    const ControlSocket second(loop_, path_,
                               [](const ReceivedFrame & /*frame*/, const Respond &respond) { respond(Refusal(-77)); });
    TestClient client(path_);
    client.SendRequest(1);
    AwaitReplies(client, 1);
    EXPECT_THAT(client.Results(), ElementsAre(-77));
}

TEST_F(ControlSocketTest, DoesNotReplaceAFile)
{
    box_.Write("/file", "content");
    EXPECT_THROW(ControlSocket(loop_, box_.Path("/file"), {}), std::system_error);
    EXPECT_EQ(ReadText(box_.Path("/file")), "content");
}

class BudgetTest : public ControlSocketTest {
  protected:
    // An unfinished frame of the maximum size, of which the agent holds `size` bytes.
    void SendPartOfAFrame(TestClient &client, std::size_t size)
    {
        client.Send({1, 0, 0, 0});
        DispatchReady(loop_);
        for (std::size_t left = size - control::kFrameHeaderSize; left > 0;) {
            const std::size_t piece = std::min<std::size_t>(left, 65536);
            client.Send(Bytes(piece));
            DispatchReady(loop_);
            left -= piece;
        }
    }

    static constexpr std::size_t kMebi = std::size_t{1024} * 1024;
};

TEST_F(BudgetTest, DismissesTheClientWhoseBytesDoNotFit)
{
    for (std::size_t i = 0; i < 6; ++i) {
        SendPartOfAFrame(Connect(), 10 * kMebi);
        EXPECT_TRUE(Client(i).Results().empty());
    }
    LogCapture log;
    TestClient &last = Connect();
    last.Send({1, 0, 0, 0});
    for (int i = 0; i < 40 && last.Results().empty(); ++i) {
        last.Send(Bytes(65536));
        DispatchReady(loop_);
    }
    EXPECT_THAT(last.Results(), ElementsAre(-ENOBUFS));
    EXPECT_EQ(last.Text(), "the unfinished frames of all clients would take more than 67108864 bytes");
    EXPECT_TRUE(last.HasEnded());
    EXPECT_THAT(log.Take(), HasSubstr("is dismissed: the unfinished frames"));
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_FALSE(Client(i).HasEnded()) << i;
    }
}

TEST_F(BudgetTest, ServesOthersWhileTheBudgetIsFull)
{
    LogCapture log;
    for (std::size_t i = 0; i < 6; ++i) {
        SendPartOfAFrame(Connect(), 10 * kMebi + ReceiveBudget::kOwnBytes);
    }
    TestClient &other = Connect();
    other.Send(FrameOf(Bytes(ReceiveBudget::kOwnBytes - control::kFrameHeaderSize, 5)));
    AwaitReplies(other, 1);
    EXPECT_THAT(other.Results(), ElementsAre(5));
}

TEST_F(BudgetTest, HasRoomAgainWhenAClientLeaves)
{
    LogCapture log;
    for (std::size_t i = 0; i < 6; ++i) {
        SendPartOfAFrame(Connect(), 10 * kMebi + ReceiveBudget::kOwnBytes);
    }
    clients_.pop_front();
    DispatchReady(loop_);
    TestClient &next = Connect();
    SendPartOfAFrame(next, 10 * kMebi + ReceiveBudget::kOwnBytes);
    EXPECT_TRUE(next.Results().empty());
    EXPECT_FALSE(next.HasEnded());
}

TEST_F(ControlSocketTest, AClientWithManyFramesDoesNotDelayOthers)
{
    TestClient &busy = Connect();
    TestClient &other = Connect();
    Bytes many;
    for (int i = 0; i < 100; ++i) {
        const Bytes frame = FrameOf({1});
        many.insert(many.end(), frame.begin(), frame.end());
    }
    busy.Send(many);
    other.SendRequest(2);
    AwaitReplies(other, 1);
    EXPECT_LE(std::ranges::count(marks_, 1), 3);
    AwaitReplies(busy, 100);
    EXPECT_EQ(busy.Results().size(), 100U);
}

TEST_F(ControlSocketTest, AnswersTheFrameBeforeAnOversizedOneAlsoWhenTheAnswerComesLater)
{
    answersAtOnce_ = false;
    TestClient &client = Connect();
    Bytes both = FrameOf({5});
    both.insert(both.end(), {0xFF, 0, 0, 0, 7, 7});
    client.Send(both);
    LogCapture log;
    ASSERT_TRUE(RunUntil(loop_, [&] { return requests_.size() == 1; }));
    DispatchReady(loop_);
    EXPECT_THAT(client.Results(), ElementsAre()) << "nothing is answered yet";
    AnswerKept(5);
    DispatchReady(loop_);
    EXPECT_THAT(client.Results(), ElementsAre(5, -EMSGSIZE));
}

TEST_F(ControlSocketTest, AnOversizedFrameDoesNotCutTheReplyBeforeIt)
{
    padding_ = 5'000'000;
    TestClient &client = Connect();
    Bytes both = FrameOf({5});
    both.insert(both.end(), {0xFF, 0, 0, 0, 7, 7});
    client.Send(both);
    LogCapture log;
    EXPECT_TRUE(RunUntil(loop_, [&] { return client.Results().size() >= 2 || client.HasEnded(); }));
    EXPECT_THAT(client.Results(), ElementsAre(5, -EMSGSIZE));
}

} // namespace
} // namespace kavel::agent
