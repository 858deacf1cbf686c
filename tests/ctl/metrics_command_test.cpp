// `vqctl metrics` as a command: its request, its output and its exit code.
#include <cerrno>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>

#include "commands_fixture.h"
#include "errors.h"
#include "files.h"
#include "metrics_commands.h"

namespace kavel::ctl {
namespace {

using testing::HasSubstr;

constexpr const char *kSample = "# TYPE kavel_agent_up gauge\nkavel_agent_up 1\n";
constexpr const char *kDown = "# HELP kavel_agent_up Whether the agent answers.\n"
                              "# TYPE kavel_agent_up gauge\n"
                              "kavel_agent_up 0\n";

Bytes MetricsReply(std::string metrics)
{
    return PackReply(0, [&](Kavel__Reply &reply) { reply.metrics = metrics.data(); });
}

class MetricsCommandTest : public CommandsTest {
  protected:
    int GoMetrics(const std::optional<std::string> &target = std::nullopt)
    {
        return Go([&] { return Metrics(session_, target); });
    }

    const std::string target_ = dir_.File("vqagent.prom");
};

TEST_F(MetricsCommandTest, PrintsWhatTheAgentTells)
{
    Answer({MetricsReply(kSample)});
    EXPECT_EQ(GoMetrics(), kDone);
    EXPECT_EQ(out_.str(), kSample);
    EXPECT_EQ(err_.str(), "");
    EXPECT_EQ(Request(0)->verb, KAVEL__REQUEST__VERB__METRICS);
    EXPECT_EQ(Request(0)->has_vpn, 0);
}

TEST_F(MetricsCommandTest, PrintsJson)
{
    Answer({MetricsReply("kavel_x{a=\"b\"} 1\n")});
    session_.json = true;
    EXPECT_EQ(GoMetrics(), kDone);
    EXPECT_EQ(out_.str(), "{\n  \"schema\": 1,\n  \"metrics\": \"kavel_x{a=\\\"b\\\"} 1\\n\"\n}\n");
}

TEST_F(MetricsCommandTest, WritesAFileInstead)
{
    Answer({MetricsReply(kSample)});
    EXPECT_EQ(GoMetrics(target_), kDone);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(ReadInput(target_), kSample);
}

TEST_F(MetricsCommandTest, WithoutAnAgentTheFileSaysSo)
{
    EXPECT_EQ(GoMetrics(target_), kNoAgent);
    EXPECT_EQ(ReadInput(target_), kDown);
    EXPECT_THAT(err_.str(), HasSubstr("/nonexistent/agent.sock"));
}

TEST_F(MetricsCommandTest, WithoutAnAgentNothingIsPrinted)
{
    EXPECT_EQ(GoMetrics(), kNoAgent);
    EXPECT_EQ(out_.str(), "");
}

TEST_F(MetricsCommandTest, AReplyWithoutMetricsIsInvalid)
{
    Answer({PackReply(0)});
    EXPECT_EQ(GoMetrics(target_), kNoAgent);
    EXPECT_THAT(err_.str(), HasSubstr("the agent's reply holds no metrics"));
    EXPECT_EQ(ReadInput(target_), kDown);
}

TEST_F(MetricsCommandTest, ARefusalLeavesTheFile)
{
    (void)dir_.Write("vqagent.prom", "old");
    Answer({PackReply(-EBUSY)});
    EXPECT_EQ(GoMetrics(target_), kRefused);
    EXPECT_THAT(err_.str(), HasSubstr("vqctl: metrics: refused (-16"));
    EXPECT_EQ(ReadInput(target_), "old");
}

TEST_F(MetricsCommandTest, AFileThatCannotBeWrittenIsNamed)
{
    Answer({MetricsReply(kSample)});
    EXPECT_EQ(GoMetrics(dir_.File("none/x.prom")), kBadInput);
    EXPECT_THAT(err_.str(), HasSubstr("none/x.prom: cannot be created: No such file or directory"));
    EXPECT_TRUE(std::filesystem::is_empty(dir_.File("")));
}

TEST_F(MetricsCommandTest, ADirectoryIsNotReplacedAndNothingIsLeft)
{
    Answer({MetricsReply(kSample)});
    std::filesystem::create_directory(target_);
    EXPECT_EQ(GoMetrics(target_), kBadInput);
    EXPECT_THAT(err_.str(), HasSubstr("cannot be replaced"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.File("")), {}), 1);
}

} // namespace
} // namespace kavel::ctl
