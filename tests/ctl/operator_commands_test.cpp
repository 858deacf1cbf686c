// `vqctl flush` and `vqctl log level` as commands: their requests, their output and their exit codes.
#include "operator_commands.h"

#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <utility>

#include "commands_fixture.h"
#include "errors.h"
#include "fake_agent.h"

namespace kavel::ctl {
namespace {

class OperatorCommandsTest : public CommandsTest {
  protected:
    int GoFlush(std::uint32_t vpn)
    {
        return Go([&] { return Flush(session_, vpn); });
    }
    int GoLogLevel(const std::optional<std::string> &level, const std::optional<std::string> &time = std::nullopt)
    {
        return Go([&] { return LogLevel(session_, level, time); });
    }
};

Bytes LogReply(std::string level, std::optional<std::uint64_t> until = std::nullopt)
{
    std::string configured = "notice";
    Kavel__LogState log = KAVEL__LOG_STATE__INIT;
    log.level = level.data();
    log.configured = configured.data();
    log.has_until = until ? 1 : 0;
    log.until = until.value_or(0);
    return PackReply(0, [&](Kavel__Reply &reply) { reply.log = &log; });
}

TEST_F(OperatorCommandsTest, FlushNamesTheVpn)
{
    Answer({ReplyFor(7, 0)});
    EXPECT_EQ(GoFlush(7), kDone);
    EXPECT_EQ(out_.str(), "vpn 7: flushed\n");
    EXPECT_EQ(Request(0)->verb, KAVEL__REQUEST__VERB__FLUSH);
    EXPECT_EQ(Request(0)->vpn, 7U);
}

TEST_F(OperatorCommandsTest, FlushAsJson)
{
    session_.json = true;
    Answer({ReplyFor(7, 0)});
    EXPECT_EQ(GoFlush(7), kDone);
    EXPECT_EQ(out_.str(), "{\n  \"schema\": 1,\n  \"vpn\": 7,\n  \"flushed\": true\n}\n");
}

TEST_F(OperatorCommandsTest, ARefusedFlushIsReported)
{
    Answer({ReplyFor(7, -3, "", "no instance runs")});
    EXPECT_EQ(GoFlush(7), kRefused);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(err_.str(), "vqctl: vpn 7: refused (-3 No such process): no instance runs\n");
}

TEST_F(OperatorCommandsTest, LogLevelForATime)
{
    Answer({LogReply("debug", 1'777'638'600)});
    EXPECT_EQ(GoLogLevel("debug", "10m"), kDone);
    EXPECT_EQ(out_.str(), "log level: debug until 2026-05-01 12:30:00 UTC, then notice\n");
    EXPECT_EQ(Request(0)->verb, KAVEL__REQUEST__VERB__LOG_LEVEL);
    EXPECT_STREQ(Request(0)->level, "debug");
    EXPECT_EQ(Request(0)->seconds, 600U);
}

TEST_F(OperatorCommandsTest, LogLevelWithoutATime)
{
    Answer({LogReply("error")});
    EXPECT_EQ(GoLogLevel("error"), kDone);
    EXPECT_EQ(out_.str(), "log level: error until the agent reads its configuration again, then notice\n");
    EXPECT_FALSE(Request(0)->has_seconds);
}

TEST_F(OperatorCommandsTest, TheLevelIsAskedFor)
{
    Answer({LogReply("notice")});
    EXPECT_EQ(GoLogLevel(std::nullopt), kDone);
    EXPECT_EQ(out_.str(), "log level: notice\n");
    EXPECT_EQ(Request(0)->level, nullptr);
}

TEST_F(OperatorCommandsTest, LogLevelAsJson)
{
    session_.json = true;
    Answer({LogReply("debug", 1'777'638'600)});
    EXPECT_EQ(GoLogLevel(std::nullopt), kDone);
    EXPECT_EQ(
        out_.str(),
        "{\n  \"schema\": 1,\n  \"level\": \"debug\",\n  \"configured\": \"notice\",\n  \"until\": 1777638600\n}\n");
}

TEST_F(OperatorCommandsTest, TimesAreInSecondsMinutesOrHours)
{
    for (const auto &[text, seconds] : {std::pair{"1", 1U}, std::pair{"90s", 90U}, std::pair{"10m", 600U},
                                        std::pair{"24h", 86400U}, std::pair{"86400", 86400U}}) {
        Answer({LogReply("debug")});
        EXPECT_EQ(GoLogLevel("debug", text), kDone) << text;
        EXPECT_EQ(Request(0)->seconds, seconds) << text;
    }
}

TEST_F(OperatorCommandsTest, ABadTimeIsRefusedBeforeAnythingIsSent)
{
    for (const char *text : {"", "0", "0m", "m", "-1", "1d", "10 m", "86401", "25h", "1441m", "4294967296"}) {
        err_.str("");
        EXPECT_EQ(GoLogLevel("debug", text), kBadInput) << text;
        EXPECT_EQ(err_.str(), "vqctl: --for: expected a time such as 90s, 10m or 2h, at most 24h, not \"" +
                                  std::string(text) + "\"\n");
    }
    err_.str("");
    EXPECT_EQ(GoLogLevel(std::nullopt, "10m"), kBadInput);
    EXPECT_EQ(err_.str(), "vqctl: --for: no level is named\n");
}

TEST_F(OperatorCommandsTest, AnUnknownLevelIsRefusedBeforeAnythingIsSent)
{
    EXPECT_EQ(GoLogLevel("loud"), kBadInput);
    EXPECT_EQ(err_.str(), "vqctl: log level: expected error, warning, notice or debug, not \"loud\"\n");
}

TEST_F(OperatorCommandsTest, AReplyWithoutALevelIsInvalid)
{
    Answer({PackReply(0)});
    EXPECT_EQ(GoLogLevel(std::nullopt), kNoAgent);
}

} // namespace
} // namespace kavel::ctl
