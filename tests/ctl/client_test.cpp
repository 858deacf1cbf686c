#include "client.h"

#include <array>
#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>

#include "errors.h"
#include "fake_agent.h"
#include "frame.h"

namespace kavel::ctl {
namespace {

using namespace std::chrono_literals;

// A client and the raw socket at its other end.
class ClientTest : public testing::Test {
  protected:
    ClientTest()
    {
        std::array<int, 2> pair{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
        client_end_ = UniqueFd(pair[0]);
        agent_end_ = UniqueFd(pair[1]);
    }

    Client MakeClient(std::chrono::milliseconds patience = 10s) { return {std::move(client_end_), patience}; }

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
    UniqueFd client_end_;
    UniqueFd agent_end_;
};

// Waits until the peer has taken what was written, so that the next byte comes alone.
void AwaitTaken(int fd)
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
    ASSERT_TRUE(WriteBytes(agent_end_.Get(), Frame(reply)));
    Client client = MakeClient();
    const ReplyPtr received = client.Exchange(request_);
    EXPECT_EQ(received->result, -22);
    EXPECT_STREQ(received->reason, "because");
    EXPECT_EQ(ReadFrame(agent_end_.Get()), request_);
}

TEST_F(ClientTest, ManyExchangesShareAConnection)
{
    Client client = MakeClient();
    for (std::int32_t result = 0; result < 3; ++result) {
        ASSERT_TRUE(WriteBytes(agent_end_.Get(), Frame(PackReply(result))));
        EXPECT_EQ(client.Exchange(request_)->result, result);
        EXPECT_EQ(ReadFrame(agent_end_.Get()), request_);
    }
}

TEST_F(ClientTest, PutsAReplyTogetherFromSingleBytes)
{
    const Bytes frame = Frame(PackReply(-5));
    Client client = MakeClient();
    std::thread agent([&] {
        for (const std::uint8_t byte : frame) {
            WriteBytes(agent_end_.Get(), {&byte, 1});
            AwaitTaken(agent_end_.Get());
        }
    });
    const ReplyPtr reply = client.Exchange(request_);
    agent.join();
    EXPECT_EQ(reply->result, -5);
}

TEST_F(ClientTest, MovesTheLargestFramesBothWays)
{
    const Bytes request(control::kFrameMax, 0x5A);
    std::string text(control::kFrameMax - 16, 'x');
    Bytes reply = PackReply(0, [&](Kavel__Reply &message) { message.text = text.data(); });
    Bytes seen;
    Client client = MakeClient(30s);
    std::thread agent([&] {
        seen = ReadFrame(agent_end_.Get());
        WriteBytes(agent_end_.Get(), Frame(reply));
    });
    const ReplyPtr received = client.Exchange(request);
    agent.join();
    EXPECT_TRUE(seen == request);
    EXPECT_TRUE(received->text == text);
}

TEST_F(ClientTest, AgentClosesWithoutReply)
{
    ::shutdown(agent_end_.Get(), SHUT_WR);
    EXPECT_EQ(FailureOf(MakeClient()), "the agent closed the connection without a reply");
}

TEST_F(ClientTest, AgentGoneBeforeTheRequest)
{
    agent_end_ = UniqueFd();
    EXPECT_EQ(FailureOf(MakeClient()), "the agent closed the connection without a reply");
}

TEST_F(ClientTest, AgentClosesWithinTheHeader)
{
    WriteBytes(agent_end_.Get(), Bytes{0, 0});
    ::shutdown(agent_end_.Get(), SHUT_WR);
    EXPECT_EQ(FailureOf(MakeClient()), "the agent closed the connection without a reply");
}

TEST_F(ClientTest, AgentClosesWithinTheReply)
{
    Bytes frame = Frame(PackReply(-22));
    frame.pop_back();
    WriteBytes(agent_end_.Get(), frame);
    ::shutdown(agent_end_.Get(), SHUT_WR);
    EXPECT_EQ(FailureOf(MakeClient()), "the agent closed the connection without a reply");
}

TEST_F(ClientTest, RefusesAnOversizedReply)
{
    WriteBytes(agent_end_.Get(), Bytes{1, 0, 0, 1});
    EXPECT_EQ(FailureOf(MakeClient()), "the agent announced a reply of 16777217 bytes, over the limit of 16777216");
}

TEST_F(ClientTest, RefusesAReplyThatIsNone)
{
    WriteBytes(agent_end_.Get(), Frame(Bytes{0xFF, 0xFF}));
    EXPECT_EQ(FailureOf(MakeClient()), "the agent's reply is malformed");
}

TEST_F(ClientTest, RefusesAReplyWithoutResult)
{
    WriteBytes(agent_end_.Get(), Frame({}));
    EXPECT_EQ(FailureOf(MakeClient()), "the agent's reply is malformed");
}

TEST_F(ClientTest, GivesUpOnASilentAgent)
{
    EXPECT_EQ(FailureOf(MakeClient(50ms)), "the agent did not reply within 0.05 s");
}

TEST_F(ClientTest, GivesUpOnAnAgentThatReadsNothing)
{
    request_.resize(control::kFrameMax);
    EXPECT_EQ(FailureOf(MakeClient(50ms)), "the agent did not reply within 0.05 s");
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

TEST(Connect, NoSuchSocket)
{
    EXPECT_EQ(ConnectFailure("/nonexistent/agent.sock"),
              "cannot reach the agent at /nonexistent/agent.sock: No such file or directory");
}

TEST(Connect, NobodyListens)
{
    const TempDir dir;
    const std::string file = dir.Write("agent.sock", "");
    EXPECT_EQ(ConnectFailure(file), "cannot reach the agent at " + file + ": Connection refused");
}

TEST(Connect, PathTooLongForASocket)
{
    const std::string path = "/" + std::string(200, 'x');
    EXPECT_EQ(ConnectFailure(path), "cannot reach the agent at " + path + ": File name too long");
}

TEST(PackRequest, RefusesWhatNoFrameCanCarry)
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
