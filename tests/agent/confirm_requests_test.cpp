// Messages that are undone unless they are confirmed. The messages switch the service off: the module's part is
// nothing.
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "instances/in_force.h"
#include "requests_fixture.h"
#include "services/message_history.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class ConfirmRequestsTest : public RequestsTest {
  protected:
    ConfirmRequestsTest() : RequestsTest([](Config &config) { config.persistence = true; })
    {
        // Keeps the row of the message, or none: with the number of its hosts as its text.
        module_.onConfigure = [this](const VQ_CTRL_DNSMASQ_CONFIG_PB &message) {
            const DnsmasqConf &conf = *message.DnsmasqPbCPE;
            VQ_SqliteDnsMasqConfOp(static_cast<BOOL>(conf.vpnid), nullptr, VQ_SQL_CONF_OP_DEL, VQ_SQL_CONF_CPE_DNSMASQ);
            if (conf.persistentflag != 0) {
                std::string text = TextFor(conf.operation);
                VQ_SqliteDnsMasqConfOp(static_cast<BOOL>(conf.vpnid), text.data(), VQ_SQL_CONF_OP_ADD,
                                       VQ_SQL_CONF_CPE_DNSMASQ);
            }
            return result_;
        };
        module_.onTranslate = [this](VQ_DNSMASQ_CONF &record) {
            record.VpnId = vpnId_;
            return 0;
        };
        host_.conversions.DnsmasqConfToStr = [](const VQ_DNSMASQ_CONF *) { return ::strdup("confirmed"); };
        host_.conversions.DataTransJsonStrFree = [](char *text) { std::free(text); };
    }

    static std::string TextFor(std::uint32_t operation) { return "row " + std::to_string(operation); }

    // A message that differs from others by its operation, which has no effect.
    [[nodiscard]] Bytes Off(std::uint32_t operation, bool isKept = true) const
    {
        return PackCpe(vpnId_, false, operation, [isKept](DnsmasqConf &conf) {
            conf.has_persistentflag = 1;
            conf.persistentflag = isKept ? 1 : 0;
        });
    }

    Answer ApplyToConfirm(const Bytes &message, std::uint32_t seconds)
    {
        return AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__APPLY, std::nullopt, message, std::nullopt, seconds)));
    }
    Answer ConfirmNow() { return AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__CONFIRM, vpnId_))); }

    [[nodiscard]] std::string InForceNow() const
    {
        const InForceFiles files(instances_);
        return files.Read(vpnId_) ? files.ReadContent(vpnId_).bytes : "nothing";
    }
    static std::string TextOf(const Bytes &bytes) { return {bytes.begin(), bytes.end()}; }
    [[nodiscard]] bool IsBeforeKept() const
    {
        return std::filesystem::exists(instances_.StatePath(vpnId_, "unconfirmed"));
    }
    [[nodiscard]] bool RunUntilUndone()
    {
        return RunUntil(loop_, [this] { return !supervisor_.Confirmation(vpnId_); });
    }
    std::optional<std::string> Row() { return host_.store.ReadText(vpnId_); }

    VQ_ERR_T result_ = 0;
};

TEST_F(ConfirmRequestsTest, TheRowOfBeforeStaysUntilTheConfirmation)
{
    (void)Apply(Off(0));
    EXPECT_EQ(Row(), TextFor(0));
    const Answer applied = ApplyToConfirm(Off(1), 3600);
    EXPECT_EQ(applied.result, 0);
    EXPECT_EQ(Row(), TextFor(0));
    EXPECT_EQ(InForceNow(), TextOf(Off(1)));
    EXPECT_TRUE(IsBeforeKept());

    const Answer confirmed = ConfirmNow();

    EXPECT_EQ(confirmed.result, 0);
    EXPECT_EQ(confirmed.vpn, vpnId_);
    EXPECT_EQ(Row(), "confirmed");
    EXPECT_EQ(InForceNow(), TextOf(Off(1)));
    EXPECT_FALSE(IsBeforeKept());
    EXPECT_FALSE(InForceFiles(instances_).Read(vpnId_)->confirmation);
    EXPECT_EQ(host_.store.ReadHistory(vpnId_).front().outcome, kConfirmedOutcome);
}

TEST_F(ConfirmRequestsTest, TheConfirmationOfAMessageThatIsNotKeptRemovesTheRow)
{
    (void)Apply(Off(0));
    (void)ApplyToConfirm(Off(1, false), 3600);
    EXPECT_EQ(Row(), TextFor(0));
    EXPECT_EQ(ConfirmNow().result, 0);
    EXPECT_EQ(Row(), std::nullopt);
}

