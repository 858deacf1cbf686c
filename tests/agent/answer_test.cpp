#include "socket/answer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>

#include "frame.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::StrEq;

struct ReplyRelease {
    void operator()(Kavel__Reply *reply) const { kavel__reply__free_unpacked(reply, nullptr); }
};
using ReplyPtr = std::unique_ptr<Kavel__Reply, ReplyRelease>;

// Packs the answer, checks its header, and unpacks it again.
ReplyPtr Sent(const Answer &answer)
{
    const std::vector<std::uint8_t> frame = PackAnswer(answer);
    EXPECT_GE(frame.size(), control::kFrameHeaderSize);
    EXPECT_EQ(control::DecodeFrameLength(frame.data()), frame.size() - control::kFrameHeaderSize);
    ReplyPtr reply(kavel__reply__unpack(nullptr, frame.size() - control::kFrameHeaderSize,
                                        frame.data() + control::kFrameHeaderSize));
    EXPECT_NE(reply, nullptr);
    return reply;
}

std::vector<std::string> ProblemsOf(const Kavel__VpnStatus &status)
{
    std::vector<std::string> texts;
    for (const Kavel__Finding *problem : std::span(status.problems, status.n_problems)) {
        texts.push_back(std::string(problem->code) + ": " + problem->text + "; do: " + problem->remedy);
    }
    return texts;
}

TEST(PackAnswer, ASuccessCarriesNothingElse)
{
    const ReplyPtr reply = Sent(Answer());
    EXPECT_EQ(reply->result, 0);
    EXPECT_EQ(reply->text, nullptr);
    EXPECT_EQ(reply->reason, nullptr);
    EXPECT_FALSE(reply->has_vpn);
    EXPECT_EQ(reply->summary, nullptr);
    EXPECT_EQ(reply->n_vpns, 0U);
    EXPECT_EQ(reply->n_stored, 0U);
    EXPECT_FALSE(reply->has_stored_text);
    EXPECT_EQ(reply->n_notes, 0U);
    EXPECT_EQ(reply->start, nullptr);
    EXPECT_EQ(reply->agent, nullptr);
    EXPECT_FALSE(reply->has_unknown_vpn);
}

