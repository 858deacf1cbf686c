#include "supervision/content.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>

#include "instances/controller_message.h"
#include "test_box.h"
#include "vqLog.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;

class ContentTest : public testing::Test {
  protected:
    ContentTest()
    {
        host_.conversions.DnsmasqStrToConf = ConvertStoredText;
        host_.conversions.DnsmasqConfToStr = [](const VQ_DNSMASQ_CONF *record) {
            return ::strdup(("vpn " + std::to_string(record->VpnId)).c_str());
        };
        host_.conversions.DataTransJsonStrFree = [](char *text) { std::free(text); };
        module_.onTranslate = [](VQ_DNSMASQ_CONF &record) {
            record.VpnId = 7;
            record.DnsHostNum = 5;
            return 0;
        };
    }

    // Why there is no record.
    std::string Failure(const InForceContent &content)
    {
        try {
            (void)RecordOf(host_, module_.functions, 7, content);
        } catch (const std::runtime_error &failure) {
            return failure.what();
        }
        return "there is one";
    }

    static InForceContent Message()
    {
        const Bytes bytes = PackCpe(7, true, VQ_DNSMASQ_OP_RELOAD);
        return {true, std::string(bytes.begin(), bytes.end())};
    }

    // Collects what the module's next list has.
    void OnRecover(VQ_ERR_T result = 0)
    {
        module_.onRecover = [this, result] {
            VQ_PersistentConfList *list = host_.store.List(VQ_SQL_CONF_CPE_DNSMASQ);
            for (const VQ_LIST_HEAD *link = list->Head.next; link != &list->Head; link = link->next) {
                const VQ_DNSMASQ_CONF &record = reinterpret_cast<const VQ_DnsmasqConfNode *>(link)->Dnsmasq;
                applied_.push_back({record.VpnId, record.Op, host_.currentVpn});
            }
            VQ_SqliteConfListRelease(list);
            return result;
        };
    }

    struct Applied {
        std::uint32_t vpnId;
        VQ_DNSMASQ_OPERATION operation;
        std::optional<std::uint32_t> currentVpn;
        bool operator==(const Applied &) const = default;
    };

    TestBox box_;
    Host host_{box_.Configuration()};
    FakeModule module_;
    std::vector<Applied> applied_;
};

TEST_F(ContentTest, TheModuleTranslatesAMessage)
{
    const RecordNode node = RecordOf(host_, module_.functions, 7, Message());
    EXPECT_EQ(node->Dnsmasq.VpnId, 7U);
    EXPECT_EQ(node->Dnsmasq.DnsHostNum, 5U);
    EXPECT_THAT(module_.calls, ElementsAre("translate"));
}

TEST_F(ContentTest, TheModuleIsSilentMeanwhile)
{
    module_.onTranslate = [](VQ_DNSMASQ_CONF &) {
        EXPECT_EQ(VQ_LogTest(VQ_LOG_MODULE_ADVANCED_DNS, VQ_LOG_LEVEL_ERROR, TRUE, "Translate"), FALSE);
        return 0;
    };
    (void)RecordOf(host_, module_.functions, 7, Message());
    EXPECT_FALSE(host_.moduleIsSilent);
}

TEST_F(ContentTest, AMessageThatTheModuleRefusesHasNoRecord)
{
    host_.moduleErrors.Add("from before (75:Value too large).");
    module_.onTranslate = [this](VQ_DNSMASQ_CONF &) {
        host_.moduleErrors.Add("the list is too long (75:Value too large).\n");
        return -75;
    };
    EXPECT_EQ(Failure(Message()), "the list is too long (75:Value too large).");
    module_.onTranslate = [](VQ_DNSMASQ_CONF &) { return -ENOMEM; };
    EXPECT_EQ(Failure(Message()), "Cannot allocate memory");
}

TEST_F(ContentTest, BytesThatAreNoMessageHaveNoRecord)
{
    EXPECT_EQ(Failure({true, "\x01\x02\x03"}), "what is in force cannot be unpacked");
    EXPECT_THAT(module_.calls, ElementsAre());
}

