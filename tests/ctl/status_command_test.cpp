// `vqctl status` as a command: its request, its output and its exit code.
#include <cstdint>
#include <ctime>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

#include "commands.h"
#include "commands_fixture.h"
#include "errors.h"
#include "fake_agent.h"

namespace kavel::ctl {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::StartsWith;

using StatusCommandTest = CommandsTest;

// The status of vpn 7. `fill` may set more of it.
Bytes StatusReply(const char *problem, bool isStarting = false,
                  const std::function<void(Kavel__Reply &, Kavel__VpnStatus &)> &fill = {})
{
    std::string name = "vpn_7";
    std::string text = problem != nullptr ? problem : "";
    std::string code = "a-code";
    Kavel__Finding finding{};
    kavel__finding__init(&finding);
    finding.code = code.data();
    finding.text = text.data();
    Kavel__Finding *problems = &finding;
    Kavel__VpnStatus vpn{};
    kavel__vpn_status__init(&vpn);
    vpn.vpn = 7;
    vpn.namespace_ = name.data();
    vpn.has_starting = vpn.starting = isStarting ? 1 : 0;
    vpn.n_problems = problem != nullptr ? 1 : 0;
    vpn.problems = &problems;
    Kavel__VpnStatus *vpns = &vpn;
    return PackReply(0, [&](Kavel__Reply &reply) {
        reply.n_vpns = 1;
        reply.vpns = &vpns;
        if (fill) {
            fill(reply, vpn);
        }
    });
}

TEST_F(StatusCommandTest, StatusOfAllVpns)
{
    Answer({StatusReply(nullptr)});
    EXPECT_EQ(Go([&] { return Status(session_, std::nullopt); }), kDone);
    EXPECT_THAT(out_.str(), HasSubstr("\n  7  vpn_7      stopped  "));
    EXPECT_EQ(Request(0)->verb, KAVEL__REQUEST__VERB__STATUS);
    EXPECT_EQ(Request(0)->has_vpn, 0);
}

TEST_F(StatusCommandTest, StatusOfAVpnWithProblemsReturnsRefused)
{
    Answer({StatusReply("does not answer on port 53")});
    EXPECT_EQ(Go([&] { return Status(session_, 7); }), kRefused);
    EXPECT_THAT(out_.str(), HasSubstr("\n\nvpn 7: does not answer on port 53\n"));
    EXPECT_EQ(Request(0)->has_vpn, 1);
    EXPECT_EQ(Request(0)->vpn, 7U);
}

TEST_F(StatusCommandTest, StatusOfAStartingInstanceSucceeds)
{
    Answer({StatusReply(nullptr, true)});
    EXPECT_EQ(Go([&] { return Status(session_, 7); }), kDone);
    EXPECT_THAT(out_.str(), HasSubstr("\n  7  vpn_7      starting  "));
}

TEST_F(StatusCommandTest, StatusOfAStartingInstanceWithProblems)
{
    Answer({StatusReply("the steering rule is missing", true)});
    session_.json = true;
    EXPECT_EQ(Go([&] { return Status(session_, 7); }), kRefused);
    EXPECT_THAT(out_.str(), HasSubstr(R"("starting": true)"));
}

TEST_F(StatusCommandTest, StatusAsJson)
{
    Answer({StatusReply("does not answer on port 53")});
    session_.json = true;
    EXPECT_EQ(Go([&] { return Status(session_, 7); }), kRefused);
    EXPECT_THAT(out_.str(), StartsWith("["));
    EXPECT_THAT(out_.str(), HasSubstr(R"("does not answer on port 53")"));
}

TEST_F(StatusCommandTest, StatusOfAnUnknownVpn)
{
    Answer({PackReply(-2, [text = std::string("vpn 99 is not configured")](Kavel__Reply &reply) mutable {
        reply.text = text.data();
    })});
    session_.json = true;
    EXPECT_EQ(Go([&] { return Status(session_, 99); }), kRefused);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(err_.str(), "vqctl: vpn 99: refused (-2 No such file or directory): vpn 99 is not configured\n");
}

// The reply of an agent that is starting.
Bytes StartingReply(const char *problem, std::int32_t result = 0)
{
    Kavel__Start start{};
    kavel__start__init(&start);
    start.back = 120;
    start.total = 300;
    return StatusReply(problem, false, [&](Kavel__Reply &reply, Kavel__VpnStatus &) {
        reply.result = result;
        reply.start = &start;
    });
}

TEST_F(StatusCommandTest, StatusOfAStartingAgentSaysHowFarItIs)
{
    Answer({StartingReply(nullptr)});
    EXPECT_EQ(Go([&] { return Status(session_, std::nullopt); }), kStarting);
    EXPECT_THAT(out_.str(), StartsWith("starting: 120 of 300 VPNs are back\nVPN  NAMESPACE  "));
    EXPECT_THAT(out_.str(), HasSubstr("\n  7  vpn_7      stopped  "));
    EXPECT_EQ(err_.str(), "");
}

TEST_F(StatusCommandTest, StatusOfAStartingAgentKeepsTheShapeOfTheJson)
{
    Answer({StatusReply(nullptr)});
    session_.json = true;
    EXPECT_EQ(Go([&] { return Status(session_, std::nullopt); }), kDone);
    const std::string json = std::exchange(out_, std::ostringstream()).str();
    EXPECT_THAT(json, StartsWith("["));
    Answer({StartingReply(nullptr)});
    session_.json = true;
    EXPECT_EQ(Go([&] { return Status(session_, std::nullopt); }), kStarting);
    EXPECT_EQ(out_.str(), json);
    EXPECT_EQ(err_.str(), "");
}

TEST_F(StatusCommandTest, AStartingAgentComesBeforeProblems)
{
    Answer({StartingReply("no instance runs")});
    EXPECT_EQ(Go([&] { return Status(session_, 7); }), kStarting);
    EXPECT_THAT(out_.str(), HasSubstr("\n\nvpn 7: no instance runs\n"));
}

TEST_F(StatusCommandTest, AStartingAgentComesBeforeARefusal)
{
    Answer({StartingReply(nullptr, -2)});
    EXPECT_EQ(Go([&] { return Status(session_, 99); }), kStarting);
    EXPECT_EQ(out_.str(), "starting: 120 of 300 VPNs are back\n");
    EXPECT_EQ(err_.str(), "vqctl: vpn 99: refused (-2 No such file or directory)\n");
}

// The status of a VPN whose instance ended and that was repaired.
Bytes HistoryReply(const char *problem)
{
    return StatusReply(problem, false, [](Kavel__Reply &, Kavel__VpnStatus &vpn) {
        static std::string revision = "r1";
        vpn.has_ends = vpn.has_last_end_time = vpn.has_repairs = vpn.has_next_start_time = 1;
        vpn.ends = 2;
        vpn.last_end_time = static_cast<std::uint64_t>(::time(nullptr)) - 10;
        vpn.next_start_time = vpn.last_end_time + 3600;
        vpn.repairs = 1;
        vpn.revision = revision.data();
    });
}

TEST_F(StatusCommandTest, EndsAndRepairsAreNoProblem)
{
    Answer({HistoryReply(nullptr)});
    EXPECT_EQ(Go([&] { return Status(session_, std::nullopt); }), kDone);
    EXPECT_THAT(out_.str(), ContainsRegex("\n\nvpn 7: ended 2 times, last 1[0-9] s ago; starts again in 59m[0-9]+s\n"
                                          "vpn 7: repaired 1 time\n$"));
}

TEST_F(StatusCommandTest, TheRevisionIsShownForASingleVpn)
{
    Answer({HistoryReply("no instance runs")});
    EXPECT_EQ(Go([&] { return Status(session_, 7); }), kRefused);
    EXPECT_THAT(out_.str(), ContainsRegex("\n\nvpn 7: no instance runs\nvpn 7: ended .*\nvpn 7: repaired 1 time\n"
                                          "vpn 7: revision r1\n$"));
}

TEST_F(StatusCommandTest, TheJsonOfAllVpnsHoldsTheRevision)
{
    Answer({HistoryReply(nullptr)});
    session_.json = true;
    EXPECT_EQ(Go([&] { return Status(session_, std::nullopt); }), kDone);
    EXPECT_THAT(out_.str(), HasSubstr(R"("revision": "r1")"));
}

} // namespace
} // namespace kavel::ctl
