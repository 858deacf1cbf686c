#include "services/launch_mark.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "scratch.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

class LaunchMarkTest : public testing::Test {
  protected:
    // A shell that inherits the mark as its descriptor 3, reads a line, closes the mark and reads the next line.
    class Launch {
      public:
        explicit Launch(const UniqueFd &mark)
        {
            std::array<int, 2> ends{};
            EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
            const UniqueFd output(ends[0]);
            input_ = UniqueFd(ends[1]);
            std::array<int, 2> replies{};
            EXPECT_EQ(::pipe2(replies.data(), O_CLOEXEC), 0);
            reply_ = UniqueFd(replies[0]);
            const UniqueFd replying(replies[1]);
            posix_spawn_file_actions_t actions;
            posix_spawn_file_actions_init(&actions);
            posix_spawn_file_actions_adddup2(&actions, output.Get(), STDIN_FILENO);
            posix_spawn_file_actions_adddup2(&actions, replying.Get(), STDOUT_FILENO);
            posix_spawn_file_actions_adddup2(&actions, mark.Get(), 3);
            std::string shell = "/bin/sh";
            std::string option = "-c";
            std::string script = "read line; exec 3>&-; echo; read line";
            const std::array<char *, 4> arguments{shell.data(), option.data(), script.data(), nullptr};
            EXPECT_EQ(::posix_spawn(&pid_, shell.c_str(), &actions, nullptr, arguments.data(), environ), 0);
            posix_spawn_file_actions_destroy(&actions);
        }
        Launch(const Launch &) = delete;
        Launch &operator=(const Launch &) = delete;
        ~Launch()
        {
            input_ = UniqueFd();
            EXPECT_EQ(::waitpid(pid_, nullptr, 0), pid_);
        }

        void CloseMark() const
        {
            char line = '\n';
            EXPECT_EQ(::write(input_.Get(), &line, 1), 1);
            EXPECT_EQ(::read(reply_.Get(), &line, 1), 1);
        }

      private:
        UniqueFd input_;
        UniqueFd reply_;
        pid_t pid_ = -1;
    };

    ScratchDirectory directory_;
    const std::string path_ = directory_.File("vpn_7.launch");
};

TEST_F(LaunchMarkTest, WithoutAMarkNothingIsHeld)
{
    EXPECT_FALSE(IsLaunchMarkHeld(path_));
    EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(LaunchMarkTest, TheMarkStaysWhenItsHolderEnds)
{
    UniqueFd mark = LeaveLaunchMark(path_);
    ASSERT_TRUE(mark);
    EXPECT_EQ(ModeOf(path_), 0600U);
    EXPECT_TRUE(IsLaunchMarkHeld(path_));
    EXPECT_TRUE(IsLaunchMarkHeld(path_)) << "asking does not release it";
    mark = UniqueFd();
    EXPECT_FALSE(IsLaunchMarkHeld(path_));
    EXPECT_TRUE(std::filesystem::exists(path_));
}

TEST_F(LaunchMarkTest, WhatIsLaunchedHoldsTheMarkUntilItClosesIt)
{
    UniqueFd mark = LeaveLaunchMark(path_);
    const Launch launch(mark);
    mark = UniqueFd();
    EXPECT_TRUE(IsLaunchMarkHeld(path_)) << "the agent is gone, its launch is not";
    launch.CloseMark();
    EXPECT_FALSE(IsLaunchMarkHeld(path_));
    EXPECT_TRUE(std::filesystem::exists(path_));
}

// The lock belongs to what is launched, and not to other programs that the agent starts.
TEST_F(LaunchMarkTest, OtherProgramsDoNotInheritTheMark)
{
    UniqueFd mark = LeaveLaunchMark(path_);
    const WaitingProcess other({});
    mark = UniqueFd();
    EXPECT_FALSE(IsLaunchMarkHeld(path_));
}

TEST_F(LaunchMarkTest, ASecondLaunchLeavesTheMarkBesideTheFirst)
{
    UniqueFd first = LeaveLaunchMark(path_);
    UniqueFd second = LeaveLaunchMark(path_);
    EXPECT_TRUE(second);
    first = UniqueFd();
    EXPECT_TRUE(IsLaunchMarkHeld(path_));
    second = UniqueFd();
    EXPECT_FALSE(IsLaunchMarkHeld(path_));
}

TEST_F(LaunchMarkTest, WithoutItsDirectoryThereIsNoMark)
{
    EXPECT_FALSE(LeaveLaunchMark(directory_.File("none/vpn_7.launch")));
}

TEST_F(LaunchMarkTest, ThrowsWhenThePathIsNoFile)
{
    EXPECT_EQ(FailureOf([this] { (void)LeaveLaunchMark(directory_.Path()); }).error, EISDIR);
}

} // namespace
} // namespace kavel::agent
