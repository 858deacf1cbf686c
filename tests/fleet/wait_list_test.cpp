#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include "fleet_samples.h"
#include "wait_command.h"

namespace kavel::fleet {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

FleetState StateOf(std::initializer_list<broker::Message> messages)
{
    FleetState state;
    for (const broker::Message &message : messages) {
        state.Take(message);
    }
    return state;
}

TEST(WaitList, IsReachedWhenAllIsApplied)
{
    FleetState state = StateOf({Wanted("a", 7, "2"), Wanted("b", 7, "2"), Applied("a", 7, 2), Online("c")});
    WaitList list({}, std::nullopt);
    list.JudgeAll(state);
    EXPECT_FALSE(list.IsDone());
    EXPECT_THAT(list.Behind(), ElementsAre("b"));
    EXPECT_EQ(list.Total(), 3U);

    state.Take(Applied("b", 7, 2));
    list.JudgeBox(state, "b");
    EXPECT_TRUE(list.IsDone());
    EXPECT_TRUE(list.IsReached());
}

TEST(WaitList, NothingIsLeftToWaitForIfTheRestWasRefused)
{
    FleetState state = StateOf({Wanted("a", 7, "2"), Refused("a", 7, 2, "bad"), Wanted("b", 7, "2")});
    WaitList list({}, std::nullopt);
    list.JudgeAll(state);
    EXPECT_FALSE(list.IsDone());
    state.Take(Applied("b", 7, 2));
    list.JudgeBox(state, "b");
    EXPECT_TRUE(list.IsDone());
    EXPECT_FALSE(list.IsReached());
    EXPECT_THAT(list.ReasonsOf(state, "a"), ElementsAre("a vpn 7: refused: bad (online: no, wanted: 2, in force: 1)"));
    // Another message opens it again.
    state.Take(Wanted("a", 7, "3"));
    list.JudgeBox(state, "a");
    EXPECT_FALSE(list.IsDone());
}

TEST(WaitList, ANamedBoxOfWhichNothingIsKnownIsBehind)
{
    const FleetState state = StateOf({Online("b")});
    WaitList list({"a", "b"}, std::nullopt);
    list.JudgeAll(state);
    EXPECT_FALSE(list.IsDone());
    EXPECT_THAT(list.Behind(), ElementsAre("a", "b"));
    EXPECT_THAT(list.ReasonsOf(state, "a"), ElementsAre("a: nothing is published"));
    EXPECT_THAT(list.ReasonsOf(state, "b"), ElementsAre("b: nothing is published"));
}

TEST(WaitList, OnlyVpnsWithTheRevisionOrALaterOneCount)
{
    FleetState state = StateOf({Wanted("a", 7, "5"), Wanted("a", 8, "2"), Applied("a", 7, 5)});
    WaitList five({}, 5);
    five.JudgeAll(state);
    EXPECT_TRUE(five.IsReached());

    WaitList six({}, 6);
    six.JudgeAll(state);
    EXPECT_FALSE(six.IsDone());
    EXPECT_THAT(six.ReasonsOf(state, "a"), ElementsAre("a: revision 6 is not published"));

    WaitList two({}, 2);
    two.JudgeAll(state);
    EXPECT_THAT(two.ReasonsOf(state, "a"), ElementsAre("a vpn 8: offline (online: no, wanted: 2, in force: -)"));
}

TEST(WaitList, OfAllBoxesNoneIsAlsoAll)
{
    WaitList list({}, std::nullopt);
    list.JudgeAll(FleetState());
    EXPECT_TRUE(list.IsDone());
    EXPECT_TRUE(list.IsReached());
    EXPECT_EQ(list.Total(), 0U);
}

TEST(WaitList, ABoxThatVanishesIsNotWaitedFor)
{
    FleetState state = StateOf({Wanted("a", 7, "2")});
    WaitList list({}, std::nullopt);
    list.JudgeAll(state);
    EXPECT_FALSE(list.IsDone());
    broker::Message cleared = Wanted("a", 7, "2");
    cleared.payload.clear();
    state.Take(cleared);
    list.JudgeBox(state, "a");
    EXPECT_TRUE(list.IsDone());
    EXPECT_THAT(list.Behind(), IsEmpty());
}

} // namespace
} // namespace kavel::fleet
