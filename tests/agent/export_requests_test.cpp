// Requests that return messages: what is in force, what is stored, and what was sent before.
#include <cerrno>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "instances/in_force.h"
#include "requests_fixture.h"
#include "services/message_history.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ExportRequestsTest : public RequestsTest {
  protected:
    ExportRequestsTest() : RequestsTest([](Config &config) { config.persistence = true; })
    {
        host_.conversions.DnsmasqStrToConf = ConvertStoredText;
    }

    Answer Ask(std::int32_t verb, std::optional<std::uint32_t> vpnId)
    {
        return AnswerIn(Send(PackRequest(verb, vpnId)));
    }
    Answer InForceOf(std::optional<std::uint32_t> vpnId) { return Ask(KAVEL__REQUEST__VERB__IN_FORCE, vpnId); }
    Answer ExportOf(std::optional<std::uint32_t> vpnId) { return Ask(KAVEL__REQUEST__VERB__STORE_EXPORT, vpnId); }
    Answer HistoryOf(std::optional<std::uint32_t> vpnId) { return Ask(KAVEL__REQUEST__VERB__HISTORY, vpnId); }

    [[nodiscard]] std::string RecordText() const { return "on " + std::to_string(vpnId_); }

    // The message of a stored record "on".
    void ExpectMessageOfRecord(const Answer &answer) const
    {
        ASSERT_EQ(answer.messages.size(), 1U);
        EXPECT_EQ(answer.messages.front().vpn, vpnId_);
        const auto message = UnpackControllerMessage(Platform::kCpe, answer.messages.front().bytes);
        ASSERT_TRUE(message);
        EXPECT_EQ(message->vpn, vpnId_);
        EXPECT_TRUE(message->enables && message->launches && message->isKept);
        EXPECT_EQ(message->pointer.DnsmasqPbCPE->n_dnsmxhost, 2U);
    }
};

TEST_F(ExportRequestsTest, AtFirstNothingIsInForce)
{
    const Answer answer = InForceOf(vpnId_);
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.vpn, vpnId_);
    EXPECT_THAT(answer.messages, IsEmpty());
}

TEST_F(ExportRequestsTest, TheMessageThatIsInForce)
{
    (void)Apply(switchOff_);
    const Answer answer = InForceOf(vpnId_);
    ASSERT_EQ(answer.messages.size(), 1U);
    EXPECT_EQ(answer.messages.front().bytes, switchOff_);
    EXPECT_EQ(answer.messages.front().platform, Platform::kCpe);
    EXPECT_THAT(InForceOf(other_).messages, IsEmpty());
}

TEST_F(ExportRequestsTest, ARecordThatIsInForceIsAMessageThatStartsAndIsStored)
{
    InForceFiles(instances_).Write(vpnId_, {}, {false, RecordText()});
    ExpectMessageOfRecord(InForceOf(vpnId_));
}

TEST_F(ExportRequestsTest, ARecordInForceThatCannotBeReadIsRefused)
{
    InForceFiles(instances_).Write(vpnId_, {}, {false, "garbage"});
    const Answer answer = InForceOf(vpnId_);
    EXPECT_EQ(answer.result, -EINVAL);
    EXPECT_EQ(answer.text, "Invalid argument");
    EXPECT_EQ(answer.vpn, vpnId_);
}

TEST_F(ExportRequestsTest, WhatIsInForceNeedsAVpnThatIsServed)
{
    EXPECT_EQ(InForceOf(std::nullopt).text, "no vpn is named");
    EXPECT_EQ(InForceOf(unknown_).result, -ENOENT);
}

TEST_F(ExportRequestsTest, AStoredRecordIsExportedAsAMessage)
{
    host_.store.Put(vpnId_, RecordText(), VQ_SQL_CONF_CPE_DNSMASQ);
    ExpectMessageOfRecord(ExportOf(vpnId_));
}

TEST_F(ExportRequestsTest, WhatCannotBeExportedIsRefused)
{
    EXPECT_EQ(ExportOf(std::nullopt).text, "no vpn is named");
    EXPECT_EQ(ExportOf(vpnId_).text, "nothing is stored for vpn " + std::to_string(vpnId_));
    host_.store.Put(vpnId_, "garbage", VQ_SQL_CONF_CPE_DNSMASQ);
    EXPECT_EQ(ExportOf(vpnId_).result, -EINVAL);
}

TEST_F(ExportRequestsTest, TheHistoryOfAVpnHasItsMessages)
{
    (void)Apply(switchOff_, "r1");
    const Bytes refused = WithBadInterfaceName(vpnId_);
    (void)Apply(refused);
    const Answer answer = HistoryOf(vpnId_);
    ASSERT_EQ(answer.history.size(), 2U);
    EXPECT_EQ(answer.history[0].entry.message, refused);
    EXPECT_EQ(answer.history[0].entry.result, -EINVAL);
    EXPECT_EQ(answer.history[1].entry.message, switchOff_);
    EXPECT_EQ(answer.history[1].entry.revision, "r1");
    EXPECT_EQ(answer.history[1].entry.peer, kSender);
    EXPECT_EQ(answer.history[1].vpn, vpnId_);
}

TEST_F(ExportRequestsTest, TheHistoryOfAllHasNoMessages)
{
    (void)Apply(PackCpe(other_, false, VQ_DNSMASQ_OP_RELOAD));
    (void)Apply(switchOff_, "r1");
    (void)Apply(switchOff_, "r2");
    const Answer answer = HistoryOf(std::nullopt);
    std::vector<std::pair<std::uint32_t, std::optional<std::string>>> found;
    for (const SentHistoryEntry &sent : answer.history) {
        found.emplace_back(sent.vpn, sent.entry.revision);
        EXPECT_EQ(sent.entry.message, std::nullopt);
        EXPECT_EQ(sent.entry.messageBytes, switchOff_.size());
    }
    EXPECT_THAT(found, ElementsAre(std::pair(vpnId_, "r2"), std::pair(vpnId_, "r1"), std::pair(other_, std::nullopt)));
}

TEST_F(RequestsTest, WithoutPersistenceThereIsNoHistoryAndNoExport)
{
    for (const auto verb : {KAVEL__REQUEST__VERB__HISTORY, KAVEL__REQUEST__VERB__STORE_EXPORT}) {
        const Answer answer = AnswerIn(Send(PackRequest(verb, vpnId_)));
        EXPECT_EQ(answer.result, -EOPNOTSUPP);
        EXPECT_THAT(answer.text.value_or(""), HasSubstr("persistence is switched off"));
    }
}

} // namespace
} // namespace kavel::agent
