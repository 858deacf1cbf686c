// `vqctl store export` and `vqctl history`: their requests, their output and their exit codes.
#include "export_commands.h"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <optional>
#include <string>

#include "commands_fixture.h"
#include "errors.h"
#include "fake_agent.h"
#include "files.h"
#include "history_entries.h"
#include "packed_replies.h"

namespace kavel::ctl {
namespace {

const std::string kStored = R"({"enable": true, "operation": "reboot", "persistentflag": true, "vpnid": 7})";
const std::string kShown = "{\n  \"enable\": true,\n  \"operation\": \"reboot\",\n  \"persistentflag\": true,\n"
                           "  \"vpnid\": 7\n}\n";

class ExportCommandsTest : public CommandsTest {
  protected:
    ExportCommandsTest()
    {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }

    int GoExport(std::optional<std::uint32_t> vpn, const std::optional<std::string> &directory = std::nullopt)
    {
        return Go([&] { return StoreExport(session_, vpn, directory); });
    }
    int GoHistory(std::optional<std::uint32_t> vpn = std::nullopt)
    {
        return Go([&] { return History(session_, vpn); });
    }
    int GoShow(std::uint32_t vpn, std::uint32_t number)
    {
        return Go([&] { return ShowHistoryMessage(session_, vpn, number); });
    }
};

// The reply to STORE_LIST.
Bytes ListReply(std::vector<std::uint32_t> vpns)
{
    std::vector<Kavel__StoredRecord> records(vpns.size());
    std::vector<Kavel__StoredRecord *> pointers;
    for (std::size_t i = 0; i < vpns.size(); ++i) {
        kavel__stored_record__init(&records[i]);
        records[i].vpn = vpns[i];
        pointers.push_back(&records[i]);
    }
    return PackReply(0, [&](Kavel__Reply &reply) {
        reply.n_stored = pointers.size();
        reply.stored = pointers.data();
    });
}

TEST_F(ExportCommandsTest, ARecordIsPrintedAsAMessage)
{
    Answer({MessageReply(kStored)});
    EXPECT_EQ(GoExport(7), kDone);
    EXPECT_EQ(out_.str(), kShown);
    EXPECT_EQ(Request(0)->verb, KAVEL__REQUEST__VERB__STORE_EXPORT);
    EXPECT_EQ(Request(0)->vpn, 7U);
}

TEST_F(ExportCommandsTest, ARefusalIsReported)
{
    Answer({ReplyFor(8, -2, "", "nothing is stored for vpn 8")});
    EXPECT_EQ(GoExport(8), kRefused);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(err_.str(), "vqctl: vpn 8: refused (-2 No such file or directory): nothing is stored for vpn 8\n");
}

TEST_F(ExportCommandsTest, AllRecordsNeedADirectory)
{
    EXPECT_EQ(GoExport(std::nullopt), kBadInput);
    EXPECT_EQ(err_.str(), "vqctl: store export: all records need --output DIR; one file is written for each\n");
}

TEST_F(ExportCommandsTest, EveryRecordIsWrittenToAFile)
{
    Answer({ListReply({7, 8}), MessageReply(kStored), MessageReply(kStored)});
    const std::string directory = dir_.File("new");
    EXPECT_EQ(GoExport(std::nullopt, directory), kDone);
    EXPECT_EQ(out_.str(), "vpn 7: " + directory + "/vpn_7.json\nvpn 8: " + directory + "/vpn_8.json\n");
    EXPECT_EQ(ReadInput(directory + "/vpn_7.json"), kShown);
    EXPECT_EQ(Request(2)->vpn, 8U);
}

TEST_F(ExportCommandsTest, ARecordThatCannotBeReadDoesNotStopTheOthers)
{
    Answer({ListReply({6, 7}), ReplyFor(6, -22, "", "not JSON"), MessageReply(kStored)});
    const std::string directory = dir_.File("new");
    EXPECT_EQ(GoExport(std::nullopt, directory), kRefused);
    EXPECT_EQ(out_.str(), "vpn 7: " + directory + "/vpn_7.json\n");
    EXPECT_EQ(err_.str(), "vqctl: vpn 6: refused (-22 Invalid argument): not JSON\n");
}

TEST_F(ExportCommandsTest, ADirectoryThatCannotBeCreatedIsToldBeforeTheExport)
{
    Answer({ListReply({7})});
    EXPECT_EQ(GoExport(std::nullopt, "/nonexistent/new"), kBadInput);
    EXPECT_EQ(err_.str(), "vqctl: /nonexistent/new: cannot be created: No such file or directory\n");
}

TEST_F(ExportCommandsTest, AllRecordsAreOneJsonDocument)
{
    session_.json = true;
    Answer({ListReply({7}), MessageReply(kStored)});
    EXPECT_EQ(GoExport(std::nullopt), kDone);
    const JsonPtr json = ParseJson(out_.str());
    EXPECT_STREQ(json_object_to_json_string_ext(json.get(), JSON_C_TO_STRING_PLAIN),
                 R"({"schema":1,"messages":[{"vpn":7,"message":{"enable":true,"operation":"reboot",)"
                 R"("persistentflag":true,"vpnid":7}}]})");
}

TEST_F(ExportCommandsTest, AMessageWithoutAVpnGetsOne)
{
    const EncodedMessage message = Encoded(R"({"enable": true, "operation": "reload"})");
    const JsonPtr json = NamedMessageJson({message.bytes, false}, 0);
    EXPECT_STREQ(json_object_to_json_string_ext(json.get(), JSON_C_TO_STRING_PLAIN),
                 R"({"enable":true,"operation":"reload","vpnid":0})");
    const EncodedMessage pop = Encoded(R"({"enable": true, "localip": "10.0.0.1"})");
    EXPECT_FALSE(HasKey(NamedMessageJson({pop.bytes, true}, 0).get(), "vpnid"));
}

TEST_F(ExportCommandsTest, TheHistoryIsATable)
{
    Answer({HistoryReply({{kStored, 0, "r2"}, {std::nullopt, -22, "", "refused: it is bad"}})});
    EXPECT_EQ(GoHistory(7), kDone);
    EXPECT_EQ(out_.str(),
              "VPN  NUMBER  TIME                 SENDER                 REVISION  BYTES  RESULT  OUTCOME\n"
              "  7       1  2023-11-14 22:13:20  pid 42, uid 0 (vqctl)  r2            8       0  applied\n"
              "  7       2  2023-11-14 22:13:19  pid 42, uid 0 (vqctl)  -           100     -22  refused: it is bad\n");
    EXPECT_EQ(Request(0)->verb, KAVEL__REQUEST__VERB__HISTORY);
    EXPECT_EQ(Request(0)->vpn, 7U);
}

TEST_F(ExportCommandsTest, TheEntriesOfEachVpnAreNumbered)
{
    session_.json = true;
    Answer({HistoryReply({{.json = std::nullopt},
                          {.json = std::nullopt, .isUndone = true},
                          {.json = std::nullopt, .revision = "r1", .vpn = 8}})});
    EXPECT_EQ(GoHistory(), kDone);
    EXPECT_EQ(Request(0)->has_vpn, 0);
    const JsonPtr json = ParseJson(out_.str());
    const std::string text = json_object_to_json_string_ext(json.get(), JSON_C_TO_STRING_PLAIN);
    EXPECT_TRUE(text.starts_with(R"({"schema":1,"messages":[{"vpn":7,"number":1,"time":1700000000,)"
                                 R"x("sender":"pid 42, uid 0 (vqctl)","revision":null,"result":0,)x"
                                 R"("outcome":"applied","undone":false,"bytes":100},{"vpn":7,"number":2,)"))
        << text;
    EXPECT_NE(text.find(R"("undone":true)"), std::string::npos) << text;
    EXPECT_NE(text.find(R"({"vpn":8,"number":1,)"), std::string::npos) << text;
}

TEST_F(ExportCommandsTest, AnUndoneMessageIsMarked)
{
    Answer({HistoryReply({{.json = std::nullopt, .isUndone = true}})});
    EXPECT_EQ(GoHistory(7), kDone);
    EXPECT_TRUE(out_.str().ends_with("  applied; undone\n")) << out_.str();
}

TEST_F(ExportCommandsTest, AMessageOfTheHistoryIsPrinted)
{
    Answer({HistoryReply({{std::nullopt}, {kStored}})});
    EXPECT_EQ(GoShow(7, 2), kDone);
    EXPECT_EQ(out_.str(), kShown);
}

TEST_F(ExportCommandsTest, AMessageThatIsNotThereIsBadInput)
{
    for (const std::uint32_t number : {0U, 2U}) {
        err_.str("");
        Answer({HistoryReply({{kStored}})});
        EXPECT_EQ(GoShow(7, number), kBadInput);
        EXPECT_EQ(err_.str(),
                  "vqctl: there is no message " + std::to_string(number) + ": the agent keeps 1 message of this VPN\n");
    }
}

TEST_F(ExportCommandsTest, AMessageThatWasNotKeptIsBadInput)
{
    Answer({HistoryReply({{.json = std::nullopt, .bytes = 600'000}})});
    EXPECT_EQ(GoShow(7, 1), kBadInput);
    EXPECT_EQ(err_.str(), "vqctl: message 1 was not kept: it has 600000 bytes\n");
    err_.str("");
    Answer({HistoryReply({{.json = std::nullopt, .outcome = "confirmed", .bytes = 0}})});
    EXPECT_EQ(GoShow(7, 1), kBadInput);
    EXPECT_EQ(err_.str(), "vqctl: message 1 has no content: confirmed\n");
}

TEST_F(ExportCommandsTest, ARefusedHistoryIsReported)
{
    Answer({PackReply(-95)});
    EXPECT_EQ(GoHistory(), kRefused);
    EXPECT_EQ(err_.str(), "vqctl: history: refused (-95 Operation not supported)\n");
}

} // namespace
} // namespace kavel::ctl
