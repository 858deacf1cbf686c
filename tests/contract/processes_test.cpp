#include <sys/types.h>

#include <cerrno>
#include <climits>
#include <string>

#include "contract_test.h"
#include "vqProcess.h"

namespace kavel::contract {
namespace {

class Processes : public ContractTest {};

TEST_F(Processes, HaveExitedWhenTheCallReturns)
{
    PROMISE(kProcessKillWaits);
    const pid_t pid = world().StartInstance(true);
    ASSERT_TRUE(world().IsRunning(pid));
    EXPECT_GE(VQ_KillPid(pid), 0);
    EXPECT_FALSE(world().IsRunning(pid));
}

TEST_F(Processes, AreKilledIfTheyIgnoreSigterm)
{
    PROMISE(kProcessKillStubborn);
    const pid_t pid = world().StartInstance(false);
    ASSERT_TRUE(world().IsRunning(pid));
    EXPECT_GE(VQ_KillPid(pid), 0);
    EXPECT_FALSE(world().IsRunning(pid));
}

TEST_F(Processes, OtherInstancesKeepRunning)
{
    PROMISE(kProcessKillOnly);
    const pid_t first = world().StartInstance(true);
    const pid_t second = world().StartInstance(true);
    EXPECT_GE(VQ_KillPid(first), 0);
    EXPECT_TRUE(world().IsRunning(second));
}

TEST_F(Processes, ThatHaveExitedAreNotFound)
{
    PROMISE(kProcessKillMissing);
    EXPECT_EQ(VQ_KillPid(world().EndedProcess()), -ESRCH);
    EXPECT_EQ(VQ_KillPid(INT_MAX), -ESRCH);
}

TEST_F(Processes, KilledOnceAreNotFoundTheNextTime)
{
    const pid_t pid = world().StartInstance(true);
    EXPECT_GE(VQ_KillPid(pid), 0);
    EXPECT_EQ(VQ_KillPid(pid), -ESRCH);
}

TEST_F(Processes, ZombiesAreNotFound)
{
    PROMISE(kProcessKillZombie);
    EXPECT_EQ(VQ_KillPid(world().Zombie()), -ESRCH);
}

// kill() takes such numbers for process groups, or for all processes.
TEST_F(Processes, PidsMustBePositive)
{
    PROMISE(kProcessKillInvalid);
    for (const pid_t pid : {0, -1, -2, INT_MIN}) {
        EXPECT_EQ(VQ_KillPid(pid), -EINVAL) << pid;
    }
}

TEST_F(Processes, SuccessfulCommandReturnsNoError)
{
    std::string command = "true";
    EXPECT_GE(VQ_CmdExec(command.data()), 0);
    EXPECT_EQ(command, "true");
}

} // namespace
} // namespace kavel::contract
