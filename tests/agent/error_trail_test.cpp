#include "services/error_trail.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string>

namespace kavel::agent {
namespace {

using testing::Eq;
using testing::Optional;

constexpr std::size_t kLimit = 64;

// The module reports the innermost failure first.
std::optional<std::string> CauseOf(std::int32_t result, std::initializer_list<const char *> messages)
{
    ErrorTrail trail;
    for (const char *message : messages) {
        trail.Add(message);
    }
    return trail.Cause(result);
}

TEST(ErrorTrail, WithoutMessagesThereIsNoCause)
{
    EXPECT_EQ(CauseOf(-EINVAL, {}), std::nullopt);
}

TEST(ErrorTrail, TheOnlyMessageIsTheCauseWhateverItsNumber)
{
    EXPECT_THAT(CauseOf(-EINVAL, {"no number"}), Optional(Eq("no number")));
    EXPECT_THAT(CauseOf(-EINVAL, {"failed(5:Input/output error)"}), Optional(Eq("failed(5:Input/output error)")));
}

TEST(ErrorTrail, TheInnermostOfTheMessagesWithTheSameNumberIsTheCause)
{
    EXPECT_THAT(CauseOf(-EINVAL, {"inner(22:Invalid)", "middle(22:Invalid)", "outer(22:Invalid)"}),
                Optional(Eq("inner(22:Invalid)")));
}

TEST(ErrorTrail, AMessageWithAnotherNumberEndsTheSearch)
{
    EXPECT_THAT(CauseOf(-EINVAL, {"inner(22:Invalid)", "other(2:No entry)", "middle(22:Invalid)", "outer(22:Invalid)"}),
                Optional(Eq("middle(22:Invalid)")));
}

TEST(ErrorTrail, AMessageWithoutNumberBeforeTheInnermostOneIsTheCause)
{
    EXPECT_THAT(CauseOf(-EINVAL, {"earlier(22:Invalid)", "domain is bad", "outer(22:Invalid)"}),
                Optional(Eq("domain is bad")));
}

TEST(ErrorTrail, AMessageThatEndsInSuccessIsNoCause)
{
    EXPECT_THAT(CauseOf(-EINVAL, {"vpn 7 started success", "outer(22:Invalid)"}), Optional(Eq("outer(22:Invalid)")));
    EXPECT_THAT(CauseOf(-EINVAL, {"vpn 7 started success\n", "outer(22:Invalid)"}), Optional(Eq("outer(22:Invalid)")));
}

TEST(ErrorTrail, TheWordSuccessWithinAMessageDoesNotMatter)
{
    EXPECT_THAT(CauseOf(-EINVAL, {"no success here", "outer(22:Invalid)"}), Optional(Eq("no success here")));
}

TEST(ErrorTrail, WhenTheNewestMessageHasAnotherNumberItIsTheCause)
{
    EXPECT_THAT(CauseOf(-EINVAL, {"inner(22:Invalid)", "outer(5:I/O)"}), Optional(Eq("outer(5:I/O)")));
}

TEST(ErrorTrail, ANumberIsComparedAsAWhole)
{
    EXPECT_THAT(CauseOf(-2, {"inner(22:Invalid)", "outer(2:No entry)"}), Optional(Eq("outer(2:No entry)")));
    EXPECT_THAT(CauseOf(-22, {"inner(2:No entry)", "outer(22:Invalid)"}), Optional(Eq("outer(22:Invalid)")));
}

// "(22)", "(22", "(:", "(vpn 22:" are no numbers: the message counts as one without.
TEST(ErrorTrail, ANumberStandsBetweenAParenthesisAndAColon)
{
    for (const char *inner : {"inner(22)", "inner(22", "inner(:", "inner(vpn 22:x)", "inner 22:", "inner("}) {
        EXPECT_THAT(CauseOf(-5, {inner, "outer(5:I/O)"}), Optional(Eq(inner)));
        EXPECT_THAT(CauseOf(-22, {"deeper(22:Invalid)", inner}), Optional(Eq(inner)));
    }
}

TEST(ErrorTrail, EachNumberOfAMessageCounts)
{
    EXPECT_THAT(CauseOf(-22, {"inner(22:Invalid)", "outer(vpn)(7:seven), (22:Invalid)"}),
                Optional(Eq("inner(22:Invalid)")));
    EXPECT_THAT(CauseOf(-22, {"inner(7:seven)(22:Invalid)", "outer(22:Invalid)"}),
                Optional(Eq("inner(7:seven)(22:Invalid)")));
}

TEST(ErrorTrail, TheLeastResultHasANumberToo)
{
    EXPECT_THAT(CauseOf(std::numeric_limits<std::int32_t>::min(), {"inner(2147483648:x)", "outer(2147483648:x)"}),
                Optional(Eq("inner(2147483648:x)")));
}

TEST(ErrorTrail, TrailingLineFeedsAreDropped)
{
    EXPECT_THAT(CauseOf(-5, {"two\nlines\n\n"}), Optional(Eq("two\nlines")));
    EXPECT_THAT(CauseOf(-5, {"\n"}), Optional(Eq("")));
}

TEST(ErrorTrail, KeepsTheNewest64Messages)
{
    ErrorTrail trail;
    trail.Add("first(22:Invalid)");
    for (std::size_t i = 1; i < kLimit; ++i) {
        trail.Add(std::to_string(i) + "(22:Invalid)");
    }
    EXPECT_THAT(trail.Cause(-EINVAL), Optional(Eq("first(22:Invalid)")));
    trail.Add("last(22:Invalid)");
    EXPECT_THAT(trail.Cause(-EINVAL), Optional(Eq("1(22:Invalid)")));
}

TEST(ErrorTrail, TheFirstMessageIsTheOldestAboutAFailure)
{
    ErrorTrail trail;
    EXPECT_EQ(trail.First(), std::nullopt);
    trail.Add("vpn 7 started success\n");
    EXPECT_EQ(trail.First(), std::nullopt);
    trail.Add("first(22:Invalid)\n");
    trail.Add("second(5:I/O)");
    EXPECT_THAT(trail.First(), Optional(Eq("first(22:Invalid)")));
    trail.Clear();
    EXPECT_EQ(trail.First(), std::nullopt);
}

TEST(ErrorTrail, ClearForgetsEveryMessage)
{
    ErrorTrail trail;
    trail.Add("inner(22:Invalid)");
    trail.Clear();
    EXPECT_EQ(trail.Cause(-EINVAL), std::nullopt);
    trail.Add("outer(22:Invalid)");
    EXPECT_THAT(trail.Cause(-EINVAL), Optional(Eq("outer(22:Invalid)")));
}

} // namespace
} // namespace kavel::agent
