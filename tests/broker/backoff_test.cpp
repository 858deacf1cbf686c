#include "backoff.h"

#include <gtest/gtest.h>

#include <chrono>
#include <set>

namespace kavel::broker {
namespace {

using namespace std::chrono_literals;

TEST(Backoff, DoublesUpToTheLastRange)
{
    for (std::uint32_t seed = 0; seed < 100; ++seed) {
        Backoff backoff(seed);
        for (const auto range : {1s, 2s, 4s, 8s, 16s, 32s, 60s, 60s, 60s}) {
            const std::chrono::milliseconds delay = backoff.Next();
            EXPECT_GE(delay, range / 2.0);
            EXPECT_LE(delay, range);
        }
    }
}

TEST(Backoff, SpreadsTheDelays)
{
    std::set<std::chrono::milliseconds> delays;
    for (int i = 0; i < 100; ++i) {
        delays.insert(Backoff().Next());
    }
    EXPECT_GT(delays.size(), 50U);
}

TEST(Backoff, BeginsAgainAfterASuccess)
{
    Backoff backoff(1);
    for (int i = 0; i < 10; ++i) {
        (void)backoff.Next();
    }
    backoff.Reset();
    EXPECT_LE(backoff.Next(), Backoff::kFirst);
    EXPECT_LE(backoff.Next(), 2 * Backoff::kFirst);
}

} // namespace
} // namespace kavel::broker
