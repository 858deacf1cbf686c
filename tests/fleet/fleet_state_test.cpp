#include "fleet_state.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <string>

#include "fleet_samples.h"

namespace kavel::fleet {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using enum Standing;

// The VPN 7 of box b, after these messages.
Verdict VerdictAfter(std::initializer_list<broker::Message> messages)
{
    FleetState state;
    for (const broker::Message &message : messages) {
        EXPECT_EQ(state.Take(message), "b");
    }
    return VerdictOf(state, "b", 7);
}

void ExpectVerdict(const Verdict &verdict, Standing standing, const std::string &text)
{
    EXPECT_EQ(NameOf(verdict.standing), NameOf(standing));
    EXPECT_EQ(verdict.text, text);
}

TEST(FleetState, AppliedAndRunning)
{
    ExpectVerdict(VerdictAfter({Wanted("b", 7, "18"), Applied("b", 7, 18), Online("b")}), kApplied, "applied");
}

TEST(FleetState, ABoxThatSleepsIsNotBehindIfItHasApplied)
{
    ExpectVerdict(VerdictAfter({Wanted("b", 7, "18"), Applied("b", 7, 18), Offline("b")}), kApplied, "applied");
}

TEST(FleetState, AppliedWithAReason)
{
    const auto report = ReportText("b", 7, R"({"schema": 1, "revision": 18, "result": "applied", "inForce": 18,
        "enabled": true, "running": true, "time": 1, "reason": "the store failed"})");
    ExpectVerdict(VerdictAfter({Wanted("b", 7, "18"), report}), kApplied, "applied: the store failed");
}

TEST(FleetState, NothingIsWanted)
{
    ExpectVerdict(VerdictAfter({Applied("b", 7, 18), Online("b")}), kNothingWanted, "nothing is published");
}

TEST(FleetState, OfflineAndNotReported)
{
    ExpectVerdict(VerdictAfter({Wanted("b", 7, "18")}), kOffline, "offline");
    ExpectVerdict(VerdictAfter({Wanted("b", 7, "18"), Applied("b", 7, 17), Offline("b")}), kOffline, "offline");
    ExpectVerdict(VerdictAfter({Wanted("b", 7, "18"), Online("b")}), kNotReported, "not reported yet");
    ExpectVerdict(VerdictAfter({Wanted("b", 7, "18"), Applied("b", 7, 17), Online("b")}), kNotReported,
                  "not reported yet");
}

TEST(FleetState, AnAgentThatDoesNotAnswer)
{
    ExpectVerdict(
        VerdictAfter({Wanted("b", 7, "18"), PresenceText("b", R"({"schema": 1, "online": true, "agent": false})")}),
        kNotReported, "not reported yet: its agent does not answer");
}

TEST(FleetState, AMessageThatTheBoxHasDropped)
{
    const auto report = ReportText("b", 7, R"({"schema": 1, "problem": "revision 18: over the limit"})");
    ExpectVerdict(VerdictAfter({Wanted("b", 7, "18"), Online("b"), report}), kNotReported,
                  "not reported yet; revision 18: over the limit");
}

TEST(FleetState, Refused)
{
    ExpectVerdict(VerdictAfter({Wanted("b", 7, "18"), Refused("b", 7, 18, "dnshosts[0].ip: bad"), Offline("b")}),
                  kRefused, "refused: dnshosts[0].ip: bad");
    // An older one that was refused tells nothing about the wanted one.
    ExpectVerdict(VerdictAfter({Wanted("b", 7, "19"), Refused("b", 7, 18, "bad"), Online("b")}), kNotReported,
                  "not reported yet");
}

struct Service {
    const char *members;
    Standing standing;
    const char *text;
};

TEST(FleetState, TheServiceOfAnAppliedMessage)
{
    const Service services[] = {
        {R"("inForce": 18, "enabled": true, "running": false)", kNotRunning, "applied, NOT RUNNING"},
        {R"("inForce": 18, "enabled": true)", kNotRunning, "applied; whether it runs is not known"},
        {R"("inForce": 18)", kNotRunning, "applied; whether it runs is not known"},
        {R"("inForce": 18, "running": true)", kApplied, "applied"},
        {R"("inForce": 18, "enabled": false, "running": false)", kApplied, "applied"},
        {R"("inForce": 18, "enabled": false)", kApplied, "applied"},
        {R"("inForce": 18, "enabled": false, "running": true)", kStillRunning, "applied, STILL RUNNING"},
        {R"("inForce": 16, "enabled": true, "running": true)", kNotInForce, "applied, but revision 16 is in force now"},
        {R"("enabled": true, "running": true)", kNotInForce, "applied, but something else is in force now"},
    };
    for (const Service &service : services) {
        const auto report = ReportText(
            "b", 7,
            std::string(R"({"schema": 1, "revision": 18, "result": "applied", "time": 1, )") + service.members + "}");
        ExpectVerdict(VerdictAfter({Wanted("b", 7, "18"), Online("b"), report}), service.standing, service.text);
    }
}

TEST(FleetState, ANewerRevisionThanTheWantedOne)
{
    ExpectVerdict(VerdictAfter({Wanted("b", 7, "18"), Applied("b", 7, 20)}), kNewer,
                  "revision 20 is reported, which is newer");
}