TEST_F(ConfirmRequestsTest, ARowThatCannotBeWrittenIsANote)
{
    (void)ApplyToConfirm(Off(1), 3600);
    host_.conversions.DnsmasqConfToStr = [](const VQ_DNSMASQ_CONF *) -> char * { return nullptr; };
    const Answer answer = ConfirmNow();
    EXPECT_EQ(answer.result, 0);
    EXPECT_THAT(answer.notes,
                ElementsAre("what was stored before is still stored: it cannot be converted for the store"));
    EXPECT_FALSE(supervisor_.Confirmation(vpnId_));
}

TEST_F(ConfirmRequestsTest, WithoutAConfirmationTheMessageBeforeIsAppliedAgain)
{
    (void)Apply(Off(0), "r1");
    (void)ApplyToConfirm(Off(1), 1);
    ASSERT_TRUE(RunUntilUndone());
    EXPECT_EQ(InForceNow(), TextOf(Off(0)));
    EXPECT_EQ(InForceFiles(instances_).Read(vpnId_)->revision, "r1");
    EXPECT_EQ(Row(), TextFor(0));
    EXPECT_FALSE(IsBeforeKept());
    const std::vector<HistoryEntry> history = host_.store.ReadHistory(vpnId_);
    ASSERT_EQ(history.size(), 3U);
    EXPECT_EQ(history[0].peer, kSentByAgent);
    EXPECT_EQ(history[0].outcome, "applied");
    EXPECT_EQ(history[0].revision, "r1");
    EXPECT_EQ(history[1].outcome, "applied, to be confirmed within 1 s");
    EXPECT_THAT(log_.Take(), HasSubstr("vpn " + std::to_string(vpnId_) +
                                       ": not confirmed within 1 s; the message before it is in force again"));
}

TEST_F(ConfirmRequestsTest, WhereNothingWasInForceItIsTakenDown)
{
    (void)ApplyToConfirm(Off(1), 1);
    ASSERT_TRUE(RunUntilUndone());
    EXPECT_EQ(InForceNow(), "nothing");
    EXPECT_EQ(Row(), std::nullopt);
    EXPECT_FALSE(IsBeforeKept());
    EXPECT_EQ(host_.store.ReadHistory(vpnId_).front().peer, kSentByAgent);
}

TEST_F(ConfirmRequestsTest, AMessageBeforeThatIsRefusedIsTriedAgain)
{
    (void)Apply(Off(0));
    (void)ApplyToConfirm(Off(1), 1);
    result_ = -EIO;
    module_.onConfigure = [this](const VQ_CTRL_DNSMASQ_CONFIG_PB &) { return result_; };
    const auto calls = module_.calls.size();
    ASSERT_TRUE(RunUntil(loop_, [&] { return module_.calls.size() > calls; }));
    EXPECT_TRUE(supervisor_.Confirmation(vpnId_));
    EXPECT_EQ(InForceNow(), TextOf(Off(1)));
    result_ = 0;
    ASSERT_TRUE(RunUntilUndone());
    EXPECT_EQ(InForceNow(), TextOf(Off(0)));
    EXPECT_THAT(log_.Take(), HasSubstr("not confirmed within 1 s, but the message before it is refused: "));
}

TEST_F(ConfirmRequestsTest, AnotherMessageConfirms)
{
    (void)Apply(Off(0));
    (void)ApplyToConfirm(Off(1), 3600);
    (void)Apply(Off(2));
    EXPECT_FALSE(supervisor_.Confirmation(vpnId_));
    EXPECT_FALSE(IsBeforeKept());
    EXPECT_EQ(Row(), TextFor(2));
    EXPECT_EQ(ConfirmNow().result, -ENOENT);
}

TEST_F(ConfirmRequestsTest, ARefusedMessageConfirmsNothing)
{
    (void)Apply(Off(0));
    (void)ApplyToConfirm(Off(1), 3600);
    for (const bool isToBeConfirmed : {false, true}) {
        const Bytes bad = WithBadInterfaceName(vpnId_);
        EXPECT_LT((isToBeConfirmed ? ApplyToConfirm(bad, 1) : Apply(bad)).result, 0);
        EXPECT_EQ(supervisor_.Confirmation(vpnId_)->seconds, 3600U);
        EXPECT_TRUE(IsBeforeKept());
    }
}

