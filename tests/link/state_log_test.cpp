#include "state_log.h"

#include <gtest/gtest.h>

namespace kavel::link {
namespace {

class StateLogTest : public testing::Test {
  protected:
    std::string Written(const std::string &line)
    {
        testing::internal::CaptureStderr();
        log_.Write(now_, LogLevel::kWarning, line);
        return testing::internal::GetCapturedStderr();
    }

    StateLog log_;
    StateLog::Time now_{std::chrono::hours(1)};
};

TEST_F(StateLogTest, AStateThatStaysIsWrittenOnce)
{
    EXPECT_EQ(Written("it is away"), "WARNING it is away\n");
    now_ += std::chrono::hours(1);
    EXPECT_EQ(Written("it is away"), "");
    EXPECT_EQ(Written("it is wrong"), "WARNING it is wrong\n");
}

TEST_F(StateLogTest, StatesThatAlternateAreWrittenOnceAMinute)
{
    EXPECT_NE(Written("it is away"), "");
    EXPECT_NE(Written("it is there"), "");
    now_ += StateLog::kInterval - std::chrono::milliseconds(1);
    EXPECT_EQ(Written("it is away"), "");
    EXPECT_EQ(Written("it is there"), "");
    now_ += std::chrono::milliseconds(1);
    EXPECT_NE(Written("it is away"), "");
    EXPECT_NE(Written("it is there"), "");
}

} // namespace
} // namespace kavel::link
