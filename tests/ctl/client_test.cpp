#include "client.h"

#include <array>
#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>

#include "errors.h"
#include "fake_agent.h"
#include "frame.h"

namespace kavel::ctl {
namespace {

using namespace std::chrono_literals;

// A client whose connection ends in a plain socket of the test.
class ClientTest : public testing::Test {
  protected:
    ClientTest()
    {
        std::array<int, 2> pair{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
        clientEnd_ = UniqueFd(pair[0]);
        agentEnd_ = UniqueFd(pair[1]);
    }

    Client MakeClient(std::chrono::milliseconds timeout = 10s) { return {std::move(clientEnd_), timeout}; }

    std::string FailureOf(Client client)
    {
        try {
            client.Exchange(request_);
        } catch (const AgentError &error) {
            return error.what();
        }
        return "no failure";
    }

    Bytes request_{1, 2, 3};
    UniqueFd clientEnd_;
    UniqueFd agentEnd_;
};

// Waits until the peer has read everything that was written, so that it receives the next byte alone.
void WaitUntilRead(int fd)
{
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    for (int left = 1; left != 0; ::sched_yield()) {
        ASSERT_EQ(::ioctl(fd, SIOCOUTQ, &left), 0);
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    }
}

TEST_F(ClientTest, FramesTheRequestAndReadsTheReply)
{
    std::string text = "because";
    const Bytes reply = PackReply(-22, [&](Kavel__Reply &message) { message.reason = text.data(); });
    ASSERT_TRUE(WriteBytes(agentEnd_.Get(), Frame(reply)));
    Client client = MakeClient();
    const ReplyPtr received = client.Exchange(request_);
    EXPECT_EQ(received->result, -22);
    EXPECT_STREQ(received->reason, "because");
    EXPECT_EQ(ReadFrame(agentEnd_.Get()), request_);
}

TEST_F(ClientTest, ManyExchangesShareAConnection)
{
    Client client = MakeClient();
    for (std::int32_t result = 0; result < 3; ++result) {
        ASSERT_TRUE(WriteBytes(agentEnd_.Get(), Frame(PackReply(result))));
        EXPECT_EQ(client.Exchange(request_)->result, result);
        EXPECT_EQ(ReadFrame(agentEnd_.Get()), request_);
    }
}

TEST_F(ClientTest, AssemblesAReplyFromSingleBytes)
{
    const Bytes frame = Frame(PackReply(-5));
    Client client = MakeClient();
    std::thread agent([&] {
        for (const std::uint8_t byte : frame) {
            WriteBytes(agentEnd_.Get(), {&byte, 1});
            WaitUntilRead(agentEnd_.Get());
        }
    });
    const ReplyPtr reply = client.Exchange(request_);
    agent.join();
    EXPECT_EQ(reply->result, -5);
}

TEST_F(ClientTest, SendsAndReceivesTheLargestFrames)
{
    const Bytes request(control::kFrameMax, 0x5A);
    std::string text(control::kFrameMax - 16, 'x');
    Bytes reply = PackReply(0, [&](Kavel__Reply &message) { message.text = text.data(); });
    Bytes seen;
    Client client = MakeClient(30s);
    std::thread agent([&] {
        seen = ReadFrame(agentEnd_.Get());
        WriteBytes(agentEnd_.Get(), Frame(reply));
    });
    const ReplyPtr received = client.Exchange(request);
    agent.join();
    EXPECT_TRUE(seen == request);
    EXPECT_TRUE(received->text == text);
}

TEST_F(ClientTest, FailsWhenTheAgentClosesWithoutReply)
{
    ::shutdown(agentEnd_.Get(), SHUT_WR);
    EXPECT_EQ(FailureOf(MakeClient()), "the agent closed the connection without a reply");
}

TEST_F(ClientTest, FailsWhenTheAgentHasClosedBeforeTheRequest)
{
    agentEnd_ = UniqueFd();
    EXPECT_EQ(FailureOf(MakeClient()), "the agent closed the connection without a reply");
}

TEST_F(ClientTest, FailsWhenTheAgentClosesWithinTheHeader)
{
    WriteBytes(agentEnd_.Get(), Bytes{0, 0});
    ::shutdown(agentEnd_.Get(), SHUT_WR);
    EXPECT_EQ(FailureOf(MakeClient()), "the agent closed the connection without a reply");
}

TEST_F(ClientTest, FailsWhenTheAgentClosesWithinTheReply)
{
    Bytes frame = Frame(PackReply(-22));
    frame.pop_back();
    WriteBytes(agentEnd_.Get(), frame);
    ::shutdown(agentEnd_.Get(), SHUT_WR);
    EXPECT_EQ(FailureOf(MakeClient()), "the agent closed the connection without a reply");
}

TEST_F(ClientTest, RefusesAnOversizedReply)
{
    WriteBytes(agentEnd_.Get(), Bytes{1, 0, 0, 1});
    EXPECT_EQ(FailureOf(MakeClient()), "the agent announced a reply of 16777217 bytes, over the limit of 16777216");
}

TEST_F(ClientTest, RefusesAMalformedReply)
{
    WriteBytes(agentEnd_.Get(), Frame(Bytes{0xFF, 0xFF}));
    EXPECT_EQ(FailureOf(MakeClient()), "the agent's reply is malformed");
}

TEST_F(ClientTest, RefusesAReplyWithoutResult)
{
    WriteBytes(agentEnd_.Get(), Frame({}));
    EXPECT_EQ(FailureOf(MakeClient()), "the agent's reply is malformed");
}

TEST_F(ClientTest, TimesOutWhenTheAgentDoesNotReply)
{
    EXPECT_EQ(FailureOf(MakeClient(50ms)), "the agent did not reply within 0.05 s");
}

TEST_F(ClientTest, TimesOutWhenTheAgentDoesNotRead)
{
    request_.resize(control::kFrameMax);
    EXPECT_EQ(FailureOf(MakeClient(50ms)), "the agent did not reply within 0.05 s");
}

TEST_F(ClientTest, CallsTheNoticeOnceWhenTheAgentIsSilent)
{
    int notices = 0;
    Client client = MakeClient(200ms);
    EXPECT_THROW(client.Exchange(request_, {.noticeAfter = 20ms, .notice = [&] { ++notices; }, .interrupt = -1}),
                 AgentError);
    EXPECT_EQ(notices, 1);
}

TEST_F(ClientTest, CallsNoNoticeWhenTheAgentReplies)
{
    int notices = 0;
    ASSERT_TRUE(WriteBytes(agentEnd_.Get(), Frame(PackReply(0))));
    Client client = MakeClient();
    client.Exchange(request_, {.noticeAfter = 10s, .notice = [&] { ++notices; }, .interrupt = -1});
    EXPECT_EQ(notices, 0);
}

TEST_F(ClientTest, EndsTheExchangeWhenItIsInterrupted)
{
    const UniqueFd interrupt(::eventfd(1, EFD_CLOEXEC));
    Client client = MakeClient();
    EXPECT_THROW(client.Exchange(request_, {.noticeAfter = 0ms, .notice = {}, .interrupt = interrupt.Get()}),
                 Interrupted);
    EXPECT_EQ(ReadFrame(agentEnd_.Get()), request_);
}

TEST_F(ClientTest, TakesAReplyThatHasComeBeforeTheInterruption)
{
    const UniqueFd interrupt(::eventfd(1, EFD_CLOEXEC));
    ASSERT_TRUE(WriteBytes(agentEnd_.Get(), Frame(PackReply(-5))));
    Client client = MakeClient();
    EXPECT_EQ(client.Exchange(request_, {.noticeAfter = 0ms, .notice = {}, .interrupt = interrupt.Get()})->result, -5);
}

std::string ConnectFailure(const std::string &path)
{
    try {
        Client::Connect(path, 10s);
    } catch (const AgentError &error) {
        return error.what();
    }
    return "connected";
}

TEST(Connect, FailsWithoutASocket)
{
    EXPECT_EQ(ConnectFailure("/nonexistent/agent.sock"),
              "cannot reach the agent at /nonexistent/agent.sock: No such file or directory");
}

TEST(Connect, FailsWhenNoAgentListens)
{
    const TempDir dir;
    const std::string file = dir.Write("agent.sock", "");
    EXPECT_EQ(ConnectFailure(file), "cannot reach the agent at " + file + ": Connection refused");
}

TEST(Connect, FailsWhenThePathIsTooLong)
{
    const std::string path = "/" + std::string(200, 'x');
    EXPECT_EQ(ConnectFailure(path), "cannot reach the agent at " + path + ": File name too long");
}

TEST(PackRequest, RefusesARequestOverTheFrameLimit)
{
    Bytes message(control::kFrameMax);
    Kavel__Request request{};
    kavel__request__init(&request);
    request.verb = KAVEL__REQUEST__VERB__APPLY;
    request.has_message = 1;
    request.message = {message.size(), message.data()};
    try {
        PackRequest(request);
        FAIL() << "was packed";
    } catch (const InputError &error) {
        EXPECT_STREQ(error.what(), "the request would take 16777223 bytes, over the limit of 16777216");
    }
    request.message.len -= 7;
    EXPECT_EQ(PackRequest(request).size(), control::kFrameMax);
}

} // namespace
} // namespace kavel::ctl
