#include "rate_limit.h"

#include <gtest/gtest.h>

namespace kavel::fleet {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const RateLimit::Clock::time_point kStart{seconds(1000)};

// How many may be sent at once.
int SentAt(RateLimit &rate, RateLimit::Clock::time_point now)
{
    int sent = 0;
    while (sent < 1000 && rate.Take(now)) {
        ++sent;
    }
    return sent;
}

TEST(RateLimit, WithoutALimitEverythingMayBeSent)
{
    RateLimit rate(0);
    EXPECT_EQ(SentAt(rate, kStart), 1000);
}

TEST(RateLimit, SendingsAreSpreadOverTime)
{
    RateLimit rate(10);
    EXPECT_GE(SentAt(rate, kStart), 1);
    EXPECT_FALSE(rate.Take(kStart + milliseconds(20)));
    const auto next = rate.Next();
    EXPECT_FALSE(rate.Take(next - milliseconds(1)));
    EXPECT_TRUE(rate.Take(next));
    EXPECT_EQ(rate.Next(), next + milliseconds(100));
}

TEST(RateLimit, InTenSecondsNotMoreThanTheRateAllows)
{
    RateLimit rate(50);
    int sent = 0;
    for (milliseconds at{0}; at < seconds(10); at += milliseconds(7)) {
        sent += SentAt(rate, kStart + at);
    }
    EXPECT_GE(sent, 498);
    EXPECT_LE(sent, 503); // with those of the first 50 ms
}

TEST(RateLimit, TimeThatWasNotUsedIsLost)
{
    RateLimit rate(1000);
    SentAt(rate, kStart);
    EXPECT_LE(SentAt(rate, kStart + seconds(10)), 51);
}

} // namespace
} // namespace kavel::fleet
