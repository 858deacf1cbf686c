#include "report.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>

#include "input_error.h"

namespace kavel::broker {
namespace {

std::string RefusedReport(std::string_view text)
{
    try {
        (void)ParseReport(text);
    } catch (const InputError &error) {
        return error.what();
    }
    return "accepted";
}

Report FullReport()
{
    return {.revision = 17,
            .result = Result::kRefused,
            .reason = "dnshosts[0].ip: expected an address, not \"x\"",
            .time = 1780000000,
            .inForce = 16,
            .enabled = true,
            .running = false,
            .problem = "revision 18: 40000000 bytes, over the limit of 33554432"};
}

TEST(ReportText, HasAMemberForEachValue)
{
    EXPECT_EQ(
        ReportText(FullReport()),
        R"({"schema":1,"revision":17,"result":"refused",)"
        R"("reason":"dnshosts[0].ip: expected an address, not \"x\"","inForce":16,"enabled":true,)"
        R"("running":false,"time":1780000000,"problem":"revision 18: 40000000 bytes, over the limit of 33554432"})");
}

TEST(ReportText, LeavesOutWhatHasNoValue)
{
    EXPECT_EQ(ReportText({}), R"({"schema":1})");
    EXPECT_EQ(ReportText({.running = true}), R"({"schema":1,"running":true})");
}

TEST(ReportText, WritesTextsAsOneLineOfABoundedLength)
{
    const Report report{.reason = "a\nb\033c\u202e", .problem = std::string(kReportTextMax - 1, 'x') + "\u00e9"};
    const Report read = ParseReport(ReportText(report));
    EXPECT_EQ(read.reason, "a?b?c?");
    EXPECT_EQ(read.problem, std::string(kReportTextMax - 1, 'x'));
}

TEST(ReportText, FitsItsLimit)
{
    Report report = FullReport();
    report.revision = report.inForce = kRevisionMax;
    report.time = INT64_MAX;
    report.reason = report.problem = std::string(kReportTextMax, '"');
    const std::string text = ReportText(report);
    EXPECT_LE(text.size(), kReportMax);
    EXPECT_EQ(ParseReport(text), report);
}

TEST(ParseReport, ReadsWhatReportTextGives)
{
    EXPECT_EQ(ParseReport(ReportText(FullReport())), FullReport());
    EXPECT_EQ(ParseReport(ReportText({})), Report{});
    const Report largest{.revision = kRevisionMax, .result = Result::kApplied, .time = 0, .inForce = 1};
    EXPECT_EQ(ParseReport(ReportText(largest)), largest);
}

TEST(ParseReport, PassesOverMembersThatItDoesNotKnow)
{
    EXPECT_EQ(ParseReport(R"({"schema": 1, "newer": {"revision": 3}, "running": true})"), Report{.running = true});
}

TEST(ParseReport, CutsTextsAndMakesThemOneLine)
{
    const Report report = ParseReport(R"({"schema": 1, "reason": "a\nb\u0000", "problem": ")" +
                                      std::string(kReportTextMax + 1, 'x') + "\"}");
    EXPECT_EQ(report.reason, "a?b?");
    EXPECT_EQ(report.problem, std::string(kReportTextMax, 'x'));
}

TEST(ParseReport, NamesTheMemberThatIsWrong)
{
    const std::string number = "expected a number from 1 to 9223372036854775807, not ";
    EXPECT_EQ(RefusedReport(R"({"running": true})"), "schema: is missing");
    EXPECT_EQ(RefusedReport(R"({"schema": 2})"), "schema: expected the number 1, not 2");
    EXPECT_EQ(RefusedReport(R"({"schema": 1, "revision": 0, "result": "applied", "time": 1})"),
              "revision: " + number + "0");
    EXPECT_EQ(RefusedReport(R"({"schema": 1, "inForce": "1"})"), "inForce: " + number + "\"1\"");
    EXPECT_EQ(RefusedReport(R"({"schema": 1, "inForce": 9223372036854775808})"),
              "inForce: " + number + "9223372036854775808");
    EXPECT_EQ(RefusedReport(R"({"schema": 1, "revision": 1, "result": "done", "time": 1})"),
              R"(result: expected "applied" or "refused", not "done")");
    EXPECT_EQ(RefusedReport(R"({"schema": 1, "result": 1})"), R"(result: expected "applied" or "refused", not 1)");
    EXPECT_EQ(RefusedReport(R"({"schema": 1, "time": -1})"),
              "time: expected a number from 0 to 9223372036854775807, not -1");
    EXPECT_EQ(RefusedReport(R"({"schema": 1, "reason": null})"), "reason: expected a string, not null");
    EXPECT_EQ(RefusedReport(R"({"schema": 1, "running": 1})"), "running: expected true or false, not 1");
}

TEST(ParseReport, ExpectsRevisionResultAndTimeTogether)
{
    EXPECT_EQ(RefusedReport(R"({"schema": 1, "result": "applied", "time": 1})"), "revision: is missing");
    EXPECT_EQ(RefusedReport(R"({"schema": 1, "revision": 1, "time": 1})"), "result: is missing");
    EXPECT_EQ(RefusedReport(R"({"schema": 1, "revision": 1, "result": "applied"})"), "time: is missing");
}

TEST(ParseReport, RefusesWhatIsNoObject)
{
    EXPECT_EQ(RefusedReport(""), "line 1, column 1: unexpected end of file");
    EXPECT_EQ(RefusedReport("[]"), "expected an object, not an array");
    EXPECT_EQ(RefusedReport("null"), "expected an object, not null");
    EXPECT_EQ(RefusedReport("{\"schema\": 1, \"problem\": \"\xFF\"}"), "line 1, column 27: invalid utf-8 string");
    EXPECT_EQ(RefusedReport(std::string_view("{\"schema\": 1}\0", 14)), "line 1, column 14: NUL character");
}

TEST(ParseReport, RefusesATextOverTheLimit)
{
    const std::string report = R"({"schema": 1})";
    EXPECT_EQ(RefusedReport(report + std::string(kReportMax - report.size(), ' ')), "accepted");
    EXPECT_EQ(RefusedReport(report + std::string(kReportMax - report.size() + 1, ' ')),
              "is 4097 bytes long, over the limit of 4096");
}

} // namespace
} // namespace kavel::broker