TEST_F(ConfirmRequestsTest, ARefusedMessageLeavesNothingToConfirm)
{
    (void)Apply(Off(0));
    module_.onConfigure = [](const VQ_CTRL_DNSMASQ_CONFIG_PB &) { return -EIO; };
    EXPECT_EQ(ApplyToConfirm(Off(1), 60).result, -EIO);
    EXPECT_FALSE(supervisor_.Confirmation(vpnId_));
    EXPECT_FALSE(IsBeforeKept());
    EXPECT_EQ(InForceNow(), TextOf(Off(0)));
}

TEST_F(ConfirmRequestsTest, TheWayBackStaysTheOneBeforeTheFirst)
{
    (void)Apply(Off(0));
    (void)ApplyToConfirm(Off(1), 3600);
    (void)ApplyToConfirm(Off(2), 1);
    EXPECT_EQ(InForceNow(), TextOf(Off(2)));
    ASSERT_TRUE(RunUntilUndone());
    EXPECT_EQ(InForceNow(), TextOf(Off(0)));
}

TEST_F(ConfirmRequestsTest, AMessageThatWasConfirmedIsNotMarkedAsUndone)
{
    (void)Apply(Off(0));
    (void)ApplyToConfirm(Off(1), 3600);
    (void)ConfirmNow();
    (void)ApplyToConfirm(Off(2), 1);
    ASSERT_TRUE(RunUntilUndone());
    std::vector<std::string> found;
    for (const SentHistoryEntry &sent : AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__HISTORY, vpnId_))).history) {
        found.push_back(sent.entry.outcome + (sent.isUndone ? "; undone" : ""));
    }
    EXPECT_THAT(found, ElementsAre("applied", "applied, to be confirmed within 1 s; undone", "confirmed",
                                   "applied, to be confirmed within 3600 s", "applied"));
}

TEST_F(ConfirmRequestsTest, StoppingTheVpnEndsTheWait)
{
    (void)ApplyToConfirm(Off(1), 3600);
    (void)AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__STOP, vpnId_)));
    EXPECT_FALSE(supervisor_.Confirmation(vpnId_));
    EXPECT_FALSE(IsBeforeKept());
}

TEST_F(ConfirmRequestsTest, TheTimeHasBounds)
{
    for (const std::uint32_t seconds : {0U, 3601U}) {
        const Answer answer = ApplyToConfirm(Off(1), seconds);
        EXPECT_EQ(answer.result, -EINVAL);
        EXPECT_EQ(answer.text, "confirm_seconds: it is " + std::to_string(seconds) + "; 1 to 3600 are possible");
    }
    EXPECT_THAT(module_.calls, ElementsAre());
}

TEST_F(ConfirmRequestsTest, WhatIsInForceByAnOlderAgentCannotBeKept)
{
    (void)Apply(Off(0));
    std::filesystem::remove(instances_.StatePath(vpnId_, "inforce"));
    const Answer answer = ApplyToConfirm(Off(1), 60);
    EXPECT_EQ(answer.result, -ENOENT);
    EXPECT_THAT(answer.text.value_or(""), HasSubstr("what is in force cannot be kept: "));
}

TEST_F(ConfirmRequestsTest, AConfirmationNeedsAVpnThatIsServed)
{
    EXPECT_EQ(AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__CONFIRM))).text, "no vpn is named");
    EXPECT_EQ(AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__CONFIRM, unknown_))).result, -ENOENT);
    EXPECT_EQ(ConfirmNow().text, "no message waits for its confirmation");
}

TEST_F(ConfirmRequestsTest, TheStatusTellsTheTimeThatIsLeft)
{
    (void)ApplyToConfirm(Off(1), 3600);
    VpnStatus status;
    status.fields.vpn = vpnId_;
    status.problems = {{Fault::kRecordDiffers, "stored as switched on, but not meant to run", ""},
                       {Fault::kInstanceSilent, "it does not answer", ""}};
    supervisor_.Describe(status);
    EXPECT_NE(status.fields.has_undone_in_seconds, 0);
    EXPECT_GT(status.fields.undone_in_seconds, 3500U);
    EXPECT_LE(status.fields.undone_in_seconds, 3600U);
    ASSERT_EQ(status.problems.size(), 1U) << "its row is that of before";
    EXPECT_EQ(status.problems.front().fault, Fault::kInstanceSilent);
}

} // namespace
} // namespace kavel::agent
