#include "rows.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <string>

#include "fleet_samples.h"
#include "json_writer.h"

namespace kavel::fleet {
namespace {

FleetState SomeBoxes()
{
    FleetState state;
    for (const auto &message : {Wanted("b1", 7, "18"), Applied("b1", 7, 18), Online("b1"), Wanted("b2", 7, "18"),
                                Applied("b2", 7, 17), Offline("b2"), Wanted("b3", 7, "18"),
                                Refused("b3", 7, 18, "dnshosts[0].ip: bad"), Online("b3"), Online("b4")}) {
        state.Take(message);
    }
    return state;
}

std::string TableOf(const FleetState &state, bool all, std::size_t widest = 0)
{
    std::ostringstream out;
    PrintTable(out, RowsOf(state, all), widest);
    return out.str();
}

TEST(Rows, WhatIsBehind)
{
    EXPECT_EQ(TableOf(SomeBoxes(), false), "BOX  VPN  ONLINE  WANTED  IN FORCE  RESULT\n"
                                           "b2     7  no          18        17  offline\n"
                                           "b3     7  yes         18        17  refused: dnshosts[0].ip: bad\n");
}

TEST(Rows, AllBoxes)
{
    EXPECT_EQ(TableOf(SomeBoxes(), true), "BOX  VPN  ONLINE  WANTED  IN FORCE  RESULT\n"
                                          "b1     7  yes         18        18  applied\n"
                                          "b2     7  no          18        17  offline\n"
                                          "b3     7  yes         18        17  refused: dnshosts[0].ip: bad\n"
                                          "b4     -  yes          -         -  nothing is published\n");
}

TEST(Rows, AnEmptyTableHasNoTitles)
{
    EXPECT_EQ(TableOf(FleetState(), true), "");
}

TEST(Rows, ResultsAreCutToTheTerminal)
{
    EXPECT_EQ(TableOf(SomeBoxes(), false, 52), "BOX  VPN  ONLINE  WANTED  IN FORCE  RESULT\n"
                                               "b2     7  no          18        17  offline\n"
                                               "b3     7  yes         18        17  refused: dnsh...\n");
}

TEST(Rows, Lines)
{
    const FleetState state = SomeBoxes();
    EXPECT_EQ(LineOf(RowsOf("b2", *state.Find("b2"), false).at(0)),
              "b2 vpn 7: offline (online: no, wanted: 18, in force: 17)");
    EXPECT_EQ(LineOf(RowsOf("b4", *state.Find("b4"), true).at(0)),
              "b4: nothing is published (online: yes, wanted: -, in force: -)");
}

TEST(Rows, ABoxThatSaysNonsenseIsShownInAnyCase)
{
    FleetState state;
    state.Take(PresenceText("b", "nonsense"));
    EXPECT_THAT(TableOf(state, false),
                testing::HasSubstr("b      -  ?            -         -  presence cannot be read"));
}

TEST(Rows, AnAgentThatDoesNotAnswerIsSeen)
{
    FleetState state;
    state.Take(PresenceText("b", R"({"schema": 1, "online": true, "agent": false})"));
    EXPECT_EQ(RowsOf(state, true).at(0).online, "no agent");
}

TEST(Rows, Summary)
{
    EXPECT_EQ(SummaryOf(CountsOf(SomeBoxes())), "4 boxes: 3 online, 2 behind");
    EXPECT_EQ(SummaryOf({.boxes = 1, .online = 0, .behind = 1}), "1 box: 0 online, 1 behind");
}

TEST(Rows, Json)
{
    const FleetState state = SomeBoxes();
    EXPECT_EQ(JsonLine(BoxJson("b3", *state.Find("b3"), false).get()),
              R"({"box":"b3","online":true,"agent":true,"version":"0.1.0","since":1780000000,"vpns":[)"
              R"({"vpn":7,"behind":true,"standing":"refused","text":"refused: dnshosts[0].ip: bad","wanted":18,)"
              R"("reported":18,"result":"refused","reason":"dnshosts[0].ip: bad","in_force":17,"enabled":true,)"
              R"("running":true,"time":1780000001}]})");
    EXPECT_EQ(JsonLine(BoxJson("b1", *state.Find("b1"), false).get()),
              R"({"box":"b1","online":true,"agent":true,"version":"0.1.0","since":1780000000,"vpns":[]})");
}

} // namespace
} // namespace kavel::fleet
