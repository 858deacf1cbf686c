#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include "fleet_metrics_command.h"
#include "fleet_samples.h"

namespace kavel::fleet {
namespace {

using testing::HasSubstr;
using testing::Not;

FleetState MeasuredBoxes()
{
    FleetState state;
    for (const auto &message : {Wanted("a", 7, "2"), Applied("a", 7, 2), Online("a"), Wanted("b", 7, "2"),
                                Refused("b", 7, 2, "bad"), Wanted("c", 8, "2")}) {
        state.Take(message);
    }
    return state;
}

TEST(FleetMetrics, CountsOfAllBoxes)
{
    const std::string text = FleetMetricsText(MeasuredBoxes(), false);
    for (const char *line :
         {"\nkavel_fleet_up 1\n", "\nkavel_fleet_boxes 3\n", "\nkavel_fleet_boxes_online 1\n",
          "\nkavel_fleet_boxes_behind 2\n", "\nkavel_fleet_vpns{standing=\"applied\"} 1\n",
          "\nkavel_fleet_vpns{standing=\"refused\"} 1\n", "\nkavel_fleet_vpns{standing=\"offline\"} 1\n",
          "\nkavel_fleet_vpns{standing=\"not_running\"} 0\n",
          "\nkavel_fleet_newest_report_time_seconds 1780000001\n"}) {
        EXPECT_THAT(text, HasSubstr(line));
    }
    EXPECT_THAT(text, Not(HasSubstr("box=")));
}

TEST(FleetMetrics, NamesOnRequest)
{
    const std::string text = FleetMetricsText(MeasuredBoxes(), true);
    EXPECT_THAT(text, HasSubstr("\nkavel_fleet_vpn_behind{box=\"b\",vpn=\"7\",standing=\"refused\"} 1\n"
                                "kavel_fleet_vpn_behind{box=\"c\",vpn=\"8\",standing=\"offline\"} 1\n"));
    EXPECT_THAT(text, Not(HasSubstr("box=\"a\"")));
}

TEST(FleetMetrics, OfNoBoxes)
{
    const std::string text = FleetMetricsText(FleetState(), true);
    EXPECT_THAT(text, HasSubstr("\nkavel_fleet_boxes 0\n"));
    EXPECT_THAT(text, HasSubstr("\nkavel_fleet_newest_report_time_seconds 0\n"));
}

} // namespace
} // namespace kavel::fleet
