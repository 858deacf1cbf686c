#include "socket/message_metrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

Answer AnswerOf(std::int32_t result, std::optional<bool> enabled, std::optional<bool> running)
{
    Answer answer;
    answer.result = result;
    answer.enabled = enabled;
    answer.running = running;
    return answer;
}

TEST(MessageMetrics, AnswersAreCountedByResultAndPassedOn)
{
    MessageMetrics metrics;
    std::vector<std::int32_t> passed;
    const Respond respond = metrics.Counting([&](const Answer &answer) { passed.push_back(answer.result); });
    respond(AnswerOf(0, true, true));
    respond(AnswerOf(1, false, false));
    respond(AnswerOf(0, std::nullopt, std::nullopt));
    respond(AnswerOf(0, true, false));
    respond(AnswerOf(0, true, std::nullopt));
    respond(AnswerOf(0, false, true));
    respond(AnswerOf(-22, std::nullopt, std::nullopt));
    respond(AnswerOf(-5, true, false));
    Answer notNewer = AnswerOf(-114, true, false);
    notNewer.isNotNewer = true;
    respond(notNewer);
    EXPECT_THAT(passed, ElementsAre(0, 1, 0, 0, 0, 0, -22, -5, -114));
    EXPECT_THAT(metrics.ByResult(), ElementsAre(Pair("applied", 3U), Pair("not_newer", 1U), Pair("not_running", 2U),
                                                Pair("refused", 2U), Pair("still_running", 1U)));
}

TEST(MessageMetrics, EachResultIsThereFromTheBeginning)
{
    EXPECT_THAT(MessageMetrics().ByResult(),
                ElementsAre(Pair("applied", 0U), Pair("not_newer", 0U), Pair("not_running", 0U), Pair("refused", 0U),
                            Pair("still_running", 0U)));
}

TEST(MessageMetrics, TheTimeUntilTheAnswerIsObserved)
{
    MessageMetrics metrics;
    const Respond respond = metrics.Counting([](const Answer & /*answer*/) {});
    EXPECT_EQ(metrics.Durations().CountUpTo(metrics.Durations().Bounds().size()), 0U);
    respond(AnswerOf(0, true, true));
    const Histogram &durations = metrics.Durations();
    EXPECT_EQ(durations.CountUpTo(durations.Bounds().size()), 1U);
    EXPECT_GT(durations.Sum(), 0.0);
    EXPECT_EQ(durations.Bounds().front(), 0.005);
    EXPECT_EQ(durations.Bounds().back(), 60.0);
}

TEST(MessageMetrics, TheLastRevisionIsWanted)
{
    MessageMetrics metrics;
    metrics.AskedFor(7, "one");
    metrics.AskedFor(8, "other");
    metrics.AskedFor(7, "two");
    EXPECT_THAT(metrics.WantedRevisions(), ElementsAre(Pair(7U, "two"), Pair(8U, "other")));
    metrics.AskedFor(7, std::nullopt);
    metrics.AskedFor(8, std::nullopt);
    EXPECT_THAT(metrics.WantedRevisions(), IsEmpty());
}

} // namespace
} // namespace kavel::agent
