// `vqctl repair` as a command: its request, its output and its exit code.
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "commands_fixture.h"
#include "errors.h"
#include "fake_agent.h"

namespace kavel::ctl {
namespace {

class RepairCommandTest : public CommandsTest {
  protected:
    int GoRepair(std::optional<std::uint32_t> vpn = std::nullopt)
    {
        return Go([&] { return Repair(session_, vpn); });
    }
};

// An empty text is not sent.
Bytes RepairReply(std::vector<std::string> notes, std::string text = {})
{
    std::vector<char *> pointers;
    pointers.reserve(notes.size());
    for (std::string &note : notes) {
        pointers.push_back(note.data());
    }
    return PackReply(0, [&](Kavel__Reply &reply) {
        reply.n_notes = pointers.size();
        reply.notes = pointers.data();
        reply.text = text.empty() ? nullptr : text.data();
    });
}

TEST_F(RepairCommandTest, OfAllVpnsPrintsEachRepair)
{
    Answer({RepairReply({"vpn 7: the steering rule was gone; installed again", "vpn 8: \x1b[2J\n"})});
    EXPECT_EQ(GoRepair(), kDone);
    EXPECT_EQ(out_.str(), "vpn 7: the steering rule was gone; installed again\nvpn 8: ?[2J?\n");
    EXPECT_EQ(err_.str(), "");
    ASSERT_EQ(agent_->Requests().size(), 1U);
    EXPECT_EQ(Request(0)->verb, KAVEL__REQUEST__VERB__REPAIR);
    EXPECT_EQ(Request(0)->has_vpn, 0);
}

TEST_F(RepairCommandTest, OfOneVpnNamesIt)
{
    Answer({RepairReply({})});
    EXPECT_EQ(GoRepair(0), kDone);
    EXPECT_EQ(Request(0)->verb, KAVEL__REQUEST__VERB__REPAIR);
    EXPECT_EQ(Request(0)->has_vpn, 1);
    EXPECT_EQ(Request(0)->vpn, 0U);
}

TEST_F(RepairCommandTest, SaysWhenThereIsNothingToRepair)
{
    Answer({RepairReply({})});
    EXPECT_EQ(GoRepair(), kDone);
    EXPECT_EQ(out_.str(), "nothing to repair\n");
    EXPECT_EQ(err_.str(), "");
}

TEST_F(RepairCommandTest, AFailedRepairGoesToStandardError)
{
    Answer({RepairReply({"vpn 7: the pid file was gone; written again"}, "vpn 8: namespace vpn_8 does not exist\n")});
    EXPECT_EQ(GoRepair(), kNotAsAsked);
    EXPECT_EQ(out_.str(), "vpn 7: the pid file was gone; written again\n");
    EXPECT_EQ(err_.str(), "vqctl: vpn 8: namespace vpn_8 does not exist?\n");
}

TEST_F(RepairCommandTest, DoesNotSayNothingToRepairWhenARepairFailed)
{
    Answer({RepairReply({}, "vpn 8: namespace vpn_8 does not exist")});
    EXPECT_EQ(GoRepair(8), kNotAsAsked);
    EXPECT_EQ(out_.str(), "");
}

TEST_F(RepairCommandTest, AnUnknownVpnIsBadInput)
{
    Answer({UnknownVpnReply(99)});
    EXPECT_EQ(GoRepair(99), kBadInput);
    EXPECT_EQ(out_.str(), "vpn 99: refused (-2 No such file or directory): vpn 99 is not configured\n");
    EXPECT_EQ(err_.str(), "");
}

TEST_F(RepairCommandTest, ReportsARefusalForAllVpns)
{
    Answer({PackReply(-125)});
    EXPECT_EQ(GoRepair(), kRefused);
    EXPECT_EQ(out_.str(), "repair: refused (-125 Operation canceled)\n");
}

TEST_F(RepairCommandTest, TheJsonHasEachRepairAndWhatIsLeft)
{
    session_.json = true;
    Answer({RepairReply({"vpn 7: a", "vpn 8: b"})});
    EXPECT_EQ(GoRepair(), kDone);
    EXPECT_EQ(out_.str(), R"({
  "schema": 1,
  "repaired": [
    "vpn 7: a",
    "vpn 8: b"
  ],
  "problem": null
}
)");
    out_.str("");
    Answer({RepairReply({}, "vpn 8: c")});
    EXPECT_EQ(GoRepair(), kNotAsAsked);
    EXPECT_EQ(out_.str(), "{\n  \"schema\": 1,\n  \"repaired\": [\n  ],\n  \"problem\": \"vpn 8: c\"\n}\n");
    EXPECT_EQ(err_.str(), "");
}

TEST_F(RepairCommandTest, TheJsonOfARefusalIsAnError)
{
    session_.json = true;
    Answer({UnknownVpnReply(99)});
    EXPECT_EQ(GoRepair(99), kBadInput);
    EXPECT_EQ(out_.str(), R"({
  "schema": 1,
  "error": {
    "exit": 2,
    "text": "vpn 99: refused (-2 No such file or directory): vpn 99 is not configured"
  }
}
)");
}

TEST_F(RepairCommandTest, FailsWithoutAnAgent)
{
    EXPECT_EQ(GoRepair(), kNoAgent);
    EXPECT_EQ(err_.str(), "vqctl: cannot reach the agent at /nonexistent/agent.sock: No such file or directory\n");
}

} // namespace
} // namespace kavel::ctl
