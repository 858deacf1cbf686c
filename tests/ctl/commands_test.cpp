#include "commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "commands_fixture.h"
#include "errors.h"
#include "fake_agent.h"
#include "files.h"

namespace kavel::ctl {
namespace {

using testing::HasSubstr;

constexpr const char *kBranchOffice = KAVEL_EXAMPLES "/branch-office.json";
constexpr const char *kChange = KAVEL_EXAMPLES "/branch-office-change.json";
constexpr const char *kOff = KAVEL_EXAMPLES "/branch-office-off.json";

std::string MessageOf(const Kavel__Request &request)
{
    return {reinterpret_cast<const char *>(request.message.data), request.message.len};
}

// An applied message of vpn 7.
Bytes ServiceReply(bool enabled, bool running, std::string text = {})
{
    return PackReply(0, [&](Kavel__Reply &reply) {
        reply.has_vpn = reply.has_enabled = reply.has_running = 1;
        reply.vpn = 7;
        reply.enabled = enabled ? 1 : 0;
        reply.running = running ? 1 : 0;
        reply.text = text.empty() ? nullptr : text.data();
    });
}

// A line about a message.
std::string Line(const std::string &file, const std::string &text)
{
    return file + ": " + text + "\n";
}

Bytes CheckReply(std::uint32_t vpn)
{
    Kavel__Summary summary{};
    kavel__summary__init(&summary);
    summary.enable = 1;
    summary.hosts = 3;
    return PackReply(0, [&](Kavel__Reply &reply) {
        reply.has_vpn = 1;
        reply.vpn = vpn;
        reply.summary = &summary;
    });
}

TEST_F(CommandsTest, ApplySendsEveryMessageInOrder)
{
    Answer({ReplyFor(7, 0), ReplyFor(7, 5)});
    EXPECT_EQ(GoApply({{kBranchOffice, kChange}}), kDone);
    EXPECT_EQ(out_.str(), Line(kBranchOffice, "vpn 7: applied") + Line(kChange, "vpn 7: applied"));
    EXPECT_EQ(err_.str(), "");
    ASSERT_EQ(agent_->Requests().size(), 2U);
    const RequestPtr first = Request(0);
    EXPECT_EQ(first->verb, KAVEL__REQUEST__VERB__APPLY);
    EXPECT_EQ(first->has_vpn, 0);
    EXPECT_NE(MessageOf(*first), MessageOf(*Request(1)));
    EXPECT_THAT(MessageOf(*first), HasSubstr("nas.branch.example"));
}

TEST_F(CommandsTest, ApplyStopsAtTheFirstRefusal)
{
    Answer({ReplyFor(7, 0), ReplyFor(7, -22, "dnsmasq dns host[3].domain is invalid"), ReplyFor(7, 0)});
    EXPECT_EQ(GoApply({{kBranchOffice, kChange, kOff, kBranchOffice}}), kRefused);
    EXPECT_EQ(out_.str(),
              Line(kBranchOffice, "vpn 7: applied") +
                  Line(kChange, "vpn 7: refused (-22 Invalid argument): dnsmasq dns host[3].domain is invalid"));
    EXPECT_EQ(err_.str(), std::string("vqctl: not sent: ") + kOff + ", " + kBranchOffice + "\n");
    EXPECT_EQ(agent_->Requests().size(), 2U);
}

TEST_F(CommandsTest, ApplyListsNoUnsentFilesWhenTheLastIsRefused)
{
    Answer({ReplyFor(99, -2, "", "vpn 99 is not configured")});
    EXPECT_EQ(GoApply({{kBranchOffice}}), kRefused);
    EXPECT_EQ(out_.str(),
              Line(kBranchOffice, "vpn 99: refused (-2 No such file or directory): vpn 99 is not configured"));
    EXPECT_EQ(err_.str(), "");
}

TEST_F(CommandsTest, ApplySendsNothingWhenAFileIsBad)
{
    Answer({ReplyFor(7, 0)});
    const std::string bad = dir_.Write("bad.json", R"({"enable": true, "operation": 1, "vpnid": -1})");
    EXPECT_EQ(GoApply({{kBranchOffice, bad}}), kBadInput);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(err_.str(), "vqctl: " + bad + ": vpnid: expected a number from 0 to 4294967295, not -1\n");
    EXPECT_EQ(agent_->Requests().size(), 0U);
}

TEST_F(CommandsTest, ApplySendsTheRevisionWithEachMessage)
{
    Answer({ReplyFor(7, 0), ReplyFor(7, 0)});
    const std::string revision = std::string(kRevisionMax - 5, 'r') + " \u00E4 ?";
    ASSERT_EQ(revision.size(), kRevisionMax);
    EXPECT_EQ(GoApply({{kBranchOffice, kChange}, false, revision}), kDone);
    EXPECT_EQ(out_.str(), Line(kBranchOffice, "vpn 7: applied") + Line(kChange, "vpn 7: applied"));
    ASSERT_EQ(agent_->Requests().size(), 2U);
    EXPECT_STREQ(Request(0)->revision, revision.c_str());
    EXPECT_STREQ(Request(1)->revision, revision.c_str());
}

TEST_F(CommandsTest, ApplyWithoutARevisionSendsNone)
{
    Answer({ReplyFor(7, 0)});
    EXPECT_EQ(GoApply({{kBranchOffice}}), kDone);
    EXPECT_EQ(Request(0)->revision, nullptr);
}

TEST_F(CommandsTest, ApplySendsNothingWhenTheRevisionIsBad)
{
    const std::string expected = "vqctl: --revision: expected 1 to 64 bytes of printable text, not ";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "0 bytes"},         {std::string(kRevisionMax + 1, 'r'), "65 bytes"},
        {"a\nb", "\"a?b\""},     {std::string("a\0b", 3), "\"a?b\""},
        {"\x1b[2J", "\"?[2J\""}, {"\xFF", "\"?\""},
        {"\u202E", "\"?\""},
    };
    for (const auto &[revision, text] : cases) {
        Answer({ReplyFor(7, 0)});
        err_.str("");
        EXPECT_EQ(GoApply({{kBranchOffice}, false, revision}), kBadInput) << text;
        EXPECT_EQ(err_.str(), expected + text + "\n");
        EXPECT_EQ(out_.str(), "");
        EXPECT_EQ(agent_->Requests().size(), 0U) << text;
    }
}

