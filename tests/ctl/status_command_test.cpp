// `vqctl status` as a command: its request, its output and its exit code.
#include <cstdint>
#include <ctime>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

#include "commands_fixture.h"
#include "errors.h"
#include "fake_agent.h"
#include "status_command.h"

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
    EXPECT_EQ(Go([&] { return Status(session_, {}); }), kDone);
    EXPECT_THAT(out_.str(), HasSubstr("\n  7  vpn_7      off  "));
    EXPECT_EQ(Request(0)->verb, KAVEL__REQUEST__VERB__STATUS);
    EXPECT_EQ(Request(0)->has_vpn, 0);
}

TEST_F(StatusCommandTest, StatusOfAVpnWithProblemsReturnsRefused)
{
    Answer({StatusReply("does not answer on port 53")});
    EXPECT_EQ(Go([&] { return Status(session_, {7}); }), kRefused);
    EXPECT_THAT(out_.str(), HasSubstr("\n\nvpn 7: a-code: does not answer on port 53\n"));
    EXPECT_EQ(Request(0)->has_vpn, 1);
    EXPECT_EQ(Request(0)->vpn, 7U);
}

TEST_F(StatusCommandTest, StatusOfAStartingInstanceSucceeds)
{
    Answer({StatusReply(nullptr, true)});
    EXPECT_EQ(Go([&] { return Status(session_, {7}); }), kDone);
    EXPECT_THAT(out_.str(), HasSubstr("\n  7  vpn_7      starting  "));
}

TEST_F(StatusCommandTest, StatusOfAStartingInstanceWithProblems)
{
    Answer({StatusReply("the steering rule is missing", true)});
    session_.json = true;
    EXPECT_EQ(Go([&] { return Status(session_, {7}); }), kRefused);
    EXPECT_THAT(out_.str(), HasSubstr(R"("starting": true)"));
}

TEST_F(StatusCommandTest, StatusAsJson)
{
    Answer({StatusReply("does not answer on port 53")});
    session_.json = true;
    EXPECT_EQ(Go([&] { return Status(session_, {7}); }), kRefused);
    EXPECT_THAT(out_.str(), StartsWith("{\n  \"schema\": 1,\n  \"vpns\": [\n    {\n      \"vpn\": 7,\n"));
    EXPECT_THAT(out_.str(), HasSubstr(R"("text": "does not answer on port 53")"));
}

Bytes RefusalReply(std::int32_t result, bool isUnknownVpn)
{
    return PackReply(result, [isUnknownVpn](Kavel__Reply &reply) {
        static std::string text = "vpn 99 is not configured";
        reply.has_unknown_vpn = reply.unknown_vpn = isUnknownVpn ? 1 : 0;
        reply.text = isUnknownVpn ? text.data() : nullptr;
    });
}

TEST_F(StatusCommandTest, StatusOfAnUnknownVpnIsBadInput)
{
    Answer({RefusalReply(-2, true)});
    EXPECT_EQ(Go([&] { return Status(session_, {99}); }), kBadInput);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(err_.str(), "vqctl: vpn 99: refused (-2 No such file or directory): vpn 99 is not configured\n");
}

TEST_F(StatusCommandTest, ARefusalIsARefusal)
{
    Answer({RefusalReply(-16, false)});
    EXPECT_EQ(Go([&] { return Status(session_, {}); }), kRefused);
    EXPECT_EQ(err_.str(), "vqctl: status: refused (-16 Device or resource busy)\n");
}

TEST_F(StatusCommandTest, TheJsonOfARefusalIsAnError)
{
    Answer({RefusalReply(-2, true)});
    session_.json = true;
    EXPECT_EQ(Go([&] { return Status(session_, {99}); }), kBadInput);
    EXPECT_EQ(out_.str(), R"({
  "schema": 1,
  "error": {
    "exit": 2,
    "text": "vpn 99: refused (-2 No such file or directory): vpn 99 is not configured"
  }
}
)");
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
    EXPECT_EQ(Go([&] { return Status(session_, {}); }), kStarting);
    EXPECT_THAT(out_.str(), StartsWith("starting: 120 of 300 VPNs are back\nVPN  NAMESPACE  "));
    EXPECT_THAT(out_.str(), HasSubstr("\n  7  vpn_7      off  "));
    EXPECT_EQ(err_.str(), "");
}

