// `vqctl diff` as a command: its requests, its output and its exit code.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "change_commands.h"
#include "commands_fixture.h"
#include "errors.h"
#include "fake_agent.h"
#include "packed_replies.h"

namespace kavel::ctl {
namespace {

const std::string kPlain = R"({"enable": true, "operation": "reload", "vpnid": 7})";
const std::string kWithHost = R"({"enable": true, "operation": "reload", "vpnid": 7,
                                  "dnshosts": [{"domain": "nas.example", "ip": "192.168.7.10"}]})";

class DiffCommandTest : public CommandsTest {
  protected:
    int GoDiff(const std::vector<std::string> &files)
    {
        return Go([&] { return Diff(session_, {.files = files}); });
    }
};

TEST_F(DiffCommandTest, ComparesWithWhatIsInForce)
{
    Answer({ReplyFor(7, 0), MessageReply(kPlain)});
    const std::string file = dir_.Write("a.json", kWithHost);
    EXPECT_EQ(GoDiff({file}), kRefused);
    EXPECT_EQ(out_.str(), file + ": vpn 7: 1 change\n+ host nas.example 192.168.7.10\n");
    EXPECT_EQ(err_.str(), "");
    ASSERT_EQ(agent_->Requests().size(), 2U);
    EXPECT_EQ(Request(0)->verb, KAVEL__REQUEST__VERB__CHECK);
    EXPECT_EQ(Request(1)->verb, KAVEL__REQUEST__VERB__IN_FORCE);
    EXPECT_EQ(Request(1)->vpn, 7U);
}

TEST_F(DiffCommandTest, NoChangeIsDone)
{
    Answer({ReplyFor(7, 0), MessageReply(kPlain)});
    const std::string file = dir_.Write("a.json", kPlain);
    EXPECT_EQ(GoDiff({file}), kDone);
    EXPECT_EQ(out_.str(), file + ": vpn 7: no change\n");
}

TEST_F(DiffCommandTest, ComparesEveryFileAlsoAfterOneThatWouldBeRefused)
{
    Answer({ReplyFor(9, -2, "", "vpn 9 is not configured"), ReplyFor(7, 0), MessageReply(std::nullopt)});
    const std::string bad = dir_.Write("a.json", kPlain);
    const std::string good = dir_.Write("b.json", kPlain);
    EXPECT_EQ(GoDiff({bad, good}), kRefused);
    EXPECT_EQ(out_.str(), bad + ": vpn 9: would be refused (-2 No such file or directory): vpn 9 is not configured\n" +
                              good +
                              ": vpn 7: nothing is in force; 2 changes; needs \"operation\": \"reboot\"\n"
                              "+ enable true\n+ persistentflag false\n");
}

TEST_F(DiffCommandTest, ABadFileIsToldBeforeAnythingIsAsked)
{
    const std::string good = dir_.Write("a.json", kPlain);
    const std::string bad = dir_.Write("b.json", "{}");
    EXPECT_EQ(GoDiff({good, bad}), kBadInput);
    EXPECT_EQ(err_.str(), "vqctl: " + bad + ": enable: is missing\n");
}

TEST_F(DiffCommandTest, AnAgentThatIsStartingDoesNotKnow)
{
    Answer({ReplyFor(7, 0), PackReply(-11, [](Kavel__Reply &reply) {
                static std::string text = "the agent is starting";
                static Kavel__Start start = KAVEL__START__INIT;
                reply.text = text.data();
                reply.start = &start;
            })});
    const std::string file = dir_.Write("a.json", kPlain);
    EXPECT_EQ(GoDiff({file}), kStarting);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(err_.str(), "vqctl: " + file +
                              ": vpn 7: refused (-11 Resource temporarily unavailable): "
                              "the agent is starting\n");
}

TEST_F(DiffCommandTest, AsJson)
{
    session_.json = true;
    Answer({ReplyFor(7, 0), MessageReply(kPlain), ReplyFor(7, -22, "it is bad")});
    const std::string file = dir_.Write("a.json", kWithHost);
    EXPECT_EQ(GoDiff({file, file}), kRefused);
    const JsonPtr json = ParseJson(out_.str());
    const std::string text =
        json_object_to_json_string_ext(json.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    EXPECT_EQ(text, R"({"schema":1,"files":[{"in_force":true,"changes":[{"change":"added","field":"host",)"
                    R"("value":"nas.example 192.168.7.10"}],"ends_instance":false,"restarts":false,)"
                    R"("needs_restart":false,"file":")" +
                        file + R"(","vpn":7},{"file":")" + file +
                        R"(","vpn":7,"refused":"(-22 Invalid argument): it is bad"}]})");
}

} // namespace
} // namespace kavel::ctl
