#include "presence.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "input_error.h"

namespace kavel::broker {
namespace {

std::string RefusedPresence(std::string_view text)
{
    try {
        (void)ParsePresence(text);
    } catch (const InputError &error) {
        return error.what();
    }
    return "accepted";
}

const Presence kConnectedBox{.online = true, .agent = true, .version = "0.1.0", .time = 1780000000};

TEST(PresenceText, HasAMemberForEachValue)
{
    EXPECT_EQ(PresenceText(kConnectedBox),
              R"({"schema":1,"online":true,"agent":true,"version":"0.1.0","time":1780000000})");
    EXPECT_EQ(PresenceText({}), R"({"schema":1,"online":false})");
}

TEST(PresenceText, FitsItsLimit)
{
    const std::string text =
        PresenceText({.online = true, .agent = false, .version = std::string(2000, '"'), .time = INT64_MAX});
    EXPECT_LE(text.size(), kPresenceMax);
    EXPECT_EQ(ParsePresence(text).version, std::string(64, '"'));
}

TEST(ParsePresence, ReadsWhatPresenceTextGives)
{
    EXPECT_EQ(ParsePresence(PresenceText(kConnectedBox)), kConnectedBox);
    EXPECT_EQ(ParsePresence(PresenceText({})), Presence{});
}

TEST(ParsePresence, PassesOverMembersThatItDoesNotKnow)
{
    EXPECT_EQ(ParsePresence(R"({"schema": 1, "online": false, "newer": []})"), Presence{});
}

TEST(ParsePresence, NamesTheMemberThatIsWrong)
{
    EXPECT_EQ(RefusedPresence("{}"), "schema: is missing");
    EXPECT_EQ(RefusedPresence(R"({"schema": 1})"), "online: is missing");
    EXPECT_EQ(RefusedPresence(R"({"schema": "1", "online": true})"), R"(schema: expected the number 1, not "1")");
    EXPECT_EQ(RefusedPresence(R"({"schema": 1, "online": 1})"), "online: expected true or false, not 1");
    EXPECT_EQ(RefusedPresence(R"({"schema": 1, "online": true, "agent": null})"),
              "agent: expected true or false, not null");
    EXPECT_EQ(RefusedPresence(R"({"schema": 1, "online": true, "version": 1})"), "version: expected a string, not 1");
    EXPECT_EQ(RefusedPresence(R"({"schema": 1, "online": true, "time": 1.5})"),
              "time: expected a number from 0 to 9223372036854775807, not 1.5");
    EXPECT_EQ(RefusedPresence("7"), "expected an object, not 7");
}

TEST(ParsePresence, RefusesATextOverTheLimit)
{
    EXPECT_EQ(RefusedPresence(std::string(kPresenceMax + 1, ' ')), "is 1025 bytes long, over the limit of 1024");
}

} // namespace
} // namespace kavel::broker