TEST_F(StatusCommandTest, TheJsonOfAStartingAgentSaysHowFarItIs)
{
    Answer({StatusReply(nullptr)});
    session_.json = true;
    EXPECT_EQ(Go([&] { return Status(session_, {}); }), kDone);
    const std::string json = std::exchange(out_, std::ostringstream()).str();
    EXPECT_THAT(json, StartsWith("{\n  \"schema\": 1,\n  \"vpns\""));
    Answer({StartingReply(nullptr)});
    session_.json = true;
    EXPECT_EQ(Go([&] { return Status(session_, {}); }), kStarting);
    std::string starting = out_.str();
    const std::string start = "  \"start\": {\n    \"back\": 120,\n    \"total\": 300\n  },\n";
    ASSERT_THAT(starting, HasSubstr(start));
    EXPECT_EQ(starting.erase(starting.find(start), start.size()), json);
    EXPECT_EQ(err_.str(), "");
}

TEST_F(StatusCommandTest, TheJsonHasTheAgent)
{
    Answer({StatusReply(nullptr, false, [](Kavel__Reply &reply, Kavel__VpnStatus &) {
        static std::string version = "1.2";
        static Kavel__AgentStatus agent{};
        kavel__agent_status__init(&agent);
        agent.version = version.data();
        agent.uptime_seconds = 60;
        agent.memory_bytes = 5'000'000'000U;
        agent.restarts = 2;
        reply.agent = &agent;
    })});
    session_.json = true;
    EXPECT_EQ(Go([&] { return Status(session_, {}); }), kDone);
    EXPECT_THAT(out_.str(), StartsWith(R"({
  "schema": 1,
  "agent": {
    "version": "1.2",
    "uptime_seconds": 60,
    "memory_bytes": 5000000000,
    "restarts": 2
  },
  "vpns": [
)"));
}

TEST_F(StatusCommandTest, AStartingAgentComesBeforeProblems)
{
    Answer({StartingReply("no instance runs")});
    EXPECT_EQ(Go([&] { return Status(session_, {7}); }), kStarting);
    EXPECT_THAT(out_.str(), HasSubstr("\n\nvpn 7: a-code: no instance runs\n"));
}

TEST_F(StatusCommandTest, AStartingAgentComesBeforeARefusal)
{
    Answer({StartingReply(nullptr, -2)});
    EXPECT_EQ(Go([&] { return Status(session_, {99}); }), kStarting);
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
    EXPECT_EQ(Go([&] { return Status(session_, {}); }), kDone);
    EXPECT_THAT(out_.str(), ContainsRegex("\n\nvpn 7: ended 2 times, last 1[0-9] s ago; starts again in 59m[0-9]+s\n"
                                          "vpn 7: repaired 1 time\n\n1 VPN: 1 off\n$"));
}

TEST_F(StatusCommandTest, TheRevisionIsShownForASingleVpn)
{
    Answer({HistoryReply("no instance runs")});
    EXPECT_EQ(Go([&] { return Status(session_, {7}); }), kRefused);
    EXPECT_THAT(out_.str(),
                ContainsRegex("\n\nvpn 7: a-code: no instance runs\nvpn 7: ended .*\nvpn 7: repaired 1 time\n"
                              "vpn 7: revision r1\n$"));
}

TEST_F(StatusCommandTest, TheJsonOfAllVpnsHoldsTheRevision)
{
    Answer({HistoryReply(nullptr)});
    session_.json = true;
    EXPECT_EQ(Go([&] { return Status(session_, {}); }), kDone);
    EXPECT_THAT(out_.str(), HasSubstr(R"("revision": "r1")"));
}

// ---- What is shown ----

// Running VPNs, with these numbers and as much memory as their number; those from 100 on have a problem.
Bytes ManyReply(const std::vector<std::uint32_t> &ids)
{
    std::string name = "a-name";
    Kavel__Finding finding{};
    kavel__finding__init(&finding);
    finding.code = finding.text = finding.remedy = name.data();
    Kavel__Finding *problems = &finding;
    std::vector<Kavel__VpnStatus> vpns(ids.size());
    std::vector<Kavel__VpnStatus *> pointers;
    for (std::size_t i = 0; i < ids.size(); ++i) {
        kavel__vpn_status__init(&vpns[i]);
        vpns[i].vpn = ids[i];
        vpns[i].namespace_ = name.data();
        vpns[i].alive = 1;
        vpns[i].memory_bytes = ids[i];
        vpns[i].n_problems = ids[i] >= 100 ? 1 : 0;
        vpns[i].problems = &problems;
        pointers.push_back(&vpns[i]);
    }
    return PackReply(0, [&](Kavel__Reply &reply) {
        reply.n_vpns = pointers.size();
        reply.vpns = pointers.data();
    });
}

TEST_F(StatusCommandTest, OnlyProblemsAreShownAndAllAreCounted)
{
    Answer({ManyReply({1, 100, 2, 101})});
    EXPECT_EQ(Go([&] { return Status(session_, {.problemsOnly = true, .columns = "vpn,state"}); }), kRefused);
    EXPECT_EQ(out_.str(), "VPN  STATE\n"
                          "100  failed\n"
                          "101  failed\n"
                          "\n"
                          "vpn 100: a-name: a-name\n"
                          "    do: a-name\n"
                          "vpn 101: a-name: a-name\n"
                          "    do: a-name\n"
                          "\n"
                          "4 VPNs: 2 running, 2 failed\n");
}

TEST_F(StatusCommandTest, WithoutProblemsOnlyTheSummaryIsShown)
{
    Answer({ManyReply({1, 2})});
    EXPECT_EQ(Go([&] { return Status(session_, {.problemsOnly = true}); }), kDone);
    EXPECT_EQ(out_.str(), "2 VPNs: 2 running\n");
}

TEST_F(StatusCommandTest, TheRowsAreSorted)
{
    for (const auto &each : {std::pair{"memory", "  1\n  2\n 10\n"}, {"-memory_bytes", " 10\n  2\n  1\n"}}) {
        out_.str("");
        Answer({ManyReply({2, 10, 1})});
        EXPECT_EQ(Go([&] { return Status(session_, {.columns = "vpn", .sort = each.first}); }), kDone);
        EXPECT_EQ(out_.str(), std::string("VPN\n") + each.second + "\n3 VPNs: 3 running\n") << each.first;
    }
}

TEST_F(StatusCommandTest, TheOptionsHoldForTheJson)
{
    Answer({ManyReply({100, 1, 101})});
    session_.json = true;
    EXPECT_EQ(Go([&] { return Status(session_, {.problemsOnly = true, .columns = "vpn,state", .sort = "-vpn"}); }),
              kRefused);
    EXPECT_EQ(out_.str(), R"({
  "schema": 1,
  "vpns": [
    {
      "vpn": 101,
      "state": "failed"
    },
    {
      "vpn": 100,
      "state": "failed"
    }
  ]
}
)");
}

TEST_F(StatusCommandTest, NothingIsSentForAnUnknownColumn)
{
    const std::string columns = "is not a column; the columns are vpn, namespace, state, meant, ";
    EXPECT_EQ(Go([&] { return Status(session_, {.columns = "vpn,bogus"}); }), kBadInput);
    EXPECT_THAT(err_.str(), StartsWith("vqctl: --columns: \"bogus\" " + columns));
    err_.str("");
    EXPECT_EQ(Go([&] { return Status(session_, {.columns = ""}); }), kBadInput);
    EXPECT_THAT(err_.str(), StartsWith("vqctl: --columns: \"\" " + columns));
    err_.str("");
    EXPECT_EQ(Go([&] { return Status(session_, {.sort = "-bogus"}); }), kBadInput);
    EXPECT_THAT(err_.str(), StartsWith("vqctl: --sort: \"bogus\" " + columns));
}

TEST_F(StatusCommandTest, ListsTheColumnsWithoutAnAgent)
{
    EXPECT_EQ(Go([&] { return Status(session_, {.columns = "help"}); }), kDone);
    EXPECT_THAT(out_.str(), StartsWith("vpn\nnamespace\nstate\n"));
    EXPECT_THAT(out_.str(), HasSubstr("\nmemory_bytes\n"));
    out_.str("");
    session_.json = true;
    EXPECT_EQ(Go([&] { return Status(session_, {.columns = "help"}); }), kDone);
    EXPECT_THAT(out_.str(), StartsWith("{\n  \"schema\": 1,\n  \"columns\": [\n    \"vpn\",\n"));
}

} // namespace
} // namespace kavel::ctl
