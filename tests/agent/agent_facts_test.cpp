#include "instances/agent_facts.h"

#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::HasSubstr;

TEST(CountStart, ReturnsTheStartsBefore)
{
    const TestBox box;
    const std::string path = box.Path("/starts");
    EXPECT_EQ(CountStart(path), 0U);
    EXPECT_EQ(CountStart(path), 1U);
    EXPECT_EQ(CountStart(path), 2U);
}

TEST(CountStart, BeginsAgainWhenTheFileHoldsNoNumber)
{
    const TestBox box;
    box.Write("/starts", "no number");
    EXPECT_EQ(CountStart(box.Path("/starts")), 0U);
    EXPECT_EQ(CountStart(box.Path("/starts")), 1U);
}

TEST(CountStart, LogsThatItCannotCount)
{
    const TestBox box;
    LogCapture log;
    EXPECT_EQ(CountStart(box.Path("/none/starts")), 0U);
    EXPECT_THAT(log.Take(), HasSubstr("WARNING the starts of the agent are not counted: "));
}

TEST(StatusOfAgent, HasTheFactsAndWhatChanges)
{
    const AgentStatus status =
        StatusOfAgent({"1.2", 3, std::chrono::steady_clock::now() - std::chrono::milliseconds(7500)});
    EXPECT_EQ(status.version, "1.2");
    EXPECT_EQ(status.restarts, 3U);
    EXPECT_GE(status.uptimeSeconds, 7U);
    EXPECT_LT(status.uptimeSeconds, 60U);
    EXPECT_GT(status.memoryBytes, 100'000U);
}

} // namespace
} // namespace kavel::agent
