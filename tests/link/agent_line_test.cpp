// The agent's socket, with an agent that the test plays.
#include "agent_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>
#include <memory>

#include "frame.h"

namespace kavel::link {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using Bytes = std::vector<std::uint8_t>;

constexpr std::chrono::seconds kHangs{20};

class AgentLineTest : public testing::Test {
  protected:
    AgentLineTest()
    {
        std::string name = std::filesystem::temp_directory_path() / "agent-line-XXXXXX";
        directory_ = ::mkdtemp(name.data());
        path_ = directory_ + "/sock";
    }
    AgentLineTest(const AgentLineTest &) = delete;
    AgentLineTest &operator=(const AgentLineTest &) = delete;
    ~AgentLineTest() override { std::filesystem::remove_all(directory_); }

    void Listen()
    {
        listener_ = UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(::bind(listener_.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        ASSERT_EQ(::listen(listener_.Get(), 8), 0);
    }

    void Start(std::chrono::milliseconds answerMax = AgentLine::kAnswerMax)
    {
        line_ = std::make_unique<AgentLine>(loop_, path_, answerMax);
        line_->Start({.connected = [this] { ++connections_; },
                      .closed = [this](const std::string &why) { problems_.push_back(why); },
                      .answered = [this](const Kavel__Reply &reply) { results_.push_back(reply.result); }});
    }

    void RunUntil(const std::function<bool()> &isDone)
    {
        const EventSource hangs = HangTimer();
        ASSERT_TRUE(loop_.RunUntil(isDone)) << "it hangs";
    }

    // A line that is connected, and the agent's end of it.
    void Connect(std::chrono::milliseconds answerMax = AgentLine::kAnswerMax)
    {
        Listen();
        Start(answerMax);
        RunUntil([this] { return connections_ == 1; });
        peer_ = UniqueFd(::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        ASSERT_TRUE(peer_);
    }

    void SendStatus()
    {
        Kavel__Request request = KAVEL__REQUEST__INIT;
        request.verb = KAVEL__REQUEST__VERB__STATUS;
        line_->Send(request);
    }

    // All that the line has sent, as soon as it is so long.
    Bytes ReadBytes(std::size_t size)
    {
        Bytes all;
        RunUntil([&] {
            std::array<std::uint8_t, 65536> bytes{};
            for (ssize_t got = 0; (got = ::recv(peer_.Get(), bytes.data(), bytes.size(), 0)) > 0;) {
                all.insert(all.end(), bytes.begin(), bytes.begin() + got);
            }
            return all.size() >= size;
        });
        return all;
    }

    void Put(const Bytes &bytes) const
    {
        ASSERT_EQ(::send(peer_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }

    static Bytes ReplyFrame(std::int32_t result)
    {
        Kavel__Reply reply = KAVEL__REPLY__INIT;
        reply.result = result;
        const std::size_t size = kavel__reply__get_packed_size(&reply);
        const auto header = control::EncodeFrameLength(size);
        Bytes frame(header.begin(), header.end());
        frame.resize(header.size() + size);
        kavel__reply__pack(&reply, frame.data() + header.size());
        return frame;
    }

    // What the line says when the agent sends these bytes as an answer.
    std::string ProblemWith(const Bytes &answer)
    {
        Connect();
        SendStatus();
        (void)ReadBytes(6);
        Put(answer);
        RunUntil([this] { return !problems_.empty(); });
        return problems_.front();
    }

    EventLoop loop_;
    std::string directory_;
    std::string path_;
    UniqueFd listener_;
    UniqueFd peer_;
    std::unique_ptr<AgentLine> line_;
    int connections_ = 0;
    std::vector<std::string> problems_;
    std::vector<std::int32_t> results_;

  private:
    EventSource HangTimer()
    {
        EventSource timer = loop_.AddTimer([this] { loop_.Exit(); });
        timer.ArmTimer(EventLoop::Clock::now() + kHangs);
        return timer;
    }
};

TEST_F(AgentLineTest, ARequestIsAnswered)
{
    Connect();
    SendStatus();
    EXPECT_EQ(ReadBytes(6), (Bytes{0, 0, 0, 2, 8, KAVEL__REQUEST__VERB__STATUS}));
    Put(ReplyFrame(-7));
    RunUntil([this] { return !results_.empty(); });
    SendStatus();
    EXPECT_EQ(ReadBytes(6).size(), 6U);
    Put(ReplyFrame(5));
    RunUntil([this] { return results_.size() == 2; });
    EXPECT_EQ(results_, (std::vector{-7, 5}));
    EXPECT_TRUE(problems_.empty());
}

TEST_F(AgentLineTest, AnAnswerMayComeInPieces)
{
    Connect();
    SendStatus();
    (void)ReadBytes(6);
    for (const std::uint8_t byte : ReplyFrame(-7)) {
        Put({byte});
        RunUntil([rounds = 0]() mutable { return ++rounds == 1; });
    }
    RunUntil([this] { return !results_.empty(); });
    EXPECT_EQ(results_, std::vector{-7});
}

TEST_F(AgentLineTest, ALargeRequestIsSentAsTheAgentReads)
{
    Connect();
    Bytes message(4'000'000, 'x');
    Kavel__Request request = KAVEL__REQUEST__INIT;
    request.verb = KAVEL__REQUEST__VERB__APPLY;
    request.has_message = 1;
    request.message = {message.size(), message.data()};
    line_->Send(request);
    message.clear();
    const Bytes sent = ReadBytes(4'000'000);
    EXPECT_EQ(control::DecodeFrameLength(sent.data()) + control::kFrameHeaderSize, sent.size());
    EXPECT_EQ(sent.back(), 'x');
}

TEST_F(AgentLineTest, AnAbsentAgentIsTriedAgain)
{
    Start();
    RunUntil([this] { return !problems_.empty(); });
    EXPECT_EQ(problems_.front(), "cannot connect to " + path_ + ": No such file or directory");
    Listen();
    RunUntil([this] { return connections_ == 1; });
}

TEST_F(AgentLineTest, APathThatIsTooLongIsNamed)
{
    path_ = "/" + std::string(200, 'x');
    Start();
    RunUntil([this] { return !problems_.empty(); });
    EXPECT_THAT(problems_.front(), HasSubstr("File name too long"));
}

TEST_F(AgentLineTest, AClosedConnectionIsMadeAgain)
{
    Connect();
    peer_ = {};
    RunUntil([this] { return connections_ == 2; });
    EXPECT_EQ(problems_, std::vector<std::string>{"it closed the connection"});
}

TEST_F(AgentLineTest, AConnectionThatIsClosedWithoutAnAnswerIsTold)
{
    Connect();
    SendStatus();
    (void)ReadBytes(6);
    peer_ = {};
    RunUntil([this] { return !problems_.empty(); });
    EXPECT_EQ(problems_.front(), "it closed the connection without an answer");
}

TEST_F(AgentLineTest, AnAgentThatDoesNotAnswerIsDisconnected)
{
    Connect(100ms);
    SendStatus();
    RunUntil([this] { return !problems_.empty(); });
    EXPECT_EQ(problems_.front(), "no answer within 1 s");
    RunUntil([this] { return connections_ == 2; });
}

TEST_F(AgentLineTest, AnAnswerThatIsTooLongIsRefused)
{
    EXPECT_EQ(ProblemWith({1, 0, 0, 1}), "it announces an answer of 16777217 bytes, over the limit of 16777216");
}

TEST_F(AgentLineTest, AMalformedAnswerIsRefused)
{
    EXPECT_EQ(ProblemWith({0, 0, 0, 1, 255}), "its answer is malformed");
}

TEST_F(AgentLineTest, WhatFollowsAnAnswerIsRefused)
{
    Bytes answer = ReplyFrame(0);
    answer.push_back(0);
    EXPECT_EQ(ProblemWith(answer), "its answer is malformed");
}

TEST_F(AgentLineTest, AnAnswerWithoutARequestIsRefused)
{
    Connect();
    Put(ReplyFrame(0));
    RunUntil([this] { return !problems_.empty(); });
    EXPECT_EQ(problems_.front(), "its answer is malformed");
    EXPECT_TRUE(results_.empty());
}

} // namespace
} // namespace kavel::link
