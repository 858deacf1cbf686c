// What the commands print with --json.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include "commands.h"
#include "commands_fixture.h"
#include "errors.h"
#include "fake_agent.h"

namespace kavel::ctl {
namespace {

using testing::HasSubstr;

constexpr const char *kOff = KAVEL_EXAMPLES "/branch-office-off.json";

class JsonResultsTest : public CommandsTest {
  protected:
    JsonResultsTest() { session_.json = true; }

    // A member of the JSON that is a file of the examples.
    static std::string File() { return std::string("\"") + kOff + "\""; }
};

TEST_F(JsonResultsTest, OfApplyAreTheMessagesInOrder)
{
    Answer({PackReply(0,
                      [](Kavel__Reply &reply) {
                          static std::string text = "dnsmasq: bad option";
                          static std::string note = "dnsservers[1].ifname: no such interface";
                          static char *notes = note.data();
                          reply.has_vpn = reply.has_enabled = reply.has_running = reply.enabled = 1;
                          reply.vpn = 7;
                          reply.text = text.data();
                          reply.n_notes = 1;
                          reply.notes = &notes;
                      }),
            ReplyFor(8, -22, "dnsmasq dns host[0].domain is invalid"), ReplyFor(7, 0)});
    EXPECT_EQ(GoApply({{kOff, kOff, kOff}}), kRefused);
    EXPECT_EQ(out_.str(), R"({
  "schema": 1,
  "results": [
    {
      "file": )" + File() + R"(,
      "vpn": 7,
      "result": 0,
      "outcome": "applied",
      "text": "dnsmasq: bad option",
      "enabled": true,
      "running": false,
      "notes": [
        "dnsservers[1].ifname: no such interface"
      ]
    },
    {
      "file": )" + File() + R"(,
      "vpn": 8,
      "result": -22,
      "outcome": "refused",
      "text": "dnsmasq dns host[0].domain is invalid",
      "notes": [
      ]
    }
  ],
  "not_sent": [
    )" + File() + R"(
  ]
}
)");
    EXPECT_EQ(err_.str(), "");
}

TEST_F(JsonResultsTest, OfApplyHaveNothingElseWhenAllIsApplied)
{
    Answer({PackReply(0)});
    EXPECT_EQ(GoApply({{kOff}}), kDone);
    EXPECT_EQ(out_.str(), R"({
  "schema": 1,
  "results": [
    {
      "file": )" + File() + R"(,
      "vpn": null,
      "result": 0,
      "outcome": "applied",
      "text": null,
      "notes": [
      ]
    }
  ]
}
)");
}

TEST_F(JsonResultsTest, OfApplyAreKeptWhenTheConnectionCloses)
{
    Answer({ReplyFor(7, 0), {}});
    EXPECT_EQ(GoApply({{kOff, kOff, kOff}}), kNoAgent);
    EXPECT_THAT(out_.str(), HasSubstr(R"("outcome": "applied")"));
    EXPECT_THAT(out_.str(), HasSubstr("\"not_sent\": [\n    " + File() + "\n  ]"));
    EXPECT_THAT(out_.str(), HasSubstr("\"error\": {\n    \"exit\": 3,\n    \"text\": \"" + std::string(kOff) +
                                      ": the agent closed the connection without a reply; not sent: "));
}

TEST_F(JsonResultsTest, OfCheckHaveTheSummary)
{
    Kavel__Summary summary{};
    kavel__summary__init(&summary);
    summary.enable = summary.persistent = 1;
    summary.hosts = 3;
    summary.mx_hosts = 2;
    summary.servers = 1;
    summary.proxies = 65535;
    Answer({PackReply(0, [&](Kavel__Reply &reply) { reply.summary = &summary; }), ReplyFor(7, -75)});
    EXPECT_EQ(GoCheck({{kOff, kOff}}), kRefused);
    EXPECT_EQ(out_.str(), R"({
  "schema": 1,
  "results": [
    {
      "file": )" + File() + R"(,
      "vpn": null,
      "result": 0,
      "outcome": "would apply",
      "text": null,
      "summary": {
        "enable": true,
        "operation": "reload",
        "persistent": true,
        "hosts": 3,
        "mx_hosts": 2,
        "servers": 1,
        "forwards": 65535
      },
      "notes": [
      ]
    },
    {
      "file": )" + File() + R"(,
      "vpn": 7,
      "result": -75,
      "outcome": "would be refused",
      "text": null,
      "notes": [
      ]
    }
  ]
}
)");
}

