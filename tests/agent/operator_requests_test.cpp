// The requests to flush a cache and to change the level of the log.
#include <cerrno>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "requests_fixture.h"

namespace kavel::agent {
namespace {

using testing::HasSubstr;

class FlushTest : public RequestsTest {
  protected:
    const std::vector<Answer> &SendFlush(std::optional<std::uint32_t> vpn)
    {
        return Send(PackRequest(KAVEL__REQUEST__VERB__FLUSH, vpn));
    }
};

TEST_F(FlushTest, TheInstanceIsToldToReadAgain)
{
    const FakeInstance instance(box_, vpnId_);
    WritePid(vpnId_, instance);
    EXPECT_EQ(Apply(launch_).result, 0);
    const Answer answer = AnswerIn(SendFlush(vpnId_));
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.vpn, vpnId_);
    EXPECT_TRUE(RunUntil(loop_, [&] { return instance.Reloads() == 1; }));
    EXPECT_THAT(log_.Take(), HasSubstr("NOTICE vpn " + std::to_string(vpnId_) + ": cache flushed, by " + kSender));
}

TEST_F(FlushTest, AProcessThatOnlyThePidFileNamesIsLeftAlone)
{
    const FakeInstance instance(box_, vpnId_);
    WritePid(vpnId_, instance);
    EXPECT_EQ(Apply(launch_).result, 0);
    const FakeInstance other(box_, other_);
    WritePid(vpnId_, other);
    EXPECT_EQ(AnswerIn(SendFlush(vpnId_)).result, 0);
    EXPECT_TRUE(RunUntil(loop_, [&] { return instance.Reloads() == 1; }));
    EXPECT_EQ(other.Reloads(), 0U);
}

TEST_F(FlushTest, WithoutAnInstanceItIsRefused)
{
    const Answer answer = AnswerIn(SendFlush(vpnId_));
    EXPECT_EQ(answer.result, -ESRCH);
    EXPECT_EQ(answer.text, "no instance runs");
}

TEST_F(FlushTest, AVpnMustBeNamedAndConfigured)
{
    EXPECT_EQ(AnswerIn(SendFlush(std::nullopt)).result, -EINVAL);
    EXPECT_EQ(AnswerIn(SendFlush(unknown_)).result, -ENOENT);
}

TEST_F(FlushTest, ItWaitsForALaunch)
{
    const FakeInstance instance(box_, vpnId_);
    const auto &launched = SendApply(launch_);
    const auto &flushed = SendFlush(vpnId_);
    DispatchReady(loop_);
    EXPECT_TRUE(flushed.empty());
    EXPECT_TRUE(instance.IsAlive());
    WritePid(vpnId_, instance);
    EXPECT_TRUE(RunUntilAnswered(flushed));
    EXPECT_EQ(AnswerIn(launched).result, 0);
    EXPECT_EQ(AnswerIn(flushed).result, 0);
}

class LogLevelTest : public RequestsTest {
  protected:
    LogLevelTest() { ConfigureLog(LogLevel::kNotice); }
    ~LogLevelTest() override { ConfigureLog(LogLevel::kNotice); }

    Answer SendLevel(std::optional<std::string> level, std::optional<std::uint32_t> seconds = std::nullopt)
    {
        Kavel__Request request = KAVEL__REQUEST__INIT;
        request.verb = KAVEL__REQUEST__VERB__LOG_LEVEL;
        request.level = level ? level->data() : nullptr;
        request.has_seconds = seconds ? 1 : 0;
        request.seconds = seconds.value_or(0);
        Bytes packed(kavel__request__get_packed_size(&request));
        kavel__request__pack(&request, packed.data());
        return AnswerIn(Send(packed));
    }
};

TEST_F(LogLevelTest, ItIsChangedForATime)
{
    const Answer answer = SendLevel("debug", 600);
    EXPECT_EQ(answer.result, 0);
    ASSERT_TRUE(answer.log);
    EXPECT_EQ(answer.log->level, LogLevel::kDebug);
    EXPECT_EQ(answer.log->configured, LogLevel::kNotice);
    EXPECT_TRUE(answer.log->until);
    EXPECT_TRUE(IsLogged(LogLevel::kDebug));
    EXPECT_THAT(log_.Take(), HasSubstr(std::string("log level debug for 600 s, by ") + kSender));
}

TEST_F(LogLevelTest, ItIsTold)
{
    EXPECT_EQ(SendLevel("error").result, 0);
    const Answer answer = SendLevel(std::nullopt);
    ASSERT_TRUE(answer.log);
    EXPECT_EQ(answer.log->level, LogLevel::kError);
    EXPECT_FALSE(answer.log->until);
}

TEST_F(LogLevelTest, TheConfigurationEndsALevelWithoutATime)
{
    EXPECT_EQ(SendLevel("debug").result, 0);
    host_.config.log = LogLevel::kWarning;
    requests_.ConfigurationRead();
    EXPECT_EQ(SendLevel(std::nullopt).log->level, LogLevel::kWarning);
}

TEST_F(LogLevelTest, AnUnknownLevelAndABadTimeAreRefused)
{
    EXPECT_EQ(SendLevel("loud").result, -EINVAL);
    EXPECT_EQ(SendLevel("debug", 0).result, -EINVAL);
    EXPECT_EQ(SendLevel("debug", 86401).result, -EINVAL);
    EXPECT_EQ(SendLevel(std::nullopt).log->level, LogLevel::kNotice);
}

// ---- Clients that may only read ----

class ReaderRequestsTest : public RequestsTest {
  protected:
    const std::vector<Answer> &SendAsReader(std::int32_t verb)
    {
        std::vector<Answer> &answers = answers_.emplace_back();
        requests_.Handle({FrameOf(PackRequest(verb, vpnId_, launch_)), kSender, Access::kRead},
                         [&answers](const Answer &answer) { answers.push_back(answer); });
        return answers;
    }
};

TEST_F(ReaderRequestsTest, WhatChangesNothingIsAnswered)
{
    const auto &status = SendAsReader(KAVEL__REQUEST__VERB__STATUS);
    EXPECT_TRUE(RunUntilAnswered(status));
    EXPECT_EQ(AnswerIn(status).result, 0);
    for (const std::int32_t verb : {KAVEL__REQUEST__VERB__WHY, KAVEL__REQUEST__VERB__METRICS}) {
        const auto &answers = SendAsReader(verb);
        EXPECT_TRUE(RunUntilAnswered(answers));
        EXPECT_NE(AnswerIn(answers).result, -EACCES) << verb;
    }
}

TEST_F(ReaderRequestsTest, EveryOtherRequestIsRefused)
{
    const ProtobufCEnumDescriptor &verbs = kavel__request__verb__descriptor;
    std::size_t refused = 0;
    for (const ProtobufCEnumValue &verb : std::span(verbs.values, verbs.n_values)) {
        if (verb.value == KAVEL__REQUEST__VERB__STATUS || verb.value == KAVEL__REQUEST__VERB__WHY ||
            verb.value == KAVEL__REQUEST__VERB__METRICS) {
            continue;
        }
        const Answer answer = AnswerIn(SendAsReader(verb.value));
        EXPECT_EQ(answer.result, -EACCES) << verb.name;
        EXPECT_EQ(answer.text, "only root may do this; this user may ask for status, why and metrics");
        ++refused;
    }
    EXPECT_EQ(refused, verbs.n_values - 3);
    EXPECT_EQ(AnswerIn(SendAsReader(99)).result, -EACCES);
    EXPECT_TRUE(module_.calls.empty());
}

} // namespace
} // namespace kavel::agent