TEST(PackAnswer, CarriesWhatTheAgentTellsAboutItself)
{
    Answer answer;
    answer.agent = {"1.2", 60, 5'000'000'000U, 2};
    const ReplyPtr reply = Sent(answer);
    ASSERT_NE(reply->agent, nullptr);
    EXPECT_STREQ(reply->agent->version, "1.2");
    EXPECT_EQ(reply->agent->uptime_seconds, 60U);
    EXPECT_EQ(reply->agent->memory_bytes, 5'000'000'000U);
    EXPECT_EQ(reply->agent->restarts, 2U);
}

TEST(PackAnswer, SaysThatTheVpnIsUnknown)
{
    Answer answer = Refusal(-ENOENT);
    answer.isUnknownVpn = true;
    EXPECT_TRUE(Sent(answer)->unknown_vpn);
}

TEST(PackAnswer, SaysThatTheRevisionIsNotNewer)
{
    EXPECT_FALSE(Sent(Answer())->has_not_newer);
    EXPECT_FALSE(Sent(Answer())->has_retry);
    EXPECT_EQ(Sent(Answer())->in_force_revision, nullptr);
    Answer answer = Refusal(-EALREADY);
    answer.isNotNewer = true;
    answer.inForceRevision = "11";
    const ReplyPtr reply = Sent(answer);
    EXPECT_TRUE(reply->not_newer);
    EXPECT_FALSE(reply->has_retry);
    EXPECT_STREQ(reply->in_force_revision, "11");
}

TEST(PackAnswer, SaysThatARequestMayBeSentAgain)
{
    const ReplyPtr reply = Sent(RefusalForNow(-EBUSY, "full"));
    EXPECT_EQ(reply->result, -EBUSY);
    EXPECT_STREQ(reply->text, "full");
    EXPECT_TRUE(reply->retry);
}

TEST(PackAnswer, AStatusCarriesTheLastNumberedMessage)
{
    Answer answer;
    answer.vpns.resize(2);
    answer.vpns[1].lastNumbered = SentHistoryEntry{7, {}, Platform::kPop, true};
    HistoryEntry &entry = answer.vpns[1].lastNumbered->entry;
    entry.time = 5;
    entry.peer = "sender";
    entry.revision = "12";
    entry.outcome = "applied";
    const ReplyPtr reply = Sent(answer);
    ASSERT_EQ(reply->n_vpns, 2U);
    EXPECT_EQ(reply->vpns[0]->last_numbered, nullptr);
    const Kavel__HistoryEntry *sent = reply->vpns[1]->last_numbered;
    ASSERT_NE(sent, nullptr);
    EXPECT_EQ(sent->vpn, 7U);
    EXPECT_EQ(sent->time, 5U);
    EXPECT_STREQ(sent->sender, "sender");
    EXPECT_STREQ(sent->revision, "12");
    EXPECT_STREQ(sent->outcome, "applied");
    EXPECT_TRUE(sent->pop);
    EXPECT_TRUE(sent->undone);
}

TEST(PackAnswer, ARefusalWithoutTextCarriesThatOfItsErrno)
{
    const ReplyPtr reply = Sent(Refusal(-ENOENT));
    EXPECT_EQ(reply->result, -ENOENT);
    EXPECT_THAT(reply->text, StrEq("No such file or directory"));
}

TEST(PackAnswer, ATextComesBeforeThatOfTheErrno)
{
    EXPECT_THAT(Sent(Refusal(-ENOENT, "because"))->text, StrEq("because"));
}

TEST(PackAnswer, ASuccessMayHaveAText)
{
    Answer answer;
    answer.result = 3;
    answer.text = "beware";
    const ReplyPtr reply = Sent(answer);
    EXPECT_EQ(reply->result, 3);
    EXPECT_THAT(reply->text, StrEq("beware"));
}

TEST(PackAnswer, CarriesReasonAndVpn)
{
    Answer answer = Refusal(-5, "text");
    answer.reason = "the module's line";
    answer.vpn = 0;
    const ReplyPtr reply = Sent(answer);
    EXPECT_THAT(reply->reason, StrEq("the module's line"));
    EXPECT_TRUE(reply->has_vpn) << "VPN 0 is a VPN too";
    EXPECT_EQ(reply->vpn, 0U);
    answer.vpn = 4'000'000'000U;
    EXPECT_EQ(Sent(answer)->vpn, 4'000'000'000U);
}

TEST(PackAnswer, CarriesTheSummary)
{
    Kavel__Summary summary = KAVEL__SUMMARY__INIT;
    summary.enable = 1;
    summary.operation = 9;
    summary.hosts = 2;
    summary.mx_hosts = 3;
    summary.servers = 4;
    summary.proxies = 65535;
    Answer answer;
    answer.summary = summary;
    const ReplyPtr reply = Sent(answer);
    ASSERT_NE(reply->summary, nullptr);
    EXPECT_TRUE(reply->summary->enable);
    EXPECT_FALSE(reply->summary->persistent);
    EXPECT_EQ(reply->summary->operation, 9U);
    EXPECT_EQ(reply->summary->hosts, 2U);
    EXPECT_EQ(reply->summary->mx_hosts, 3U);
    EXPECT_EQ(reply->summary->servers, 4U);
    EXPECT_EQ(reply->summary->proxies, 65535U);
}

TEST(PackAnswer, CarriesEveryStatusWithItsTexts)
{
    Answer answer;
    answer.vpns.resize(2);
    answer.vpns[0].netns = "-";
    answer.vpns[1].fields.vpn = 7;
    answer.vpns[1].fields.pid = -1;
    answer.vpns[1].fields.memory_bytes = 5'000'000'000U;
    answer.vpns[1].fields.has_rule = 1;
    answer.vpns[1].netns = "blue";
    answer.vpns[1].problems = {{Fault::kRoutesMissing, "first problem", ""}, {Fault::kLinkDown, "second", "lan0"}};
    const ReplyPtr reply = Sent(answer);
    ASSERT_EQ(reply->n_vpns, 2U);
    EXPECT_THAT(reply->vpns[0]->namespace_, StrEq("-"));
    EXPECT_THAT(ProblemsOf(*reply->vpns[0]), ElementsAre());
    EXPECT_FALSE(reply->vpns[0]->has_rule);
    const Kavel__VpnStatus &status = *reply->vpns[1];
    EXPECT_EQ(status.vpn, 7U);
    EXPECT_EQ(status.pid, -1);
    EXPECT_EQ(status.memory_bytes, 5'000'000'000U);
    EXPECT_TRUE(status.has_rule);
    EXPECT_THAT(status.namespace_, StrEq("blue"));
    EXPECT_THAT(
        ProblemsOf(status),
        ElementsAre("routes-missing: first problem; do: vqctl repair --vpn 7",
                    "link-down: second; do: ip netns exec blue ip link set lan0 up; without a carrier: check its "
                    "other end"));
}

TEST(PackAnswer, CarriesTheHistoryOfAVpn)
{
    Answer answer;
    answer.vpns.resize(1);
    VpnStatus &status = answer.vpns.front();
    status.fields.has_ends = status.fields.has_last_end_time = status.fields.has_next_start_time = 1;
    status.fields.ends = 2;
    status.fields.last_end_time = 5'000'000'000U;
    status.fields.next_start_time = 5'000'000'004U;
    status.fields.has_repairs = status.fields.has_last_repair_time = 1;
    status.fields.repairs = 3;
    status.fields.last_repair_time = 5'000'000'001U;
    status.lastEnd = "killed by signal 9";
    status.lastRepair = "the steering rule was gone";
    status.revision = "r 1";
    const ReplyPtr reply = Sent(answer);
    ASSERT_EQ(reply->n_vpns, 1U);
    const Kavel__VpnStatus &sent = *reply->vpns[0];
    EXPECT_TRUE(sent.has_ends && sent.ends == 2);
    EXPECT_TRUE(sent.has_last_end_time && sent.last_end_time == 5'000'000'000U);
    EXPECT_TRUE(sent.has_next_start_time && sent.next_start_time == 5'000'000'004U);
    EXPECT_TRUE(sent.has_repairs && sent.repairs == 3);
    EXPECT_TRUE(sent.has_last_repair_time && sent.last_repair_time == 5'000'000'001U);
    EXPECT_THAT(sent.last_end, StrEq("killed by signal 9"));
    EXPECT_THAT(sent.last_repair, StrEq("the steering rule was gone"));
    EXPECT_THAT(sent.revision, StrEq("r 1"));
}

TEST(PackAnswer, AVpnWithoutAHistoryCarriesNone)
{
    Answer answer;
    answer.vpns.resize(1);
    const ReplyPtr reply = Sent(answer);
    ASSERT_EQ(reply->n_vpns, 1U);
    const Kavel__VpnStatus &sent = *reply->vpns[0];
    EXPECT_FALSE(sent.has_ends || sent.has_last_end_time || sent.has_next_start_time || sent.has_repairs ||
                 sent.has_last_repair_time);
    EXPECT_EQ(sent.last_end, nullptr);
    EXPECT_EQ(sent.last_repair, nullptr);
    EXPECT_EQ(sent.revision, nullptr);
}

TEST(PackAnswer, AnEmptyRevisionIsSent)
{
    Answer answer;
    answer.vpns.resize(1);
    answer.vpns.front().revision = "";
    const ReplyPtr reply = Sent(answer);
    ASSERT_EQ(reply->n_vpns, 1U);
    EXPECT_THAT(reply->vpns[0]->revision, StrEq(""));
}

TEST(PackAnswer, CarriesTheProgressOfTheStart)
{
    Answer answer;
    answer.start = {.back = 120, .total = 300};
    const ReplyPtr reply = Sent(answer);
    ASSERT_NE(reply->start, nullptr);
    EXPECT_EQ(reply->start->back, 120U);
    EXPECT_EQ(reply->start->total, 300U);
    answer.start = StartProgress();
    const ReplyPtr atFirst = Sent(answer);
    ASSERT_NE(atFirst->start, nullptr) << "a start with nothing to restore is a start too";
    EXPECT_EQ(atFirst->start->total, 0U);
}

TEST(PackAnswer, CarriesEveryStoredRecord)
{
    Answer answer;
    answer.stored.resize(2);
    answer.stored[0] = {
        .vpn = 7, .problem = {}, .enable = true, .hosts = 1, .mxHosts = 2, .servers = 3, .forwards = 4, .bytes = 500};
    answer.stored[1].vpn = 8;
    answer.stored[1].bytes = 6;
    answer.stored[1].problem = "is broken";
    const ReplyPtr reply = Sent(answer);
    ASSERT_EQ(reply->n_stored, 2U);
    const Kavel__StoredRecord &good = *reply->stored[0];
    EXPECT_EQ(good.vpn, 7U);
    EXPECT_EQ(good.bytes, 500U);
    EXPECT_EQ(good.problem, nullptr);
    EXPECT_TRUE(good.has_enable && good.enable);
    EXPECT_TRUE(good.has_hosts && good.hosts == 1);
    EXPECT_TRUE(good.has_mx_hosts && good.mx_hosts == 2);
    EXPECT_TRUE(good.has_servers && good.servers == 3);
    EXPECT_TRUE(good.has_forwards && good.forwards == 4);
    const Kavel__StoredRecord &broken = *reply->stored[1];
    EXPECT_EQ(broken.vpn, 8U);
    EXPECT_EQ(broken.bytes, 6U);
    EXPECT_THAT(broken.problem, StrEq("is broken"));
    EXPECT_FALSE(broken.has_enable || broken.has_hosts || broken.has_mx_hosts || broken.has_servers ||
                 broken.has_forwards);
}

TEST(PackAnswer, CarriesTheStoredTextAsItIs)
{
    Answer answer;
    answer.storedText = std::string("a\0\xFF\n", 4);
    const ReplyPtr reply = Sent(answer);
    ASSERT_TRUE(reply->has_stored_text);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(reply->stored_text.data), reply->stored_text.len),
              *answer.storedText);
}

TEST(PackAnswer, AMessageCarriesItsBytes)
{
    Answer answer;
    answer.messages.push_back({7, {1, 0, 2}, Platform::kPop});
    const ReplyPtr reply = Sent(answer);
    ASSERT_EQ(reply->n_messages, 1U);
    const Kavel__PackedMessage &message = *reply->messages[0];
    EXPECT_EQ(message.vpn, 7U);
    EXPECT_THAT(std::vector(message.message.data, message.message.data + message.message.len), ElementsAre(1, 0, 2));
    EXPECT_NE(message.pop, 0);
}

TEST(PackAnswer, AnEntryOfTheHistoryCarriesItsFields)
{
    HistoryEntry entry;
    entry.time = 1'700'000'000;
    entry.peer = "pid 1, uid 0 (a)";
    entry.revision = "r1";
    entry.result = -22;
    entry.outcome = "refused: b";
    entry.messageBytes = 2;
    entry.message = {3, 4};
    HistoryEntry other;
    Answer answer;
    answer.history = {{7, entry, Platform::kCpe, true}, {8, other, Platform::kPop, false}};
    const ReplyPtr reply = Sent(answer);
    ASSERT_EQ(reply->n_history, 2U);
    const Kavel__HistoryEntry &first = *reply->history[0];
    EXPECT_EQ(first.vpn, 7U);
    EXPECT_EQ(first.time, 1'700'000'000U);
    EXPECT_THAT(first.sender, StrEq("pid 1, uid 0 (a)"));
    EXPECT_THAT(first.revision, StrEq("r1"));
    EXPECT_EQ(first.result, -22);
    EXPECT_THAT(first.outcome, StrEq("refused: b"));
    EXPECT_EQ(first.bytes, 2U);
    EXPECT_EQ(first.message.len, 2U);
    EXPECT_EQ(first.pop, 0);
    EXPECT_NE(first.undone, 0);
    const Kavel__HistoryEntry &second = *reply->history[1];
    EXPECT_EQ(second.revision, nullptr);
    EXPECT_EQ(second.has_message, 0);
    EXPECT_NE(second.pop, 0);
    EXPECT_EQ(second.undone, 0);
}

} // namespace
} // namespace kavel::agent
