// What a field of the status says: as a cell, as a state, and for the order.
#include "status_fields.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <vector>

#include "status_output.h"
#include "status_samples.h"

namespace kavel::ctl {
namespace {

using StatusFieldsTest = StatusTest;

// The cells of one VPN's row.
std::string Row(const Kavel__VpnStatus &status, const std::string &columns)
{
    const Kavel__VpnStatus *one = &status;
    const std::string table = StatusTable({&one, 1}, {.fields = FieldsNamed(columns, "")});
    return table.substr(table.find('\n') + 1);
}

TEST_F(StatusFieldsTest, TheRuleOfAPopNeedsTheDnatRule)
{
    running_.status.has_dnat = 1;
    EXPECT_EQ(Row(running_.status, "rule"), "no\n");
    running_.status.dnat = 1;
    EXPECT_EQ(Row(running_.status, "rule"), "yes\n");
    running_.status.rule = 0;
    EXPECT_EQ(Row(running_.status, "rule"), "no\n");
}

TEST_F(StatusFieldsTest, ADeadProcessHasAPidAlone)
{
    running_.status.alive = 0;
    EXPECT_EQ(Row(running_.status, "state,pid,uptime,memory,answers"), "stopped  4242       -       -  -\n");
}

TEST_F(StatusFieldsTest, EveryFieldCanBeAColumn)
{
    EXPECT_EQ(Row(failed_.status, "vpn,meant,in_namespace,stored_enable,dnat,ends,last_end,last_end_time,problems"),
              "4294967295  yes    yes           -              -        -  -         -              a-code,a-code\n");
    EXPECT_EQ(Row(running_.status, "mx,mx_hosts,problems"), " 1   1  -\n");
}

TEST_F(StatusFieldsTest, TimesAreThoseOfTheClock)
{
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    running_.status.has_last_repair_time = 1;
    running_.status.last_repair_time = 5'000'000'000;
    EXPECT_EQ(Row(running_.status, "last_repair_time"), "2128-06-11T08:53:20\n");
    ::unsetenv("TZ");
}

// ---- States ----

TEST_F(StatusFieldsTest, TheStateIsOneWord)
{
    const auto word = [](const SampleVpn &vpn) { return StateWord(StateOf(vpn.status)); };
    EXPECT_EQ(word(running_), "running");
    EXPECT_EQ(word(failed_), "failed");
    EXPECT_EQ(word(stopped_), "stopped");
    stopped_.status.stopped = 0;
    EXPECT_EQ(word(stopped_), "off");
    stopped_.status.has_starting = stopped_.status.starting = 1;
    EXPECT_EQ(word(stopped_), "starting");
    stopped_.AddProblem("the steering rule is missing");
    EXPECT_EQ(word(stopped_), "failed") << "problems come first";
}

TEST_F(StatusFieldsTest, AnInstanceThatServesInSpiteOfProblemsIsDegraded)
{
    running_.AddProblem("upstream 10.7.0.53 does not answer");
    EXPECT_EQ(StateOf(running_.status), VpnState::kDegraded);
    for (const auto member : {&VpnStatus::meant, &VpnStatus::alive, &VpnStatus::answers}) {
        running_.status.*member = 0;
        EXPECT_EQ(StateOf(running_.status), VpnState::kFailed);
        running_.status.*member = 1;
    }
}

// ---- The order ----

std::vector<std::uint32_t> Sorted(std::vector<const Kavel__VpnStatus *> vpns, const std::string &order)
{
    SortBy(vpns, OrderNamed(order, "--sort"));
    std::vector<std::uint32_t> ids;
    std::ranges::transform(vpns, std::back_inserter(ids), [](const VpnStatus *vpn) { return vpn->vpn; });
    return ids;
}

TEST_F(StatusFieldsTest, RowsAreSortedByAnyField)
{
    using testing::ElementsAre;
    running_.status.has_repairs = 1;
    running_.status.repairs = 10;
    failed_.status.has_repairs = 1;
    failed_.status.repairs = 9;
    EXPECT_THAT(Sorted(all_, "-vpn"), ElementsAre(4294967295, 7, 0));
    EXPECT_THAT(Sorted(all_, "repairs"), ElementsAre(0, 4294967295, 7));
    EXPECT_THAT(Sorted(all_, "state"), ElementsAre(4294967295, 0, 7)) << "the worst first";
    EXPECT_THAT(Sorted(all_, "-state"), ElementsAre(7, 0, 4294967295));
    EXPECT_THAT(Sorted(all_, "namespace"), ElementsAre(0, 4294967295, 7));
    EXPECT_THAT(Sorted(all_, "-problems"), ElementsAre(4294967295, 0, 7));
    EXPECT_THAT(Sorted(all_, "answers"), ElementsAre(0, 4294967295, 7));
    EXPECT_THAT(Sorted(all_, "meant"), ElementsAre(0, 7, 4294967295)) << "equal ones keep their order";
    EXPECT_THAT(Sorted(all_, "-meant"), ElementsAre(7, 4294967295, 0));
}

TEST(UptimeText, ShowsTwoUnits)
{
    EXPECT_EQ(UptimeText(0), "0s");
    EXPECT_EQ(UptimeText(59), "59s");
    EXPECT_EQ(UptimeText(60), "1m00s");
    EXPECT_EQ(UptimeText(192), "3m12s");
    EXPECT_EQ(UptimeText(3599), "59m59s");
    EXPECT_EQ(UptimeText(3600), "1h00m");
    EXPECT_EQ(UptimeText(86399), "23h59m");
    EXPECT_EQ(UptimeText(86400), "1d00h");
    EXPECT_EQ(UptimeText(34'570'800), "400d03h");
}

TEST(MemoryText, ShowsOneDecimalInTheLargestUnit)
{
    EXPECT_EQ(MemoryText(0), "0B");
    EXPECT_EQ(MemoryText(1023), "1023B");
    EXPECT_EQ(MemoryText(1024), "1.0K");
    EXPECT_EQ(MemoryText(1'048'575), "1023.9K");
    EXPECT_EQ(MemoryText(1'048'576), "1.0M");
    EXPECT_EQ(MemoryText(1'900'000), "1.8M");
    EXPECT_EQ(MemoryText(18446744073709551615U), "15.9E");
}

} // namespace
} // namespace kavel::ctl
