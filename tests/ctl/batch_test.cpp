// Commands over several files: interruption, progress, silence of the agent.
#include <chrono>
#include <csignal>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "commands.h"
#include "commands_fixture.h"
#include "errors.h"
#include "signals.h"

namespace kavel::ctl {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr int kSigintCode = 130;
constexpr int kSigtermCode = 143;

// An agent that does not reply any more, and what a test does when the request has come.
class BatchTest : public CommandsTest {
  protected:
    ~BatchTest() override { ReleaseAgent(); }

    // The agent replies to the first `replied` requests, and runs `act` when the next has come. Its thread waits for
    // the release without this object: the test may have ended by then.
    void HoldAfter(std::size_t replied, const std::function<void()> &act)
    {
        Answer(std::vector<Bytes>(replied + 1, ReplyFor(7, 0)),
               [replied, act, released = held_.get_future().share()](std::size_t number) {
                   if (number == replied + 1) {
                       act();
                       released.wait();
                   }
               });
    }
    void ReleaseAgent()
    {
        if (!isReleased_) {
            isReleased_ = true;
            held_.set_value();
        }
    }

    // As many files as there are names in `names`, each with a message.
    std::vector<std::string> Files(const std::vector<std::string> &names)
    {
        std::vector<std::string> files;
        for (const std::string &name : names) {
            files.push_back(dir_.Write(name, R"({"enable": false, "operation": "reload", "vpnid": 7})"));
        }
        return files;
    }

    std::promise<void> held_;
    bool isReleased_ = false;
};

TEST_F(BatchTest, AnInterruptedApplySaysWhatWasSent)
{
    for (const auto &[signal, code] : {std::pair{SIGINT, kSigintCode}, std::pair{SIGTERM, kSigtermCode}}) {
        const std::vector<std::string> files = Files({"a", "b", "c", "d"});
        held_ = {};
        isReleased_ = false;
        err_.str("");
        HoldAfter(1, [signal = signal, self = ::pthread_self()] { ::pthread_kill(self, signal); });
        EXPECT_EQ(GoApply({files}), code);
        EXPECT_EQ(err_.str(), "vqctl: interrupted\nvqctl: applied: " + files[0] +
                                  "\nvqctl: in flight, may still be applied: " + files[1] +
                                  "\nvqctl: not sent: " + files[2] + ", " + files[3] + "\n");
        ReleaseAgent();
        EXPECT_EQ(agent_->Requests().size(), 2U);
    }
}

TEST_F(BatchTest, AnInterruptedApplyNamesOnlyWhatThereIs)
{
    const std::vector<std::string> files = Files({"a"});
    HoldAfter(0, [self = ::pthread_self()] { ::pthread_kill(self, SIGINT); });
    EXPECT_EQ(GoApply({files}), kSigintCode);
    EXPECT_EQ(err_.str(), "vqctl: interrupted\nvqctl: in flight, may still be applied: " + files[0] + "\n");
}

TEST_F(BatchTest, AnApplyThatIsInterruptedBetweenTwoMessagesSendsNoMore)
{
    const std::vector<std::string> files = Files({"a", "b"});
    Answer({ReplyFor(7, 0), ReplyFor(7, 0)}, [self = ::pthread_self()](std::size_t number) {
        if (number == 1) {
            ::pthread_kill(self, SIGINT);
        }
    });
    // The reply may be there before the client waits, or the signal may.
    EXPECT_EQ(GoApply({files}), kSigintCode);
    EXPECT_THAT(err_.str(), HasSubstr("vqctl: not sent: " + files[1] + "\n"));
    EXPECT_EQ(agent_->Requests().size(), 1U);
}

TEST_F(BatchTest, ASilentAgentIsReportedOnce)
{
    Answer({PackReply(0)}, [](std::size_t /*number*/) { std::this_thread::sleep_for(100ms); });
    session_.silence = 10ms;
    EXPECT_EQ(Go([&] { return VpnInit(session_, 7); }), kDone);
    EXPECT_EQ(err_.str(), "vqctl: the agent has not replied yet; waiting up to 60 s\n");
}

TEST_F(BatchTest, ShowsProgressOnATerminal)
{
    const std::vector<std::string> files = Files({"a", "b", "c", "d", "e", "f"});
    Answer(std::vector<Bytes>(files.size(), ReplyFor(7, 0)));
    session_.errIsTerminal = true;
    EXPECT_EQ(GoApply({files}), kDone);
    std::string expected;
    for (const char *number : {"1", "2", "3", "4", "5", "6"}) {
        expected += std::string(number) + "/6\r   \r";
    }
    EXPECT_EQ(err_.str(), expected);
}

TEST_F(BatchTest, ShowsNoProgressOfAFewFilesOrElsewhere)
{
    const std::vector<std::string> files = Files({"a", "b", "c", "d", "e", "f"});
    Answer(std::vector<Bytes>(files.size(), ReplyFor(7, 0)));
    EXPECT_EQ(GoApply({files}), kDone);
    EXPECT_EQ(err_.str(), "");
    Answer(std::vector<Bytes>(files.size() - 1, ReplyFor(7, 0)));
    session_.errIsTerminal = true;
    EXPECT_EQ(GoApply({{files.begin(), files.end() - 1}}), kDone);
    EXPECT_EQ(err_.str(), "");
}

TEST_F(BatchTest, ClearsTheProgressBeforeAnError)
{
    const std::vector<std::string> files = Files({"a", "b", "c", "d", "e", "f"});
    Answer({ReplyFor(7, 0), {}});
    session_.errIsTerminal = true;
    EXPECT_EQ(GoApply({files}), kNoAgent);
    EXPECT_THAT(err_.str(), HasSubstr("2/6\r   \rvqctl: " + files[1] + ": the agent closed"));
}

TEST(SignalWatch, TakesEachSignalOnce)
{
    const SignalWatch signals;
    EXPECT_FALSE(signals.IsPending());
    EXPECT_EQ(signals.Take(), std::nullopt);
    ::pthread_kill(::pthread_self(), SIGTERM);
    EXPECT_TRUE(signals.IsPending());
    EXPECT_EQ(signals.Take(), SIGTERM);
    EXPECT_FALSE(signals.IsPending());
}

TEST(SignalWatch, LeavesAnIgnoredSignalIgnored)
{
    const auto before = std::signal(SIGINT, SIG_IGN);
    {
        const SignalWatch signals;
        ::pthread_kill(::pthread_self(), SIGINT);
        EXPECT_FALSE(signals.IsPending());
    }
    std::signal(SIGINT, before);
}

TEST(SignalWatch, RestoresTheMask)
{
    sigset_t before;
    sigset_t after;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &before);
    {
        const SignalWatch signals;
        ::pthread_sigmask(SIG_BLOCK, nullptr, &after);
        EXPECT_EQ(::sigismember(&after, SIGINT), 1);
    }
    ::pthread_sigmask(SIG_BLOCK, nullptr, &after);
    EXPECT_EQ(::sigismember(&after, SIGINT), ::sigismember(&before, SIGINT));
    EXPECT_EQ(::sigismember(&after, SIGTERM), ::sigismember(&before, SIGTERM));
}

} // namespace
} // namespace kavel::ctl