TEST_F(ContentTest, AStoredTextIsConverted)
{
    const RecordNode node = RecordOf(host_, module_.functions, 7, {false, "on 7"});
    EXPECT_EQ(node->Dnsmasq.VpnId, 7U);
    EXPECT_NE(node->Dnsmasq.Enable, FALSE);
    EXPECT_EQ(node->Dnsmasq.DnsMxHostNum, 2U);
    EXPECT_THAT(module_.calls, ElementsAre());
}

TEST_F(ContentTest, AStoredTextThatCannotBeReadHasNoRecord)
{
    EXPECT_EQ(Failure({false, "garbage"}), "Invalid argument");
    EXPECT_EQ(Failure({false, "on 8"}), "it is a record of vpn 8");
}

TEST_F(ContentTest, AStoredTextIsStoredAsItIs)
{
    EXPECT_EQ(StoredTextOf(host_, module_.functions, 7, {false, "any text"}), "any text");
}

TEST_F(ContentTest, ARecordOfAMessageIsConvertedForTheStore)
{
    EXPECT_EQ(StoredTextOf(host_, module_.functions, 7, Message()), "vpn 7");
}

TEST_F(ContentTest, AMessageThatCannotBeConvertedHasNoStoredText)
{
    host_.conversions.DnsmasqConfToStr = [](const VQ_DNSMASQ_CONF *) -> char * { return nullptr; };
    EXPECT_THROW((void)StoredTextOf(host_, module_.functions, 7, Message()), std::runtime_error);
    host_.conversions = {};
    EXPECT_THROW((void)StoredTextOf(host_, module_.functions, 7, Message()), std::runtime_error);
}

TEST_F(ContentTest, AMessageStaysTheMessageThatItIs)
{
    const std::vector<std::uint8_t> bytes = MessageOfContent(host_, module_.functions, 7, Message());
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), Message().bytes);
}

TEST_F(ContentTest, ARecordBecomesAMessageThatStartsAndIsStored)
{
    const auto message =
        UnpackControllerMessage(Platform::kCpe, MessageOfContent(host_, module_.functions, 7, {false, "on 7"}));
    ASSERT_TRUE(message);
    EXPECT_EQ(message->vpn, 7U);
    EXPECT_TRUE(message->launches && message->isKept);
    EXPECT_EQ(message->pointer.DnsmasqPbCPE->n_dnsservers, 3U);
    EXPECT_THROW((void)MessageOfContent(host_, module_.functions, 7, {false, "garbage"}), std::runtime_error);
}

TEST_F(ContentTest, TheModuleAppliesTheRecordAlone)
{
    OnRecover();
    for (const auto operation : {VQ_DNSMASQ_OP_RELOAD, VQ_DNSMASQ_OP_REBOOT}) {
        applied_.clear();
        RecordNode node = RecordOf(host_, module_.functions, 7, Message());
        EXPECT_EQ(ApplyRecord(host_, module_.functions, 7, std::move(node), operation), std::nullopt);
        EXPECT_THAT(applied_, ElementsAre(Applied{7, operation, 7U}));
        EXPECT_EQ(host_.currentVpn, std::nullopt);
    }
}

// The module's result says nothing: it goes on with the next record after a failure.
TEST_F(ContentTest, TheFirstMessageAboutAFailureIsTheProblem)
{
    host_.moduleErrors.Add("from before (5:Input/output error).");
    OnRecover();
    const auto apply = [this] {
        return ApplyRecord(host_, module_.functions, 7, RecordOf(host_, module_.functions, 7, Message()),
                           VQ_DNSMASQ_OP_RELOAD);
    };
    EXPECT_EQ(apply(), std::nullopt);
    module_.onRecover = [this] {
        VQ_SqliteConfListRelease(host_.store.List(VQ_SQL_CONF_CPE_DNSMASQ));
        host_.moduleErrors.Add("the route is bad (22:Invalid argument).\n");
        host_.moduleErrors.Add("nothing was started (22:Invalid argument).\n");
        return 0;
    };
    EXPECT_EQ(apply(), "the route is bad (22:Invalid argument).");
}

} // namespace
} // namespace kavel::agent
