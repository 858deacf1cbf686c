#include "base/child_reaper.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "emulator.h"
#include "test_box.h"
#include "unique_fd.h"

namespace kavel::agent {
namespace {

class ChildReaperTest : public testing::Test {
  protected:
    // A child that ends at once. With the sanitizers a copy of this process takes a tenth of a second.
    static pid_t Start(int status = 7)
    {
        const pid_t child = ::vfork();
        if (child == 0) {
            ::_exit(status);
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

    const ChildScope children_;
    EventLoop loop_;
};

TEST_F(ChildReaperTest, ReapsChildrenThatEndWhileTheLoopRuns)
{
    const ChildReaper reaper(loop_);
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
    const ChildReaper reaper(loop_);
    EXPECT_FALSE(Exists(child));
}

// As a command of the module is: the loop does not run meanwhile.
TEST_F(ChildReaperTest, LeavesAChildThatIsWaitedForOutsideTheLoop)
{
    const ChildReaper reaper(loop_);
    const pid_t child = Start();
    AwaitEnd(child);
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 7);
    DispatchReady(loop_); // the signal of a child that is gone
}

TEST_F(ChildReaperTest, LeavesARunningChild)
{
    const ChildReaper reaper(loop_);
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

// The shell that launches an instance ends before the instance does.
TEST_F(ChildReaperTest, ReapsWhatItsChildrenLeaveBehind)
{
    KAVEL_SKIP_IF_EMULATED("PR_SET_CHILD_SUBREAPER is not passed on");
    ChildReaper reaper(loop_);
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const UniqueFd input(ends[0]);
    UniqueFd output(ends[1]);
    const pid_t child = ::fork();
    if (child == 0) {
        const pid_t grandchild = ::fork();
        if (grandchild == 0) {
            ::pause();
        }
        ::_exit(::write(output.Get(), &grandchild, sizeof grandchild) == sizeof grandchild ? 0 : 1);
    }
    pid_t grandchild = 0;
    ASSERT_EQ(::read(input.Get(), &grandchild, sizeof grandchild), static_cast<ssize_t>(sizeof grandchild));
    EXPECT_TRUE(RunUntil(loop_, [&] { return !Exists(child); }));
    ASSERT_EQ(::kill(grandchild, SIGKILL), 0);
    EXPECT_TRUE(RunUntil(loop_, [&] { return !Exists(grandchild); }));
    EXPECT_EQ(reaper.EndOf(grandchild), "killed by signal 9");
}

TEST_F(ChildReaperTest, TellsHowAChildEnded)
{
    ChildReaper reaper(loop_);
    const pid_t two = Start(2);
    const pid_t zero = Start(0);
    AwaitEnd(two);
    AwaitEnd(zero);
    EXPECT_EQ(reaper.EndOf(two), "exited with 2") << "also before the loop has reaped it";
    EXPECT_EQ(reaper.EndOf(zero), "exited with 0");
    EXPECT_FALSE(Exists(two));
    EXPECT_EQ(reaper.EndOf(two), "exited with 2") << "it is kept";
}

TEST_F(ChildReaperTest, KnowsNothingOfOtherProcesses)
{
    ChildReaper reaper(loop_);
    EXPECT_EQ(reaper.EndOf(1), std::nullopt);
    EXPECT_EQ(reaper.EndOf(::getpid()), std::nullopt);
}

TEST_F(ChildReaperTest, KeepsTheNewest256Ends)
{
    ChildReaper reaper(loop_);
    const pid_t first = Start(3);
    AwaitEnd(first);
    EXPECT_EQ(reaper.EndOf(first), "exited with 3");
    pid_t last = first;
    for (int i = 0; i < 256; ++i) {
        EXPECT_EQ(reaper.EndOf(first), "exited with 3") << i;
        last = Start(4);
        AwaitEnd(last);
    }
    EXPECT_EQ(reaper.EndOf(last), "exited with 4");
    EXPECT_EQ(reaper.EndOf(first), std::nullopt);
}

TEST_F(ChildReaperTest, ReapsNothingAfterItsEnd)
{
    {
        const ChildReaper reaper(loop_);
    }
    const pid_t child = Start();
    AwaitEnd(child);
    DispatchReady(loop_);
    EXPECT_EQ(::waitpid(child, nullptr, 0), child);
}

} // namespace
} // namespace kavel::agent