TEST_F(CommandsTest, ErrorNamesAMissingFile)
{
    EXPECT_EQ(GoApply({{"/nonexistent.json"}}), kBadInput);
    EXPECT_EQ(err_.str(), "vqctl: /nonexistent.json: cannot be opened: No such file or directory\n");
}

TEST_F(CommandsTest, BinarySendsTheBytesUnchanged)
{
    Answer({PackReply(0)});
    const std::string bytes("\x00\xFF not a message", 16);
    const std::string file = dir_.Write("raw", bytes);
    EXPECT_EQ(GoApply({{file}, true}), kDone);
    EXPECT_EQ(out_.str(), Line(file, "message: applied"));
    EXPECT_EQ(MessageOf(*Request(0)), bytes);
}

TEST_F(CommandsTest, AMessageOverTheFrameLimitIsABadFile)
{
    const std::string large = dir_.Write("large", std::string(control::kFrameMax, 'x'));
    EXPECT_EQ(GoApply({{large}, true}), kBadInput);
    EXPECT_EQ(err_.str(), "vqctl: " + large + ": the request would take 16777223 bytes, over the limit of 16777216\n");
}

TEST_F(CommandsTest, ProblemAfterApplyGoesToStandardError)
{
    Answer({ReplyFor(7, 0, "", "the instance did not come up")});
    EXPECT_EQ(GoApply({{kBranchOffice}}), kDone);
    EXPECT_EQ(out_.str(), Line(kBranchOffice, "vpn 7: applied"));
    EXPECT_EQ(err_.str(), "vqctl: " + Line(kBranchOffice, "vpn 7: the instance did not come up"));
}

TEST_F(CommandsTest, AServiceThatDoesNotRunIsReportedAndTheNextMessageIsSent)
{
    Answer(
        {ServiceReply(true, false, "dnsmasq: bad option\x1b[2J"), ServiceReply(true, true), ServiceReply(true, false)});
    EXPECT_EQ(GoApply({{kBranchOffice, kChange, kOff}}), kNotAsAsked);
    EXPECT_EQ(out_.str(), Line(kBranchOffice, "vpn 7: applied, NOT RUNNING: dnsmasq: bad option?[2J") +
                              Line(kChange, "vpn 7: applied") + Line(kOff, "vpn 7: applied, NOT RUNNING"));
    EXPECT_EQ(err_.str(), "");
}

TEST_F(CommandsTest, AServiceThatStillRunsIsReported)
{
    Answer({ServiceReply(false, true, "the instance still runs"), ServiceReply(false, false)});
    EXPECT_EQ(GoApply({{kOff, kOff}}), kNotAsAsked);
    EXPECT_EQ(out_.str(),
              Line(kOff, "vpn 7: applied, STILL RUNNING: the instance still runs") + Line(kOff, "vpn 7: applied"));
}

