// `vqctl stop` as a command: its requests, its output and its exit code.
#include <gmock/gmock.h>
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

class StopCommandTest : public CommandsTest {
  protected:
    int GoStop(std::optional<std::uint32_t> vpn = std::nullopt)
    {
        return Go([&] { return Stop(session_, vpn); });
    }
};

// The status of VPNs 0 to 3, of which 1 is meant to run and of 2 a route is left.
Bytes StatusReply()
{
    std::vector<Kavel__VpnStatus> vpns(4);
    std::vector<Kavel__VpnStatus *> pointers;
    std::string name = "-";
    for (std::size_t i = 0; i < vpns.size(); ++i) {
        kavel__vpn_status__init(&vpns[i]);
        vpns[i].vpn = static_cast<std::uint32_t>(i);
        vpns[i].namespace_ = name.data();
        pointers.push_back(&vpns[i]);
    }
    vpns[1].meant = 1;
    vpns[2].routes = 1;
    return PackReply(0, [&](Kavel__Reply &reply) {
        reply.n_vpns = pointers.size();
        reply.vpns = pointers.data();
    });
}

TEST_F(StopCommandTest, OneVpn)
{
    Answer({ReplyFor(7, 0)});
    EXPECT_EQ(GoStop(7), kDone);
    EXPECT_EQ(out_.str(), "vpn 7: stopped\n");
    EXPECT_EQ(err_.str(), "");
    ASSERT_EQ(agent_->Requests().size(), 1U);
    EXPECT_EQ(Request(0)->verb, KAVEL__REQUEST__VERB__STOP);
    EXPECT_EQ(Request(0)->vpn, 7U);
}

TEST_F(StopCommandTest, AllThatHaveSomethingToStop)
{
    Answer({StatusReply(), ReplyFor(1, 0), ReplyFor(2, 0)});
    EXPECT_EQ(GoStop(), kDone);
    EXPECT_EQ(out_.str(), "vpn 1: stopped\nvpn 2: stopped\n");
    ASSERT_EQ(agent_->Requests().size(), 3U);
    EXPECT_EQ(Request(2)->verb, KAVEL__REQUEST__VERB__STOP);
    EXPECT_EQ(Request(2)->vpn, 2U);
}

TEST_F(StopCommandTest, WhatIsLeftOfOneDoesNotKeepTheOthers)
{
    Answer({StatusReply(), ReplyFor(1, 0, "", "routes are left\n"), ReplyFor(2, 0)});
    EXPECT_EQ(GoStop(), kNotAsAsked);
    EXPECT_EQ(out_.str(), "vpn 1: NOT STOPPED\nvpn 2: stopped\n");
    EXPECT_EQ(err_.str(), "vqctl: vpn 1: routes are left?\n");
}

TEST_F(StopCommandTest, AnUnknownVpnIsBadInput)
{
    Answer({UnknownVpnReply(99)});
    EXPECT_EQ(GoStop(99), kBadInput);
    EXPECT_EQ(out_.str(), "vpn 99: refused (-2 No such file or directory): vpn 99 is not configured\n");
}

TEST_F(StopCommandTest, ReportsThatTheAgentRefusesToTellItsVpns)
{
    Answer({PackReply(-16)});
    EXPECT_EQ(GoStop(), kRefused);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(err_.str(), "vqctl: status: refused (-16 Device or resource busy)\n");
}

TEST_F(StopCommandTest, TheJsonHasEachVpn)
{
    session_.json = true;
    Answer({StatusReply(), ReplyFor(1, 0, "", "routes are left"), ReplyFor(2, 0)});
    EXPECT_EQ(GoStop(), kNotAsAsked);
    EXPECT_EQ(out_.str(), R"({
  "schema": 1,
  "results": [
    {
      "vpn": 1,
      "stopped": false,
      "problem": "routes are left"
    },
    {
      "vpn": 2,
      "stopped": true,
      "problem": null
    }
  ]
}
)");
    EXPECT_EQ(err_.str(), "");
}

TEST_F(StopCommandTest, TheJsonKeepsWhatWasStoppedBeforeAnError)
{
    session_.json = true;
    Answer({StatusReply(), ReplyFor(1, 0), {}});
    EXPECT_EQ(GoStop(), kNoAgent);
    EXPECT_THAT(out_.str(), testing::HasSubstr(R"("stopped": true)"));
    EXPECT_THAT(out_.str(), testing::HasSubstr("\"error\": {\n    \"exit\": 3,\n"));
}

TEST_F(StopCommandTest, FailsWithoutAnAgent)
{
    EXPECT_EQ(GoStop(), kNoAgent);
    EXPECT_EQ(err_.str(), "vqctl: cannot reach the agent at /nonexistent/agent.sock: No such file or directory\n");
}

} // namespace
} // namespace kavel::ctl
