#include "metrics_text.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace kavel::agent {
namespace {

TEST(MetricsText, ASampleFollowsItsHelpAndType)
{
    MetricsText text;
    text.Begin("starts_total", "counter", "How often.");
    text.Add({}, std::uint64_t{18446744073709551615U});
    text.Begin("vpn_up", "gauge", "Whether.");
    text.Add({{"vpn", "7"}}, true);
    text.Add({{"vpn", "8"}, {"code", "x"}}, false);
    EXPECT_EQ(text.Text(), "# HELP kavel_starts_total How often.\n"
                           "# TYPE kavel_starts_total counter\n"
                           "kavel_starts_total 18446744073709551615\n"
                           "# HELP kavel_vpn_up Whether.\n"
                           "# TYPE kavel_vpn_up gauge\n"
                           "kavel_vpn_up{vpn=\"7\"} 1\n"
                           "kavel_vpn_up{vpn=\"8\",code=\"x\"} 0\n");
}

TEST(MetricsText, AMetricWithoutSamplesIsLeftOut)
{
    MetricsText text;
    text.Begin("none", "gauge", "Nothing.");
    text.Begin("one", "gauge", "Something.");
    text.Add({}, 1U);
    EXPECT_EQ(text.Text(), "# HELP kavel_one Something.\n# TYPE kavel_one gauge\nkavel_one 1\n");
}

TEST(MetricsText, SpecialCharactersAreEscaped)
{
    MetricsText text;
    text.Begin("x", "gauge", "A \\ and a \"quote\"\nand a line.");
    text.Add({{"revision", "a\\b\"c\nd\xC3\xA4"}}, 0U);
    EXPECT_EQ(text.Text(), "# HELP kavel_x A \\\\ and a \"quote\"\\nand a line.\n"
                           "# TYPE kavel_x gauge\n"
                           "kavel_x{revision=\"a\\\\b\\\"c\\nd\xC3\xA4\"} 0\n");
}

TEST(MetricsText, AHistogramHasCumulatedBuckets)
{
    Histogram histogram({0.005, 0.5, 60});
    for (const double value : {0.005, 0.25, 0.25, 100.0}) {
        histogram.Observe(value);
    }
    MetricsText text;
    text.Begin("d_seconds", "histogram", "How long.");
    text.Add({{"verb", "apply"}}, histogram);
    EXPECT_EQ(text.Text(), "# HELP kavel_d_seconds How long.\n"
                           "# TYPE kavel_d_seconds histogram\n"
                           "kavel_d_seconds_bucket{verb=\"apply\",le=\"0.005\"} 1\n"
                           "kavel_d_seconds_bucket{verb=\"apply\",le=\"0.5\"} 3\n"
                           "kavel_d_seconds_bucket{verb=\"apply\",le=\"60\"} 3\n"
                           "kavel_d_seconds_bucket{verb=\"apply\",le=\"+Inf\"} 4\n"
                           "kavel_d_seconds_sum{verb=\"apply\"} 100.505\n"
                           "kavel_d_seconds_count{verb=\"apply\"} 4\n");
}

TEST(MetricsText, AnEmptyHistogramHasAllBuckets)
{
    const Histogram histogram({1});
    MetricsText text;
    text.Begin("d_seconds", "histogram", "How long.");
    text.Add({}, histogram);
    EXPECT_EQ(text.Text(), "# HELP kavel_d_seconds How long.\n"
                           "# TYPE kavel_d_seconds histogram\n"
                           "kavel_d_seconds_bucket{le=\"1\"} 0\n"
                           "kavel_d_seconds_bucket{le=\"+Inf\"} 0\n"
                           "kavel_d_seconds_sum 0\n"
                           "kavel_d_seconds_count 0\n");
}

} // namespace
} // namespace kavel::agent
