#include "deadline.h"

#include <chrono>
#include <gtest/gtest.h>
#include <limits>
#include <thread>

namespace kavel {
namespace {

using std::chrono::milliseconds;
using namespace std::chrono_literals;

TEST(Deadline, RemainingIsAtMostTheTimeout)
{
    const Deadline deadline(1h);
    EXPECT_FALSE(deadline.HasPassed());
    EXPECT_LE(deadline.Remaining(), 1h);
    EXPECT_GT(deadline.Remaining(), 59min);
    EXPECT_GT(deadline.PollTimeout(), 59 * 60 * 1000);
}

TEST(Deadline, RemainingIsRoundedUp)
{
    const Deadline deadline(20ms);
    while (!deadline.HasPassed()) {
        const milliseconds remaining = deadline.Remaining();
        // It may pass between the two calls. As long as it has not, a wait of 0 ms would be a busy loop.
        EXPECT_TRUE(remaining > 0ms || deadline.HasPassed());
    }
}

TEST(Deadline, RemainingIsZeroAfterIt)
{
    const Deadline deadline(1ms);
    std::this_thread::sleep_for(5ms);
    EXPECT_TRUE(deadline.HasPassed());
    EXPECT_EQ(deadline.Remaining(), 0ms);
    EXPECT_EQ(deadline.PollTimeout(), 0);
}

TEST(Deadline, NegativeTimeoutHasPassed)
{
    const Deadline deadline(milliseconds::min());
    EXPECT_TRUE(deadline.HasPassed());
    EXPECT_EQ(deadline.Remaining(), 0ms);
}

TEST(Deadline, LongestTimeoutNeverEnds)
{
    const Deadline deadline(milliseconds::max());
    EXPECT_FALSE(deadline.HasPassed());
    EXPECT_GT(deadline.Remaining(), std::chrono::hours(24 * 365 * 100));
    EXPECT_EQ(deadline.PollTimeout(), std::numeric_limits<int>::max());
}

} // namespace
} // namespace kavel
