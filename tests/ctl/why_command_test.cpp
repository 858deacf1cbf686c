// `vqctl why` as a command: its output and its exit code.
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

#include "commands_fixture.h"
#include "errors.h"
#include "fake_agent.h"
#include "why_command.h"

namespace kavel::ctl {
namespace {

class WhyCommandTest : public CommandsTest {
  protected:
    int GoWhy(std::optional<std::uint32_t> vpn = std::nullopt)
    {
        return Go([&] { return Why(session_, vpn); });
    }

    // A reply with a finding about vpn 7 and one about the box, without a remedy.
    Bytes FindingsReply(bool isStarting = false)
    {
        std::string code = "link-down";
        std::string text = "LAN interface lan0 is\ndown";
        std::string remedy = "ip link set lan0 up";
        std::vector<Kavel__Finding> findings(2);
        std::vector<Kavel__Finding *> pointers;
        for (Kavel__Finding &finding : findings) {
            kavel__finding__init(&finding);
            finding.code = code.data();
            finding.text = text.data();
            pointers.push_back(&finding);
        }
        findings[0].remedy = remedy.data();
        findings[0].has_vpn = 1;
        findings[0].vpn = 7;
        Kavel__Start start{};
        kavel__start__init(&start);
        start.back = 1;
        start.total = 3;
        return PackReply(0, [&](Kavel__Reply &reply) {
            reply.n_findings = pointers.size();
            reply.findings = pointers.data();
            reply.start = isStarting ? &start : nullptr;
        });
    }
};

TEST_F(WhyCommandTest, NothingIsPrintedWhenAllIsWell)
{
    Answer({PackReply(0)});
    EXPECT_EQ(GoWhy(), kDone);
    EXPECT_EQ(out_.str() + err_.str(), "");
    EXPECT_EQ(Request(0)->verb, KAVEL__REQUEST__VERB__WHY);
    EXPECT_FALSE(Request(0)->has_vpn);
}

TEST_F(WhyCommandTest, EachFindingHasItsCodeItsTextAndItsRemedy)
{
    Answer({FindingsReply()});
    EXPECT_EQ(GoWhy(7), kRefused);
    EXPECT_EQ(out_.str(), "vpn 7: link-down: LAN interface lan0 is?down\n"
                          "    do: ip link set lan0 up\n"
                          "box: link-down: LAN interface lan0 is?down\n");
    EXPECT_EQ(Request(0)->vpn, 7U);
}

TEST_F(WhyCommandTest, Json)
{
    session_.json = true;
    Answer({FindingsReply()});
    EXPECT_EQ(GoWhy(), kRefused);
    const JsonPtr document = ParseJson(out_.str());
    EXPECT_STREQ(json_object_to_json_string_ext(document.get(), JSON_C_TO_STRING_PLAIN),
                 R"({"schema":1,"findings":[{"code":"link-down","text":"LAN interface lan0 is\ndown",)"
                 R"("do":"ip link set lan0 up","vpn":7},{"code":"link-down","text":"LAN interface lan0 is\ndown"}]})");
}

TEST_F(WhyCommandTest, AnAgentThatIsStarting)
{
    Answer({FindingsReply(true)});
    EXPECT_EQ(GoWhy(), kStarting);
    EXPECT_EQ(out_.str().substr(0, out_.str().find('\n')), "starting: 1 of 3 VPNs are back");
}

TEST_F(WhyCommandTest, ARefusal)
{
    Answer({ReplyFor(9, -2, "vpn 9 is not configured")});
    EXPECT_NE(GoWhy(9), kDone);
    EXPECT_NE(err_.str().find("vpn 9 is not configured"), std::string::npos);
}

} // namespace
} // namespace kavel::ctl