TEST_F(JsonResultsTest, OfABadFileNameIt)
{
    const std::string bad = dir_.Write("bad.json", "{}");
    EXPECT_EQ(GoApply({{kOff, bad}}), kBadInput);
    EXPECT_EQ(out_.str(), "{\n  \"schema\": 1,\n  \"error\": {\n    \"exit\": 2,\n    \"text\": \"" + bad +
                              ": enable: is missing\",\n    \"file\": \"" + bad + "\"\n  }\n}\n");
}

TEST_F(JsonResultsTest, OfVpnCommands)
{
    Answer({PackReply(0)});
    EXPECT_EQ(Go([&] { return VpnInit(session_, 7); }), kDone);
    EXPECT_EQ(out_.str(), "{\n  \"schema\": 1,\n  \"vpn\": 7,\n  \"outcome\": \"initialised\"\n}\n");
    out_.str("");
    Answer({ReplyFor(7, -16, "", "the instance of vpn 7 is running")});
    EXPECT_EQ(Go([&] { return VpnRelease(session_, 7); }), kRefused);
    EXPECT_EQ(out_.str(), R"({
  "schema": 1,
  "error": {
    "exit": 1,
    "text": "vpn 7: refused (-16 Device or resource busy): the instance of vpn 7 is running"
  }
}
)");
}

TEST_F(JsonResultsTest, OfTheStoreAreItsRecords)
{
    std::string problem = "Lack of Enable";
    std::vector<Kavel__StoredRecord> records(2);
    std::vector<Kavel__StoredRecord *> pointers;
    for (Kavel__StoredRecord &record : records) {
        kavel__stored_record__init(&record);
        record.vpn = static_cast<std::uint32_t>(pointers.size());
        record.bytes = 180;
        pointers.push_back(&record);
    }
    records[0].has_enable = records[0].enable = 1;
    records[0].has_hosts = 1;
    records[0].hosts = 3;
    records[1].problem = problem.data();
    Answer({PackReply(0, [&](Kavel__Reply &reply) {
        reply.n_stored = pointers.size();
        reply.stored = pointers.data();
    })});
    EXPECT_EQ(Go([&] { return StoreList(session_); }), kDone);
    EXPECT_EQ(out_.str(), R"({
  "schema": 1,
  "records": [
    {
      "vpn": 0,
      "bytes": 180,
      "enable": true,
      "hosts": 3,
      "mx_hosts": 0,
      "servers": 0,
      "forwards": 0
    },
    {
      "vpn": 1,
      "bytes": 180,
      "problem": "Lack of Enable"
    }
  ]
}
)");
}

Bytes TextReply(std::string text)
{
    return PackReply(0, [&](Kavel__Reply &reply) {
        reply.has_stored_text = 1;
        reply.stored_text = {text.size(), reinterpret_cast<std::uint8_t *>(text.data())};
    });
}

TEST_F(JsonResultsTest, OfAStoredRecord)
{
    Answer({TextReply(R"({"Enable": true})")});
    EXPECT_EQ(Go([&] { return StoreShow(session_, 7); }), kDone);
    EXPECT_EQ(out_.str(), "{\n  \"schema\": 1,\n  \"vpn\": 7,\n  \"record\": {\n    \"Enable\": true\n  }\n}\n");
    out_.str("");
    Answer({TextReply("{oops \xFF")});
    EXPECT_EQ(Go([&] { return StoreShow(session_, 7); }), kDone);
    EXPECT_EQ(out_.str(), "{\n  \"schema\": 1,\n  \"vpn\": 7,\n  \"text\": \"{oops \\ufffd\"\n}\n");
}

TEST_F(JsonResultsTest, OfAnUnknownVpnIsBadInput)
{
    Answer({UnknownVpnReply(99)});
    EXPECT_EQ(Go([&] { return StoreShow(session_, 99); }), kBadInput);
    EXPECT_THAT(out_.str(), HasSubstr("\"exit\": 2,\n    \"text\": \"vpn 99: refused (-2 "));
    Answer({UnknownVpnReply(99)});
    EXPECT_EQ(Go([&] { return VpnInit(session_, 99); }), kBadInput);
}

TEST_F(JsonResultsTest, AMessageForAnUnknownVpnIsARefusal)
{
    Answer({UnknownVpnReply(99)});
    EXPECT_EQ(GoApply({{kOff}}), kRefused);
    Answer({UnknownVpnReply(99)});
    EXPECT_EQ(GoCheck({{kOff}}), kRefused);
}

} // namespace
} // namespace kavel::ctl
