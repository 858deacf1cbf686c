#include "base/log_override.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>

#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::HasSubstr;
using testing::Not;

class LogOverrideTest : public testing::Test {
  protected:
    LogOverrideTest() { ConfigureLog(LogLevel::kNotice); }
    ~LogOverrideTest() override { ConfigureLog(LogLevel::kNotice); }

    static constexpr const char *kPeer = "pid 42, uid 0 (test)";
    EventLoop loop_;
    LogCapture log_;
    LogOverride override_{loop_, LogLevel::kNotice};
};

TEST_F(LogOverrideTest, ALevelHoldsForItsTime)
{
    const auto before = std::time(nullptr);
    override_.Set(LogLevel::kDebug, std::chrono::seconds(1), kPeer);
    EXPECT_TRUE(IsLogged(LogLevel::kDebug));
    EXPECT_EQ(override_.Level(), LogLevel::kDebug);
    ASSERT_TRUE(override_.Until());
    EXPECT_GE(*override_.Until(), before + 1);
    EXPECT_TRUE(RunUntil(loop_, [] { return !IsLogged(LogLevel::kDebug); }));
    EXPECT_EQ(override_.Level(), LogLevel::kNotice);
    EXPECT_FALSE(override_.Until());
}

TEST_F(LogOverrideTest, EachChangeIsLoggedWithItsPeerAtEveryLevel)
{
    override_.Set(LogLevel::kError, std::chrono::seconds(1), kPeer);
    EXPECT_TRUE(RunUntil(loop_, [] { return IsLogged(LogLevel::kNotice); }));
    const std::string log = log_.Take();
    EXPECT_THAT(log, HasSubstr("NOTICE log level error for 1 s, by pid 42, uid 0 (test)\n"));
    EXPECT_THAT(log, HasSubstr("NOTICE log level notice again\n"));
}

TEST_F(LogOverrideTest, ALevelWithATimeStaysWhenTheConfigurationIsRead)
{
    override_.Set(LogLevel::kDebug, std::chrono::seconds(1), kPeer);
    override_.ConfigurationRead(LogLevel::kWarning);
    EXPECT_TRUE(IsLogged(LogLevel::kDebug));
    EXPECT_EQ(override_.Configured(), LogLevel::kWarning);
    EXPECT_TRUE(RunUntil(loop_, [] { return !IsLogged(LogLevel::kDebug); }));
    EXPECT_FALSE(IsLogged(LogLevel::kNotice)) << "the level that was read holds";
}

TEST_F(LogOverrideTest, ALevelWithoutATimeEndsWhenTheConfigurationIsRead)
{
    override_.Set(LogLevel::kDebug, std::nullopt, kPeer);
    EXPECT_TRUE(IsLogged(LogLevel::kDebug));
    EXPECT_FALSE(override_.Until());
    override_.ConfigurationRead(LogLevel::kWarning);
    EXPECT_FALSE(IsLogged(LogLevel::kNotice));
    EXPECT_EQ(override_.Level(), LogLevel::kWarning);
}

TEST_F(LogOverrideTest, TheNextLevelReplacesTheTimeOfTheOneBefore)
{
    override_.Set(LogLevel::kDebug, std::chrono::seconds(1), kPeer);
    override_.Set(LogLevel::kWarning, std::nullopt, kPeer);
    EXPECT_FALSE(RunUntil(
        loop_, [] { return IsLogged(LogLevel::kNotice); }, std::chrono::milliseconds(1500)));
    EXPECT_THAT(log_.Take(), Not(HasSubstr("again")));
}

} // namespace
} // namespace kavel::agent
