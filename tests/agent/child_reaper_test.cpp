#include "base/child_reaper.h"

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "test_box.h"

namespace kavel::agent {
namespace {

// SIGCHLD as it was before, afterwards.
class ChildReaperTest : public testing::Test {
  protected:
    ChildReaperTest() { ::sigprocmask(SIG_SETMASK, nullptr, &before_); }
    ~ChildReaperTest() override { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }

    // A child that ends at once.
    static pid_t Start()
    {
        const pid_t child = ::fork();
        if (child == 0) {
            ::_exit(7);
        }
        EXPECT_GT(child, 0);
        return child;
    }
    // Waits until it has ended, and leaves it a zombie.
    static void AwaitEnd(pid_t child)
    {
        siginfo_t info{};
        EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
    }
    static bool Exists(pid_t child) { return ::kill(child, 0) == 0; }

    EventLoop loop_;

  private:
    sigset_t before_{};
};

TEST_F(ChildReaperTest, ReapsChildrenThatEndWhileTheLoopRuns)
{
    const EventSource reaping = ReapChildren(loop_);
    const std::vector<pid_t> children{Start(), Start(), Start()};
    for (const pid_t child : children) {
        EXPECT_TRUE(RunUntil(loop_, [&] { return !Exists(child); }));
    }
}

TEST_F(ChildReaperTest, ReapsAChildThatEndedBefore)
{
    const pid_t child = Start();
    AwaitEnd(child);
    ASSERT_TRUE(Exists(child));
    const EventSource reaping = ReapChildren(loop_);
    EXPECT_FALSE(Exists(child));
}

// As a command of the module is: the loop does not run meanwhile.
TEST_F(ChildReaperTest, LeavesAChildThatIsWaitedForOutsideTheLoop)
{
    const EventSource reaping = ReapChildren(loop_);
    const pid_t child = Start();
    AwaitEnd(child);
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 7);
    DispatchReady(loop_); // the signal of a child that is gone
}

TEST_F(ChildReaperTest, LeavesARunningChild)
{
    const EventSource reaping = ReapChildren(loop_);
    const pid_t running = ::fork();
    if (running == 0) {
        for (;;) {
            ::pause();
        }
    }
    const pid_t ended = Start();
    EXPECT_TRUE(RunUntil(loop_, [&] { return !Exists(ended); }));
    EXPECT_TRUE(Exists(running));
    ASSERT_EQ(::kill(running, SIGKILL), 0);
    EXPECT_TRUE(RunUntil(loop_, [&] { return !Exists(running); }));
}

TEST_F(ChildReaperTest, ReapsNothingAfterItsEnd)
{
    {
        const EventSource reaping = ReapChildren(loop_);
    }
    const pid_t child = Start();
    AwaitEnd(child);
    DispatchReady(loop_);
    EXPECT_EQ(::waitpid(child, nullptr, 0), child);
}

} // namespace
} // namespace kavel::agent
