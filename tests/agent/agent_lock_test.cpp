#include "instances/agent_lock.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

#include "control_socket_fixture.h"
#include "event_loop.h"
#include "scratch.h"
#include "socket/control_socket.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

class AgentLockTest : public testing::Test {
  protected:
    [[nodiscard]] std::string SocketPath() const { return directory_.File("agent.sock"); }
    [[nodiscard]] std::string LockPath() const { return directory_.File("agent.pid"); }
    // What a process other than this one is told when it takes the lock; empty when it gets it.
    [[nodiscard]] std::string RefusalOfAnotherProcess() const
    {
        const std::string answer = directory_.Write("answer", "");
        const pid_t child = ::fork();
        if (child == 0) {
            try {
                const AgentLock lock(SocketPath(), LockPath());
            } catch (const std::exception &failure) {
                (void)directory_.Write("answer", failure.what());
            }
            ::_exit(0);
        }
        EXPECT_EQ(::waitpid(child, nullptr, 0), child);
        return ContentOf(answer);
    }

    const std::string ownPid_ = std::to_string(::getpid());
    ScratchDirectory directory_;
};

TEST_F(AgentLockTest, TheFileHoldsThePidAndIsTheAgentsAlone)
{
    const AgentLock lock(SocketPath(), LockPath());
    EXPECT_EQ(ContentOf(LockPath()), ownPid_ + "\n");
    EXPECT_EQ(ModeOf(LockPath()), 0600U);
}

TEST_F(AgentLockTest, CorrectsTheModeOfAFileThatIsThere)
{
    for (const mode_t mode : {0644U, 0666U, 0700U}) {
        (void)directory_.Write("agent.pid", "4711 and more\n");
        ASSERT_EQ(::chmod(LockPath().c_str(), mode), 0);
        const AgentLock lock(SocketPath(), LockPath());
        EXPECT_EQ(ModeOf(LockPath()), 0600U);
        EXPECT_EQ(ContentOf(LockPath()), ownPid_ + "\n");
    }
}

TEST_F(AgentLockTest, TakesOverAFileOfAnotherUser)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root may give a file away";
    }
    (void)directory_.Write("agent.pid", "");
    ASSERT_EQ(::chown(LockPath().c_str(), 65534, 65534), 0);
    const AgentLock lock(SocketPath(), LockPath());
    struct stat info {};
    ASSERT_EQ(::stat(LockPath().c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, 0U);
}

TEST_F(AgentLockTest, IsHeldAgainstOtherProcessesForAsLongAsItLives)
{
    std::optional<AgentLock> lock;
    lock.emplace(SocketPath(), LockPath());
    EXPECT_EQ(RefusalOfAnotherProcess(), "already running as pid " + ownPid_);
    EXPECT_EQ(ContentOf(LockPath()), ownPid_ + "\n") << "the refused one changed the file";
    lock.reset();
    EXPECT_THAT(RefusalOfAnotherProcess(), IsEmpty());
}

// Without its lock file the agent still serves its socket.
TEST_F(AgentLockTest, ARemovedFileLetsNoSecondAgentStart)
{
    const AgentLock lock(SocketPath(), LockPath());
    EventLoop loop;
    std::optional<ControlSocket> socket;
    socket.emplace(loop, SocketPath(), ControlSocket::Handler());
    ASSERT_EQ(::unlink(LockPath().c_str()), 0);
    EXPECT_EQ(RefusalOfAnotherProcess(), "already running as pid " + ownPid_);
    socket.reset();
    EXPECT_THAT(RefusalOfAnotherProcess(), IsEmpty());
}

TEST_F(AgentLockTest, ASocketThatNobodyServesDoesNotCount)
{
    {
        EventLoop loop;
        const ControlSocket socket(loop, directory_.File("other.sock"), {});
        ASSERT_EQ(::link(directory_.File("other.sock").c_str(), SocketPath().c_str()), 0);
        EXPECT_THAT(RefusalOfAnotherProcess(), HasSubstr("already running"));
    }
    EXPECT_THAT(RefusalOfAnotherProcess(), IsEmpty());
}

// A killed agent may leave a child that has its descriptors until it runs another program.
TEST_F(AgentLockTest, ASocketOfAProcessThatIsGoneDoesNotCount)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const UniqueFd input(ends[0]);
    UniqueFd output(ends[1]);
    const pid_t agent = ::fork();
    if (agent == 0) {
        EventLoop loop;
        const ControlSocket socket(loop, SocketPath(), {});
        if (::fork() == 0) {
            char byte = 0;
            output = UniqueFd();
            ::_exit(static_cast<int>(::read(input.Get(), &byte, 1))); // when the test ends
        }
        ::_exit(0);
    }
    ASSERT_EQ(::waitpid(agent, nullptr, 0), agent);
    const TestClient connected(SocketPath());
    EXPECT_THAT(RefusalOfAnotherProcess(), IsEmpty());
}

TEST_F(AgentLockTest, FollowsNoSymbolicLink)
{
    ASSERT_EQ(::symlink("elsewhere", LockPath().c_str()), 0);
    EXPECT_EQ(FailureOf([&] { const AgentLock lock(SocketPath(), LockPath()); }).error, ELOOP);
    EXPECT_NE(::access(directory_.File("elsewhere").c_str(), F_OK), 0);
}

// The lock's directory belongs to root, and an agent without privileges does not get the lock.
TEST_F(AgentLockTest, FailsWithoutTheRightToWriteItsFile)
{
    const Unprivileged unprivileged;
    EXPECT_THROW(AgentLock{SocketPath()}, std::system_error);
}

TEST(AlreadyRunning, TellsWhichProcessIsRunning)
{
    EXPECT_STREQ(AlreadyRunning(4711).what(), "already running as pid 4711");
    EXPECT_STREQ(AlreadyRunning(0).what(), "already running");
}

} // namespace
} // namespace kavel::agent
