#include "instances/agent_lock.h"

#include <gtest/gtest.h>
#include <system_error>

#include "test_box.h"

namespace kavel::agent {
namespace {

// The lock's directory belongs to root, and an agent without privileges does not get the lock.
TEST(AgentLock, FailsWithoutTheRightToWriteItsFile)
{
    const Unprivileged unprivileged;
    EXPECT_THROW(AgentLock(), std::system_error);
}

TEST(AgentLock, TellsWhichProcessHoldsIt)
{
    EXPECT_STREQ(AlreadyRunning(4711).what(), "already running as pid 4711");
}

} // namespace
} // namespace kavel::agent
