#include "drop_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kavel::link {
namespace {

using testing::HasSubstr;
using testing::Not;

const DropLog::Time kNow{std::chrono::hours(1)};

TEST(DropLogTest, AFloodIsCounted)
{
    DropLog log;
    testing::internal::CaptureStderr();
    for (std::uint32_t i = 1; i <= DropLog::kLinesMax + 5; ++i) {
        log.Write(kNow, "line " + std::to_string(i) + ".");
    }
    const std::string flood = testing::internal::GetCapturedStderr();
    EXPECT_THAT(flood, HasSubstr("WARNING line 20."));
    EXPECT_THAT(flood, Not(HasSubstr("line 21.")));

    testing::internal::CaptureStderr();
    log.Write(kNow + DropLog::kInterval, "next");
    const std::string next = testing::internal::GetCapturedStderr();
    EXPECT_THAT(next, HasSubstr("5 more messages were dropped"));
    EXPECT_THAT(next, HasSubstr("next"));
}

TEST(DropLogTest, WhatIsNotAFloodIsNotCounted)
{
    DropLog log;
    testing::internal::CaptureStderr();
    log.Write(kNow, "first");
    log.Write(kNow + DropLog::kInterval, "second");
    EXPECT_THAT(testing::internal::GetCapturedStderr(), Not(HasSubstr("more messages")));
}

} // namespace
} // namespace kavel::link
