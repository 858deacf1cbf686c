// `vqctl rollback` as a command: its requests, its output and its exit code.
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <optional>
#include <string>

#include "change_commands.h"
#include "commands_fixture.h"
#include "errors.h"
#include "fake_agent.h"
#include "packed_replies.h"

namespace kavel::ctl {
namespace {

std::string MessageJsonOf(const std::string &members, const std::string &operation = "reboot", bool enable = true)
{
    return R"({"enable": )" + std::string(enable ? "true" : "false") + R"(, "operation": ")" + operation +
           R"(", "vpnid": 7, "persistentflag": true)" + members + "}";
}

const std::string kHostA = MessageJsonOf(R"(, "dnshosts": [{"domain": "nas.example", "ip": "10.0.0.1"}])");
const std::string kHostB = MessageJsonOf(R"(, "dnshosts": [{"domain": "nas.example", "ip": "10.0.0.2"}])");
const std::string kForward =
    MessageJsonOf(R"(, "dnsproxies": [{"domains": ["a.example"], "serverips": ["10.0.0.1"]}])", "reload");

Bytes RunningReply(bool isRunning)
{
    return PackReply(0, [isRunning](Kavel__Reply &reply) {
        static Kavel__VpnStatus status;
        static Kavel__VpnStatus *statuses = &status;
        static std::string name = "vpn_7";
        kavel__vpn_status__init(&status);
        status.vpn = 7;
        status.namespace_ = name.data();
        status.alive = status.is_dnsmasq = status.in_namespace = isRunning ? 1 : 0;
        reply.n_vpns = 1;
        reply.vpns = &statuses;
    });
}

class RollbackCommandTest : public CommandsTest {
  protected:
    RollbackCommandTest()
    {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }

    // The replies to the questions before a message is applied, and to that message.
    void Situation(std::vector<SentEntry> history, const std::optional<std::string> &inForce, bool isRunning = true)
    {
        Answer({HistoryReply(std::move(history)), MessageReply(inForce), RunningReply(isRunning), ReplyFor(7, 0)});
    }

    int GoRollback(std::optional<std::uint32_t> number = std::nullopt)
    {
        return Go([&] { return Rollback(session_, 7, number); });
    }

    // The JSON of the message that was applied, without blanks.
    std::string Applied()
    {
        if (agent_->Requests().size() != 4) {
            return "none";
        }
        const RequestPtr request = Request(3);
        EXPECT_EQ(request->verb, KAVEL__REQUEST__VERB__APPLY);
        const JsonPtr json = MessageJson({{request->message.data, request->message.len}, false});
        return json_object_to_json_string_ext(json.get(), JSON_C_TO_STRING_PLAIN);
    }
};

TEST_F(RollbackCommandTest, TheMessageBeforeIsAppliedAgain)
{
    Situation({{kHostB}, {kHostA, 0, "r1"}}, kHostB);
    EXPECT_EQ(GoRollback(), kDone);
    EXPECT_EQ(out_.str(), "vpn 7: back to message 2 of 2023-11-14 22:13:19 (r1): 2 changes\n"
                          "- host nas.example 10.0.0.2\n"
                          "+ host nas.example 10.0.0.1\n"
                          "vpn 7: applied\n");
    EXPECT_EQ(err_.str(), "");
    EXPECT_EQ(Applied(), R"({"enable":true,"operation":"reload",)"
                         R"("dnshosts":[{"domain":"nas.example","ip":"10.0.0.1"}],"persistentflag":true,"vpnid":7})");
    EXPECT_STREQ(Request(3)->revision, "r1");
}

TEST_F(RollbackCommandTest, WhatNeedsARestartIsRestarted)
{
    Situation({{kHostB}, {kForward}}, kHostB);
    EXPECT_EQ(GoRollback(), kDone);
    EXPECT_NE(out_.str().find(": 2 changes; restarts the instance\n"), std::string::npos) << out_.str();
    EXPECT_NE(Applied().find(R"("operation":"reboot")"), std::string::npos);
    EXPECT_EQ(Request(3)->revision, nullptr);
}

TEST_F(RollbackCommandTest, AnInstanceThatDoesNotRunIsStarted)
{
    Situation({{kHostB}, {kHostA}}, kHostB, false);
    EXPECT_EQ(GoRollback(), kDone);
    EXPECT_NE(out_.str().find(": 2 changes; restarts the instance\n"), std::string::npos) << out_.str();
    EXPECT_NE(Applied().find(R"("operation":"reboot")"), std::string::npos);
}

