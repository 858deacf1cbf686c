#include "desired.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "frame.h"

namespace kavel::link {
namespace {

using testing::HasSubstr;
using Properties = std::map<std::string, std::string>;

const Properties kGood{{"revision", "17"}, {"platform", "cpe"}};

broker::Message MessageFor(const std::string &topic, const Properties &properties = kGood, std::size_t size = 3)
{
    return {topic, std::vector<std::uint8_t>(size, 'x'), true, properties};
}

Desired Accepted(broker::Message message)
{
    auto read = ReadDesired("branch-1", std::move(message));
    EXPECT_TRUE(std::holds_alternative<Desired>(read)) << std::get<Unusable>(read).problem;
    return std::get<Desired>(std::move(read));
}

Unusable Refused(broker::Message message)
{
    auto read = ReadDesired("branch-1", std::move(message));
    EXPECT_TRUE(std::holds_alternative<Unusable>(read));
    return std::get<Unusable>(std::move(read));
}

Unusable RefusedWith(const Properties &properties)
{
    const Unusable refused = Refused(MessageFor("kavel/branch-1/desired/7", properties));
    EXPECT_EQ(refused.vpn, 7U);
    return refused;
}

TEST(DesiredTest, AMessageOfThisBoxIsAccepted)
{
    const Desired message = Accepted(MessageFor("kavel/branch-1/desired/4294967295"));
    EXPECT_EQ(message.vpn, 4294967295U);
    EXPECT_EQ(message.revision, 17U);
    EXPECT_EQ(message.isForPop, false);
    EXPECT_EQ(message.payload, std::vector<std::uint8_t>(3, 'x'));
}

TEST(DesiredTest, ThePlatformMayBeLeftOut)
{
    EXPECT_EQ(Accepted(MessageFor("kavel/branch-1/desired/0", {{"revision", "1"}})).isForPop, std::nullopt);
    EXPECT_EQ(Accepted(MessageFor("kavel/branch-1/desired/0", {{"revision", "1"}, {"platform", "pop"}})).isForPop,
              true);
}

TEST(DesiredTest, TheHighestRevisionIsAccepted)
{
    EXPECT_EQ(Accepted(MessageFor("kavel/branch-1/desired/7", {{"revision", "9223372036854775807"}})).revision,
              broker::kRevisionMax);
}

TEST(DesiredTest, AnotherTopicIsNotForThisBox)
{
    for (const char *topic : {"kavel/branch-2/desired/7", "kavel/branch-1/reported/7", "kavel/branch-1/online",
                              "kavel/branch-1/desired/07", "kavel/branch-1/desired/-1", "kavel/branch-1/desired/7/x",
                              "kavel/branch-1/desired/4294967296", "other", "", "\xff\x1b[2J"}) {
        const Unusable refused = Refused(MessageFor(topic));
        EXPECT_EQ(refused.vpn, std::nullopt) << topic;
        EXPECT_THAT(refused.problem, HasSubstr("is not for this box"));
        EXPECT_EQ(refused.problem.find('\x1b'), std::string::npos);
    }
}

TEST(DesiredTest, AnEmptyMessageChangesNothing)
{
    const Unusable refused = Refused(MessageFor("kavel/branch-1/desired/7", kGood, 0));
    EXPECT_EQ(refused.vpn, 7U);
    EXPECT_EQ(refused.problem, "the message is empty; nothing changes");
}

TEST(DesiredTest, AMissingRevisionIsNamed)
{
    EXPECT_EQ(RefusedWith({}).problem, "revision: it is missing; a number from 1 to 9223372036854775807 is needed");
}

TEST(DesiredTest, AMalformedRevisionIsNamed)
{
    for (const char *revision : {"0", "-1", "+1", "01", "1 ", "1.5", "x", "", "9223372036854775808", "\x80"}) {
        EXPECT_THAT(RefusedWith({{"revision", revision}}).problem, HasSubstr("revision: it is \"")) << revision;
    }
    EXPECT_LT(RefusedWith({{"revision", std::string(65000, 'r')}}).problem.size(), 200U);
}

TEST(DesiredTest, AnotherPlatformIsNamed)
{
    for (const char *platform : {"", "CPE", "router", "cpe "}) {
        EXPECT_THAT(RefusedWith({{"revision", "18"}, {"platform", platform}}).problem,
                    HasSubstr("revision 18: platform: it is \""))
            << platform;
    }
}

TEST(DesiredTest, APayloadOverTheLimitIsNamed)
{
    const Unusable refused = Refused(MessageFor("kavel/branch-1/desired/7", kGood, control::kMessageMax + 1));
    EXPECT_EQ(refused.vpn, 7U);
    EXPECT_EQ(refused.problem, "revision 17: it has 16773121 bytes, over the limit of 16773120");
    EXPECT_EQ(Accepted(MessageFor("kavel/branch-1/desired/7", kGood, control::kMessageMax)).payload.size(),
              control::kMessageMax);
}

} // namespace
} // namespace kavel::link
