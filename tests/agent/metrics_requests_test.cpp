// The request for metrics, on a box where no instance can be asked.
#include <cerrno>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "requests_fixture.h"

namespace kavel::agent {
namespace {

using testing::HasSubstr;

class MetricsRequestTest : public RequestsTest {
  protected:
    const std::vector<Answer> &SendMetrics() { return Send(PackRequest(KAVEL__REQUEST__VERB__METRICS)); }

    std::string Metrics()
    {
        const std::vector<Answer> &answers = SendMetrics();
        EXPECT_TRUE(RunUntilAnswered(answers));
        return AnswerIn(answers).metrics.value_or("");
    }
};

TEST_F(MetricsRequestTest, IsAnsweredByTheLoop)
{
    const std::vector<Answer> &answers = SendMetrics();
    EXPECT_TRUE(answers.empty());
    EXPECT_TRUE(RunUntilAnswered(answers));
    EXPECT_EQ(AnswerIn(answers).result, 0);
    EXPECT_THAT(AnswerIn(answers).metrics.value_or(""),
                HasSubstr("\nkavel_vpn_up{vpn=\"" + std::to_string(vpnId_) + "\"} 0\n"));
}

TEST_F(MetricsRequestTest, TellsWhatBecameOfTheMessages)
{
    (void)Apply(switchOff_, "one");
    (void)Apply(WithBadInterfaceName(other_), "two");
    (void)Apply(PackCpe(unknown_, false, VQ_DNSMASQ_OP_RELOAD), "three");
    (void)Apply({0xFF});
    const std::string metrics = Metrics();
    EXPECT_THAT(metrics, HasSubstr("\nkavel_messages_total{result=\"applied\"} 1\n"));
    EXPECT_THAT(metrics, HasSubstr("\nkavel_messages_total{result=\"refused\"} 3\n"));
    EXPECT_THAT(metrics, HasSubstr("\nkavel_message_duration_seconds_count 4\n"));
    EXPECT_THAT(metrics,
                HasSubstr("\nkavel_vpn_revision_info{vpn=\"" + std::to_string(vpnId_) + "\",revision=\"one\"} 1\n"));
    EXPECT_THAT(metrics, HasSubstr("\nkavel_vpn_revision_wanted_info{vpn=\"" + std::to_string(other_) +
                                   "\",revision=\"two\"} 1\n"));
    EXPECT_THAT(metrics, testing::Not(HasSubstr("three")));
}

TEST_F(MetricsRequestTest, AMessageThatWaitsInAQueueIsCountedOnce)
{
    const std::vector<Answer> &first = SendApply(launch_, "one");
    const std::vector<Answer> &second = SendApply(switchOff_, "two");
    EXPECT_TRUE(second.empty());
    EXPECT_TRUE(RunUntilAnswered(first));
    EXPECT_TRUE(RunUntilAnswered(second));
    EXPECT_THAT(Metrics(), HasSubstr("\nkavel_message_duration_seconds_count 2\n"));
}

TEST_F(MetricsRequestTest, AtMost64AreHandledAtATime)
{
    for (int count = 0; count < 64; ++count) {
        EXPECT_TRUE(SendMetrics().empty());
    }
    const Answer answer = AnswerIn(SendMetrics());
    EXPECT_EQ(answer.result, -EBUSY);
    EXPECT_EQ(answer.text, "the agent handles 64 requests for metrics already");
    EXPECT_TRUE(RunUntilAnswered(answers_.front()));
}

TEST_F(MetricsRequestTest, AStopAnswersThoseThatWait)
{
    const std::vector<Answer> &answers = SendMetrics();
    requests_.Stop();
    EXPECT_EQ(AnswerIn(answers).result, -ECANCELED);
    DispatchReady(loop_);
    EXPECT_EQ(answers.size(), 1U);
}

} // namespace
} // namespace kavel::agent