TEST_F(RollbackCommandTest, AMessageThatSwitchesOffStartsNothing)
{
    Situation({{kHostB}, {MessageJsonOf("", "reboot", false)}}, kHostB, false);
    EXPECT_EQ(GoRollback(), kDone);
    EXPECT_NE(out_.str().find("; ends the instance\n"), std::string::npos) << out_.str();
    EXPECT_NE(Applied().find(R"("operation":"reload")"), std::string::npos);
}

TEST_F(RollbackCommandTest, RefusedAndUndoneMessagesAndTheOneInForceAreLeftOut)
{
    Situation({{kForward, -22}, {kForward, 0, "", "applied", "pid 1", 7, true}, {kHostB}, {kHostB}, {kHostA}}, kHostB);
    EXPECT_EQ(GoRollback(), kDone);
    EXPECT_EQ(out_.str().rfind("vpn 7: back to message 5 of ", 0), 0U) << out_.str();
}

TEST_F(RollbackCommandTest, WhereNothingIsInForceTheNewestIsApplied)
{
    Situation({{.json = std::nullopt, .outcome = "stopped", .bytes = 0}, {kHostA}}, std::nullopt, false);
    EXPECT_EQ(GoRollback(), kDone);
    EXPECT_EQ(out_.str().rfind("vpn 7: back to message 2 of 2023-11-14 22:13:19: nothing is in force; 3 changes;", 0),
              0U)
        << out_.str();
}

TEST_F(RollbackCommandTest, WithoutAnotherMessageNothingIsApplied)
{
    Situation({{kHostB}}, kHostB);
    EXPECT_EQ(GoRollback(), kRefused);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(err_.str(),
              "vqctl: vpn 7: the history has no message that was applied and differs from what is in force\n");
    EXPECT_EQ(Applied(), "none");
}

TEST_F(RollbackCommandTest, ANumberNamesTheMessage)
{
    Situation({{kHostB}, {kHostA}, {kForward, -22}}, kHostB);
    EXPECT_EQ(GoRollback(3), kDone);
    EXPECT_EQ(out_.str().rfind("vpn 7: back to message 3 of ", 0), 0U) << out_.str();
}

TEST_F(RollbackCommandTest, ANumberThatTheHistoryDoesNotHaveIsBadInput)
{
    Situation({{kHostB}}, kHostB);
    EXPECT_EQ(GoRollback(4), kBadInput);
    EXPECT_EQ(Applied(), "none");
}

TEST_F(RollbackCommandTest, AMessageThatWasNotKeptIsNotSkipped)
{
    Situation({{kHostB}, {.json = std::nullopt, .bytes = 600'000}, {kHostA}}, kHostB);
    EXPECT_EQ(GoRollback(), kBadInput);
    EXPECT_EQ(err_.str(), "vqctl: message 2 was not kept: it has 600000 bytes\n");
    EXPECT_EQ(Applied(), "none");
}

TEST_F(RollbackCommandTest, AMessageInForceThatWasNotKeptIsKnownByItsLength)
{
    Situation({{.json = std::nullopt, .bytes = Encoded(kHostB).bytes.size()}, {kHostA}}, kHostB);
    EXPECT_EQ(GoRollback(), kDone);
    EXPECT_EQ(out_.str().rfind("vpn 7: back to message 2 of ", 0), 0U) << out_.str();
}

TEST_F(RollbackCommandTest, ARefusalHasItsExitCode)
{
    Answer(
        {HistoryReply({{kHostB}, {kHostA}}), MessageReply(kHostB), RunningReply(true), ReplyFor(7, -22, "it is bad")});
    EXPECT_EQ(GoRollback(), kRefused);
    EXPECT_TRUE(out_.str().ends_with("vpn 7: refused (-22 Invalid argument): it is bad\n")) << out_.str();
}

TEST_F(RollbackCommandTest, WithoutAHistoryNothingIsAsked)
{
    Answer({ReplyFor(7, -95, "", "persistence is switched off")});
    EXPECT_EQ(GoRollback(), kRefused);
    EXPECT_EQ(err_.str(), "vqctl: vpn 7: refused (-95 Operation not supported): persistence is switched off\n");
}

TEST_F(RollbackCommandTest, AsJson)
{
    session_.json = true;
    Situation({{kHostB}, {kHostA}}, kHostB);
    EXPECT_EQ(GoRollback(), kDone);
    const JsonPtr json = ParseJson(out_.str());
    const std::string text = json_object_to_json_string_ext(json.get(), JSON_C_TO_STRING_PLAIN);
    EXPECT_TRUE(text.starts_with(R"({"schema":1,"vpn":7,"number":2,"difference":{"in_force":true,"changes":[{)"))
        << text;
    EXPECT_TRUE(text.ends_with(R"("result":0,"outcome":"applied"})")) << text;
}

} // namespace
} // namespace kavel::ctl