TEST_F(CommandsTest, NotesGoToStandardError)
{
    std::string note = "dnsproxies[0].domains[1]: is skipped\n";
    std::vector<char *> notes{note.data(), note.data()};
    const auto add = [&](Kavel__Reply &reply) {
        reply.n_notes = notes.size();
        reply.notes = notes.data();
    };
    Answer({PackReply(0, add)});
    EXPECT_EQ(GoApply({{kOff}}), kDone);
    const std::string line = "vqctl: " + Line(kOff, "message: dnsproxies[0].domains[1]: is skipped?");
    EXPECT_EQ(err_.str(), line + line);
}

TEST_F(CommandsTest, ApplyFailsWithoutAnAgent)
{
    EXPECT_EQ(GoApply({{kBranchOffice}}), kNoAgent);
    EXPECT_EQ(err_.str(), "vqctl: cannot reach the agent at /nonexistent/agent.sock: No such file or directory\n");
}

TEST_F(CommandsTest, ApplyListsUnsentFilesWhenTheConnectionCloses)
{
    Answer({ReplyFor(7, 0), {}});
    EXPECT_EQ(GoApply({{kBranchOffice, kChange, kOff}}), kNoAgent);
    EXPECT_EQ(out_.str(), Line(kBranchOffice, "vpn 7: applied"));
    EXPECT_EQ(err_.str(), std::string("vqctl: ") + kChange +
                              ": the agent closed the connection without a reply; not sent: " + kOff + "\n");
}

TEST_F(CommandsTest, VerboseReportsRequestsAndResults)
{
    Answer({ReplyFor(7, -22)});
    session_.verbose = true;
    EXPECT_EQ(GoApply({{kOff}}), kRefused);
    EXPECT_EQ(err_.str(), std::string("vqctl: sending ") + kOff +
                              ": CPE message for vpn 7: disabled, reload, 0 hosts, 0 mx, 0 servers, 0 proxy items "
                              "(8 bytes), request of 12 bytes\n"
                              "vqctl: received result -22\n");
}

TEST_F(CommandsTest, CheckContinuesAfterARefusal)
{
    Answer({ReplyFor(7, -75, "dnsmasq dns server number is more than 8"), CheckReply(7)});
    EXPECT_EQ(GoCheck({{kBranchOffice, kChange}}), kRefused);
    EXPECT_EQ(
        out_.str(),
        Line(kBranchOffice, "vpn 7: would be refused (-75 Value too large for defined data type): "
                            "dnsmasq dns server number is more than 8") +
            Line(kChange, "vpn 7: would apply: enabled, reload, 3 hosts, 0 mx, 0 servers, 0 forwards, not stored"));
    EXPECT_EQ(Request(1)->verb, KAVEL__REQUEST__VERB__CHECK);
}

TEST_F(CommandsTest, CheckOfGoodMessagesSucceeds)
{
    Answer({CheckReply(7)});
    EXPECT_EQ(GoCheck({{kBranchOffice}}), kDone);
}

TEST_F(CommandsTest, CheckFailsWithoutASummary)
{
    Answer({ReplyFor(7, 0)});
    EXPECT_EQ(GoCheck({{kBranchOffice}}), kNoAgent);
    EXPECT_EQ(err_.str(),
              "vqctl: " + std::string(kBranchOffice) + ": the agent's reply says nothing about the message\n");
}

TEST_F(CommandsTest, VpnInitNamesTheVpn)
{
    Answer({PackReply(0)});
    EXPECT_EQ(Go([&] { return VpnInit(session_, 7); }), kDone);
    EXPECT_EQ(out_.str(), "vpn 7: initialised\n");
    EXPECT_EQ(Request(0)->verb, KAVEL__REQUEST__VERB__VPN_INIT);
    EXPECT_EQ(Request(0)->vpn, 7U);
}

TEST_F(CommandsTest, VpnReleaseNamesTheVpn)
{
    Answer({PackReply(0)});
    EXPECT_EQ(Go([&] { return VpnRelease(session_, 7); }), kDone);
    EXPECT_EQ(out_.str(), "vpn 7: released\n");
    EXPECT_EQ(Request(0)->verb, KAVEL__REQUEST__VERB__VPN_RELEASE);
    EXPECT_EQ(Request(0)->vpn, 7U);
}

