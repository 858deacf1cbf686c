// `vqctl apply --confirm` and `vqctl confirm`: their requests, their output and their exit codes.
#include <gtest/gtest.h>
#include <string>

#include "commands.h"
#include "commands_fixture.h"
#include "errors.h"
#include "fake_agent.h"
#include "json_reader.h"

namespace kavel::ctl {
namespace {

const std::string kMessage = R"({"enable": true, "operation": "reload", "vpnid": 7})";

class ConfirmCommandTest : public CommandsTest {
  protected:
    int GoConfirm(std::uint32_t vpn)
    {
        return Go([&] { return Confirm(session_, vpn); });
    }
};

TEST_F(ConfirmCommandTest, TheTimeIsSentWithTheMessage)
{
    Answer({ReplyFor(7, 0)});
    const std::string file = dir_.Write("a.json", kMessage);
    EXPECT_EQ(GoApply({.files = {file}, .confirmSeconds = 60}), kDone);
    EXPECT_EQ(out_.str(), file + ": vpn 7: applied\n");
    EXPECT_EQ(err_.str(), "vqctl: " + file + ": vpn 7: undone in 60 s unless it is confirmed: vqctl confirm 7\n");
    EXPECT_NE(Request(0)->has_confirm_seconds, 0);
    EXPECT_EQ(Request(0)->confirm_seconds, 60U);
}

TEST_F(ConfirmCommandTest, WithoutATimeNoneIsSent)
{
    Answer({ReplyFor(7, 0)});
    EXPECT_EQ(GoApply({.files = {dir_.Write("a.json", kMessage)}}), kDone);
    EXPECT_EQ(err_.str(), "");
    EXPECT_EQ(Request(0)->has_confirm_seconds, 0);
}

TEST_F(ConfirmCommandTest, ARefusedMessageIsNotToBeConfirmed)
{
    Answer({ReplyFor(7, -22, "it is bad")});
    EXPECT_EQ(GoApply({.files = {dir_.Write("a.json", kMessage)}, .confirmSeconds = 60}), kRefused);
    EXPECT_EQ(err_.str(), "");
}

TEST_F(ConfirmCommandTest, OneFileAtATime)
{
    const std::string file = dir_.Write("a.json", kMessage);
    EXPECT_EQ(GoApply({.files = {file, file}, .confirmSeconds = 60}), kBadInput);
    EXPECT_EQ(err_.str(), "vqctl: --confirm: it takes one file, not 2\n");
}

TEST_F(ConfirmCommandTest, Confirms)
{
    Answer({ReplyFor(7, 0)});
    EXPECT_EQ(GoConfirm(7), kDone);
    EXPECT_EQ(out_.str(), "vpn 7: confirmed\n");
    EXPECT_EQ(Request(0)->verb, KAVEL__REQUEST__VERB__CONFIRM);
    EXPECT_EQ(Request(0)->vpn, 7U);
}

TEST_F(ConfirmCommandTest, WhereNothingWaitsItIsRefused)
{
    Answer({ReplyFor(7, -2, "", "no message waits for its confirmation")});
    EXPECT_EQ(GoConfirm(7), kRefused);
    EXPECT_EQ(out_.str(), "vpn 7: refused (-2 No such file or directory): no message waits for its confirmation\n");
}

TEST_F(ConfirmCommandTest, WhatIsWrongWithTheRowIsReported)
{
    Answer({PackReply(0, [](Kavel__Reply &reply) {
        static std::string note = "what was stored before is still stored: locked";
        static char *notes = note.data();
        reply.n_notes = 1;
        reply.notes = &notes;
    })});
    EXPECT_EQ(GoConfirm(7), kDone);
    EXPECT_EQ(err_.str(), "vqctl: vpn 7: what was stored before is still stored: locked\n");
}

TEST_F(ConfirmCommandTest, AsJson)
{
    session_.json = true;
    Answer({ReplyFor(7, 0)});
    EXPECT_EQ(GoConfirm(7), kDone);
    const JsonPtr json = ParseJson(out_.str());
    EXPECT_STREQ(json_object_to_json_string_ext(json.get(), JSON_C_TO_STRING_PLAIN),
                 R"({"schema":1,"vpn":7,"result":0,"outcome":"confirmed"})");
}

} // namespace
} // namespace kavel::ctl