TEST(FleetState, WhatCannotBeReadIsTold)
{
    const Verdict report = VerdictAfter({Wanted("b", 7, "18"), ReportText("b", 7, "{\"schema\": 2}"), Online("b")});
    EXPECT_EQ(report.standing, kUnreadable);
    EXPECT_THAT(report.text, StartsWith("report cannot be read: schema"));

    const Verdict presence = VerdictAfter({Wanted("b", 7, "18"), PresenceText("b", "[]")});
    EXPECT_EQ(presence.standing, kUnreadable);
    EXPECT_THAT(presence.text, StartsWith("presence cannot be read: "));

    for (const char *revision : {"", "0", "018", "-1", "1.0", "9223372036854775808", "x"}) {
        const Verdict wanted = VerdictAfter({Wanted("b", 7, revision), Applied("b", 7, 18)});
        EXPECT_EQ(wanted.standing, kUnreadable) << revision;
        EXPECT_THAT(wanted.text, HasSubstr("revision of the published message")) << revision;
    }
    broker::Message without = Wanted("b", 7, "18");
    without.properties.clear();
    ExpectVerdict(VerdictAfter({without}), kUnreadable, "the published message has no revision");
}

TEST(FleetState, AReportReplacesTheOneBefore)
{
    ExpectVerdict(VerdictAfter({Wanted("b", 7, "18"), ReportText("b", 7, "garbage"), Applied("b", 7, 18)}), kApplied,
                  "applied");
    EXPECT_EQ(VerdictAfter({Wanted("b", 7, "18"), Applied("b", 7, 18), ReportText("b", 7, "garbage")}).standing,
              kUnreadable);
}

TEST(FleetState, TextsOfBoxesArePrintable)
{
    const Verdict verdict = VerdictAfter(
        {Wanted("b", 7, "18"), ReportText("b", 7, R"({"schema": 1, "revision": 18, "result": "refused", "time": 1,
            "reason": "a\u001b[2J\u202eb"})")});
    EXPECT_EQ(verdict.standing, kRefused);
    EXPECT_THAT(verdict.text, StartsWith("refused: a"));
    EXPECT_EQ(verdict.text.find('\x1b'), std::string::npos);
    EXPECT_EQ(verdict.text.find("\u202e"), std::string::npos);
}

TEST(FleetState, AnEmptyPayloadRemovesWhatWasThere)
{
    FleetState state;
    broker::Message cleared = Wanted("b", 7, "18");
    state.Take(cleared);
    state.Take(Applied("b", 7, 18));
    state.Take(Online("b"));
    cleared.payload.clear();
    state.Take(cleared);
    EXPECT_EQ(VerdictOf(state, "b", 7).standing, kNothingWanted);
    state.Take(ReportText("b", 7, ""));
    ASSERT_NE(state.Find("b"), nullptr);
    EXPECT_TRUE(state.Find("b")->vpns.empty());
    state.Take(PresenceText("b", ""));
    EXPECT_EQ(state.Find("b"), nullptr);
}

TEST(FleetState, OtherTopicsArePassedOver)
{
    FleetState state;
    broker::Message message = Online("b");
    for (const char *topic : {"kavel/b/online/1", "kavel/$b/online", "kavel/b/reported/x", "kavel-fleet/b/mark", ""}) {
        message.topic = topic;
        EXPECT_EQ(state.Take(message), std::nullopt) << topic;
    }
    EXPECT_TRUE(state.Boxes().empty());
}

TEST(FleetState, OnlyTheBoxesThatCount)
{
    FleetState state([](const std::string &box) { return box == "a"; });
    EXPECT_EQ(state.Take(Online("a")), "a");
    EXPECT_EQ(state.Take(Online("b")), std::nullopt);
    EXPECT_EQ(state.Boxes().size(), 1U);
}

TEST(FleetState, ABoxCannotNameAnyNumberOfVpns)
{
    FleetState state;
    for (std::uint32_t vpn = 0; vpn < kVpnsMax + 10; ++vpn) {
        state.Take(Applied("b", vpn, 1));
    }
    ASSERT_NE(state.Find("b"), nullptr);
    EXPECT_EQ(state.Find("b")->vpns.size(), kVpnsMax);
    EXPECT_EQ(ProblemOf(*state.Find("b")), "it has more than 4096 VPNs: the others are passed over");
    state.Take(Refused("b", 3, 2, "bad")); // one that is known still changes
    EXPECT_EQ(state.Find("b")->vpns.at(3).report->result, broker::Result::kRefused);
}

TEST(FleetState, Counts)
{
    FleetState state;
    for (const auto &message :
         {Wanted("a", 7, "2"), Applied("a", 7, 2), Wanted("a", 8, "2"), Online("a"), Wanted("b", 7, "2"),
          Refused("b", 7, 2, "bad"), Online("b"), Online("c"), Wanted("d", 7, "2"), Applied("d", 7, 2), Offline("d")}) {
        state.Take(message);
    }
    const FleetCounts counts = CountsOf(state);
    EXPECT_EQ(counts.boxes, 4U);
    EXPECT_EQ(counts.online, 3U);
    EXPECT_EQ(counts.behind, 2U);
    EXPECT_EQ(counts.vpns, (std::map<Standing, std::size_t>{{kApplied, 2}, {kNotReported, 1}, {kRefused, 1}}));
}

TEST(FleetState, EveryStandingHasANameOfItsOwn)
{
    std::set<std::string_view> names;
    for (std::size_t i = 0; i < kStandings; ++i) {
        names.insert(NameOf(static_cast<Standing>(i)));
    }
    EXPECT_EQ(names.size(), kStandings);
    EXPECT_FALSE(names.contains(""));
}

} // namespace
} // namespace kavel::fleet