TEST_F(CommandsTest, VpnReleaseReportsARefusal)
{
    Answer({ReplyFor(7, -16, "", "the instance of vpn 7 is running")});
    EXPECT_EQ(Go([&] { return VpnRelease(session_, 7); }), kRefused);
    EXPECT_EQ(out_.str(), "vpn 7: refused (-16 Device or resource busy): the instance of vpn 7 is running\n");
}

TEST_F(CommandsTest, StoreListPrintsATable)
{
    Kavel__StoredRecord record{};
    kavel__stored_record__init(&record);
    record.vpn = 7;
    record.bytes = 180;
    Kavel__StoredRecord *records = &record;
    Answer({PackReply(0, [&](Kavel__Reply &reply) {
        reply.n_stored = 1;
        reply.stored = &records;
    })});
    EXPECT_EQ(Go([&] { return StoreList(session_); }), kDone);
    EXPECT_EQ(out_.str(), "VPN  ENABLED  HOSTS  MX  SERVERS  FORWARDS  BYTES\n"
                          "  7  no           0   0        0         0    180\n");
    EXPECT_EQ(Request(0)->verb, KAVEL__REQUEST__VERB__STORE_LIST);
    EXPECT_EQ(Request(0)->has_vpn, 0);
}

TEST_F(CommandsTest, StoreListReportsARefusal)
{
    Answer({PackReply(-95, [text = std::string("persistence is switched off")](Kavel__Reply &reply) mutable {
        reply.text = text.data();
    })});
    EXPECT_EQ(Go([&] { return StoreList(session_); }), kRefused);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(err_.str(), "vqctl: store: refused (-95 Operation not supported): persistence is switched off\n");
}

TEST_F(CommandsTest, StoreShowPrintsTheRecord)
{
    Answer({PackReply(0, [text = std::string(R"({"Enable": true})")](Kavel__Reply &reply) mutable {
        reply.has_stored_text = 1;
        reply.stored_text = {text.size(), reinterpret_cast<std::uint8_t *>(text.data())};
    })});
    EXPECT_EQ(Go([&] { return StoreShow(session_, 0); }), kDone);
    EXPECT_EQ(out_.str(), "{\n  \"Enable\": true\n}\n");
    EXPECT_EQ(Request(0)->verb, KAVEL__REQUEST__VERB__STORE_SHOW);
    EXPECT_EQ(Request(0)->has_vpn, 1);
    EXPECT_EQ(Request(0)->vpn, 0U);
}

TEST_F(CommandsTest, StoreShowReportsAMissingRecord)
{
    Answer({ReplyFor(99, -2, "", "nothing is stored for vpn 99")});
    EXPECT_EQ(Go([&] { return StoreShow(session_, 99); }), kRefused);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(err_.str(), "vqctl: vpn 99: refused (-2 No such file or directory): nothing is stored for vpn 99\n");
}

TEST_F(CommandsTest, StoreShowFailsWithoutAText)
{
    Answer({PackReply(0)});
    EXPECT_EQ(Go([&] { return StoreShow(session_, 7); }), kNoAgent);
    EXPECT_EQ(err_.str(), "vqctl: the agent's reply holds no stored text\n");
}

TEST_F(CommandsTest, EncodeWritesAFile)
{
    const std::string target = dir_.File("message.bin");
    EXPECT_EQ(Go([&] { return Encode(kOff, target, MessageFor::kVpn); }), kDone);
    EXPECT_EQ(ReadInput(target), std::string("\x08\x00\x10\x00\x38\x01\x48\x07", 8));
}

TEST_F(CommandsTest, EncodeKeepsTheTargetWhenTheMessageIsBad)
{
    const std::string target = dir_.Write("message.bin", "old");
    const std::string bad = dir_.Write("bad.json", "{}");
    EXPECT_EQ(Go([&] { return Encode(bad, target, MessageFor::kVpn); }), kBadInput);
    EXPECT_EQ(err_.str(), "vqctl: " + bad + ": enable: is missing\n");
    EXPECT_EQ(ReadInput(target), "old");
}

TEST_F(CommandsTest, EncodeNamesTheTargetThatItCannotWrite)
{
    EXPECT_EQ(Go([&] { return Encode(kOff, "/dev/full", MessageFor::kVpn); }), kBadInput);
    EXPECT_EQ(err_.str(), "vqctl: /dev/full: cannot be written: No space left on device\n");
}

TEST_F(CommandsTest, RunFailsWhenOutputCannotBeWritten)
{
    out_.setstate(std::ios::badbit);
    EXPECT_EQ(Go([] { return kDone; }), kBadInput);
    EXPECT_EQ(err_.str(), "vqctl: standard output: cannot be written\n");
}

} // namespace
} // namespace kavel::ctl
