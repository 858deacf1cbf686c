#include "status_output.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <optional>
#include <pty.h>
#include <string>
#include <vector>

#include "json_reader.h"
#include "unique_fd.h"

namespace kavel::ctl {
namespace {

// A status, and the owner of the strings in it.
struct SampleVpn {
    explicit SampleVpn(std::uint32_t id, std::string ownNamespace) : name(std::move(ownNamespace))
    {
        kavel__vpn_status__init(&status);
        status.vpn = id;
        status.namespace_ = name.data();
    }

    void AddProblem(const std::string &problem)
    {
        texts.push_back(std::make_unique<std::string>(problem));
        Kavel__Finding &finding = *findings.emplace_back(std::make_unique<Kavel__Finding>());
        kavel__finding__init(&finding);
        finding.code = code.data();
        finding.text = texts.back()->data();
        finding.remedy = remedy.data();
        pointers.push_back(&finding);
        status.problems = pointers.data();
        status.n_problems = pointers.size();
    }

    Kavel__VpnStatus status{};
    std::string name;
    std::vector<std::unique_ptr<std::string>> texts;
    std::string code = "a-code";
    std::string remedy = "this";
    std::vector<std::unique_ptr<Kavel__Finding>> findings;
    std::vector<Kavel__Finding *> pointers;
};

void MakeRunning(SampleVpn &vpn, std::int32_t pid)
{
    Kavel__VpnStatus &status = vpn.status;
    status.meant = status.pid_file = status.alive = status.is_dnsmasq = status.in_namespace = status.answers = 1;
    status.pid = pid;
    status.uptime_seconds = 192;
    status.memory_bytes = 1'900'000;
    status.hosts = 3;
    status.mx_hosts = 1;
    status.servers = 2;
    status.forwards = 1;
    status.routes = 3;
    status.has_stored = status.stored = status.has_stored_enable = status.stored_enable = 1;
    status.has_rule = status.rule = 1;
}

class StatusTest : public testing::Test {
  protected:
    StatusTest()
    {
        MakeRunning(running_, 4242);
        MakeRunning(failed_, 99);
        failed_.status.answers = 0;
        failed_.status.stored = failed_.status.has_stored_enable = failed_.status.rule = 0;
        failed_.AddProblem("does not answer on port 53");
        failed_.AddProblem("runs in another\nnetwork namespace");
    }

    SampleVpn stopped_{0, "-"};
    SampleVpn running_{7, "vpn_7"};
    SampleVpn failed_{4294967295, "vpn_4294967295"};
    std::vector<const Kavel__VpnStatus *> all_{&stopped_.status, &running_.status, &failed_.status};
};

TEST_F(StatusTest, TableHasAlignedColumnsAndProblemsBelow)
{
    EXPECT_EQ(
        StatusTable(all_, {}),
        R"(       VPN  NAMESPACE       STATE     PID  UPTIME  MEMORY  HOSTS  MX  SERVERS  FORWARDS  ROUTES  STORED  RULE  ANSWERS
         0  -               stopped     -       -       -      0   0        0         0       0  -       -     -
         7  vpn_7           running  4242   3m12s    1.8M      3   1        2         1       3  yes     yes   yes
4294967295  vpn_4294967295  failed     99   3m12s    1.8M      3   1        2         1       3  no      no    no

vpn 4294967295: does not answer on port 53
vpn 4294967295: runs in another?network namespace
)");
}

TEST_F(StatusTest, OnlyTheStatesAreColoured)
{
    const std::string plain = StatusTable(all_, {});
    std::string coloured = StatusTable(all_, {.colour = true});
    EXPECT_EQ(plain.find('\033'), std::string::npos);
    EXPECT_NE(coloured.find("  \033[33mstopped\033[0m  "), std::string::npos);
    EXPECT_NE(coloured.find("  \033[32mrunning\033[0m  "), std::string::npos);
    EXPECT_NE(coloured.find("  \033[31mfailed\033[0m   "), std::string::npos);
    for (const std::string code : {"\033[31m", "\033[32m", "\033[33m", "\033[0m", "\033[0m", "\033[0m"}) {
        coloured.erase(coloured.find(code), code.size());
    }
    EXPECT_EQ(coloured, plain);
}

TEST_F(StatusTest, TableWithoutProblemsEndsWithItsLastRow)
{
    EXPECT_EQ(
        StatusTable(std::span(all_).first(1), {}),
        "VPN  NAMESPACE  STATE    PID  UPTIME  MEMORY  HOSTS  MX  SERVERS  FORWARDS  ROUTES  STORED  RULE  ANSWERS\n"
        "  0  -          stopped    -       -       -      0   0        0         0       0  -       -     -\n");
}

TEST_F(StatusTest, RuleOfAPopNeedsTheDnatRule)
{
    running_.status.has_dnat = 1;
    const std::span<const Kavel__VpnStatus *const> one = std::span(all_).subspan(1, 1);
    EXPECT_NE(StatusTable(one, {}).find("  yes     no    yes\n"), std::string::npos);
    running_.status.dnat = 1;
    EXPECT_NE(StatusTable(one, {}).find("  yes     yes   yes\n"), std::string::npos);
    running_.status.rule = 0;
    EXPECT_NE(StatusTable(one, {}).find("  yes     no    yes\n"), std::string::npos);
}

TEST_F(StatusTest, TableShowsThePidOfADeadProcess)
{
    running_.status.alive = 0;
    const std::string table = StatusTable(std::span(all_).subspan(1, 1), {});
    EXPECT_NE(table.find("vpn_7      stopped  4242       -       -"), std::string::npos) << table;
}

void MakeStarting(SampleVpn &vpn)
{
    vpn.status.meant = vpn.status.has_starting = vpn.status.starting = 1;
}

TEST_F(StatusTest, TableShowsAStartingInstance)
{
    MakeStarting(stopped_);
    const std::span<const Kavel__VpnStatus *const> one = std::span(all_).first(1);
    EXPECT_EQ(
        StatusTable(one, {}),
        "VPN  NAMESPACE  STATE     PID  UPTIME  MEMORY  HOSTS  MX  SERVERS  FORWARDS  ROUTES  STORED  RULE  ANSWERS\n"
        "  0  -          starting    -       -       -      0   0        0         0       0  -       -     -\n");
    EXPECT_NE(StatusTable(one, {.colour = true}).find("  \033[36mstarting\033[0m  "), std::string::npos);
}

TEST_F(StatusTest, StartingIsNoProblem)
{
    MakeStarting(stopped_);
    EXPECT_FALSE(AnyProblem(std::span(all_).first(2)));
}

TEST_F(StatusTest, ProblemsOfAStartingInstanceComeFirst)
{
    MakeStarting(failed_);
    const std::string table = StatusTable(std::span(all_).subspan(2), {});
    EXPECT_NE(table.find("  failed  "), std::string::npos) << table;
    EXPECT_EQ(table.find("starting"), std::string::npos) << table;
}

constexpr std::uint64_t kNow = 5'000'000'000;

// Its instance ended and it was repaired. The texts live as long as the program.
void AddHistory(SampleVpn &vpn)
{
    static std::string lastEnd = "killed by signal 9";
    static std::string lastRepair = "the steering rule was gone";
    static std::string revision = "r 1";
    Kavel__VpnStatus &status = vpn.status;
    status.has_ends = status.has_last_end_time = status.has_repairs = status.has_last_repair_time = 1;
    status.has_next_start_time = 1;
    status.ends = 2;
    status.last_end_time = kNow - 10;
    status.last_end = lastEnd.data();
    status.next_start_time = kNow + 4;
    status.repairs = 3;
    status.last_repair_time = kNow - 25;
    status.last_repair = lastRepair.data();
    status.revision = revision.data();
}

// What stands below the table of one VPN.
std::string Below(const Kavel__VpnStatus &status, bool withRevisions = false)
{
    const Kavel__VpnStatus *one = &status;
    const std::string table = StatusTable({&one, 1}, {.now = kNow, .withRevisions = withRevisions});
    const std::size_t gap = table.find("\n\n");
    return gap == std::string::npos ? "" : table.substr(gap + 2);
}

TEST_F(StatusTest, EndsAndRepairsStandBelowTheTable)
{
    AddHistory(running_);
    EXPECT_EQ(Below(running_.status), "vpn 7: ended 2 times, last 10 s ago: killed by signal 9; starts again in 4 s\n"
                                      "vpn 7: repaired 3 times, last 25 s ago: the steering rule was gone\n");
    EXPECT_FALSE(AnyProblem(std::span(all_).first(2)));
}

TEST_F(StatusTest, TheLinesOfAVpnStandTogether)
{
    AddHistory(running_);
    AddHistory(failed_);
    running_.status.repairs = failed_.status.ends = failed_.status.has_last_repair_time = 0;
    running_.AddProblem("no instance runs");
    const std::string table = StatusTable(all_, {.now = kNow, .withRevisions = true});
    EXPECT_EQ(table.substr(table.find("\n\n")),
              "\n\nvpn 7: no instance runs\n"
              "vpn 7: ended 2 times, last 10 s ago: killed by signal 9; starts again in 4 s\n"
              "vpn 7: revision r 1\n"
              "vpn 4294967295: does not answer on port 53\n"
              "vpn 4294967295: runs in another?network namespace\n"
              "vpn 4294967295: repaired 3 times: the steering rule was gone\n"
              "vpn 4294967295: revision r 1\n");
}

TEST_F(StatusTest, AStartThatIsNotInTheFutureIsNotShown)
{
    AddHistory(running_);
    running_.status.repairs = 0;
    running_.status.next_start_time = kNow;
    EXPECT_EQ(Below(running_.status), "vpn 7: ended 2 times, last 10 s ago: killed by signal 9\n");
    running_.status.next_start_time = kNow + 1;
    EXPECT_EQ(Below(running_.status), "vpn 7: ended 2 times, last 10 s ago: killed by signal 9; starts again in 1 s\n");
    running_.status.has_next_start_time = 0;
    EXPECT_EQ(Below(running_.status), "vpn 7: ended 2 times, last 10 s ago: killed by signal 9\n");
}

TEST_F(StatusTest, DurationsFromAMinuteOnHaveTwoUnits)
{
    AddHistory(running_);
    running_.status.repairs = 0;
    running_.status.last_end_time = kNow - 59;
    running_.status.next_start_time = kNow + 60;
    EXPECT_EQ(Below(running_.status),
              "vpn 7: ended 2 times, last 59 s ago: killed by signal 9; starts again in 1m00s\n");
    running_.status.last_end_time = kNow - 60;
    running_.status.has_next_start_time = 0;
    EXPECT_EQ(Below(running_.status), "vpn 7: ended 2 times, last 1m00s ago: killed by signal 9\n");
}

TEST_F(StatusTest, AnEndInTheFutureWasJustNow)
{
    AddHistory(running_);
    running_.status.repairs = running_.status.has_next_start_time = 0;
    running_.status.last_end_time = kNow + 100;
    EXPECT_EQ(Below(running_.status), "vpn 7: ended 2 times, last 0 s ago: killed by signal 9\n");
}

TEST_F(StatusTest, UnsentDetailsOfAnEndAreNotShown)
{
    running_.status.has_ends = running_.status.ends = 1;
    EXPECT_EQ(Below(running_.status), "vpn 7: ended 1 time\n");
}

TEST_F(StatusTest, TheRevisionIsShownOnRequest)
{
    std::string revision = "a\u202E";
    running_.status.revision = revision.data();
    EXPECT_EQ(Below(running_.status, true), "vpn 7: revision a?\n");
    EXPECT_EQ(Below(running_.status, false), "");
    EXPECT_EQ(Below(stopped_.status, true), "");
}

TEST_F(StatusTest, AnyProblemLooksAtEveryVpn)
{
    EXPECT_TRUE(AnyProblem(all_));
    EXPECT_FALSE(AnyProblem(std::span(all_).first(2)));
    EXPECT_FALSE(AnyProblem({}));
}

TEST_F(StatusTest, AMessageThatWaitsForItsConfirmationIsToldBelow)
{
    running_.status.has_undone_in_seconds = 1;
    running_.status.undone_in_seconds = 40;
    EXPECT_EQ(Below(running_.status, false), "vpn 7: not confirmed, undone in 40 s\n");
}

TEST_F(StatusTest, JsonHoldsEveryFieldOfTheProtocolAndTheState)
{
    AddHistory(failed_);
    failed_.status.has_undone_in_seconds = 1;
    const JsonPtr json = ParseJson(StatusJson(all_));
    ASSERT_EQ(json_object_array_length(json.get()), 3U);
    json_object *const vpn = json_object_array_get_idx(json.get(), 2);
    const ProtobufCMessageDescriptor &protocol = kavel__vpn_status__descriptor;
    EXPECT_EQ(static_cast<unsigned>(json_object_object_length(vpn)), protocol.n_fields + 1);
    EXPECT_TRUE(HasKey(vpn, "state"));
    for (const ProtobufCFieldDescriptor &field : std::span(protocol.fields, protocol.n_fields)) {
        EXPECT_TRUE(HasKey(vpn, field.name)) << field.name;
    }
}

std::string JsonOf(const Kavel__VpnStatus &status)
{
    const Kavel__VpnStatus *one = &status;
    const JsonPtr json = ParseJson(StatusJson({&one, 1}));
    return json_object_to_json_string_ext(json_object_array_get_idx(json.get(), 0), JSON_C_TO_STRING_PLAIN);
}

TEST_F(StatusTest, JsonHasTheValuesOfTheStatus)
{
    failed_.status.in_namespace = 0;
    failed_.status.memory_bytes = 18446744073709551615U;
    EXPECT_EQ(JsonOf(failed_.status),
              R"({"vpn":4294967295,"namespace":"vpn_4294967295","state":"failed","meant":true,"starting":false,)"
              R"("pid_file":true,"pid":99,"alive":true,"is_dnsmasq":true,"in_namespace":false,"uptime_seconds":192,)"
              R"("memory_bytes":18446744073709551615,"hosts":3,"mx_hosts":1,"servers":2,"forwards":1,"routes":3,)"
              R"("stored":false,"stored_enable":null,"rule":false,"dnat":null,"answers":false,)"
              R"("problems":[{"code":"a-code","text":"does not answer on port 53","do":"this"},)"
              R"({"code":"a-code","text":"runs in another\nnetwork namespace","do":"this"}]})");
    EXPECT_EQ(JsonOf(stopped_.status),
              R"({"vpn":0,"namespace":"-","state":"stopped","meant":false,"starting":false,"pid_file":false,"pid":0,)"
              R"("alive":false,"is_dnsmasq":false,"in_namespace":false,"uptime_seconds":0,"memory_bytes":0,)"
              R"("hosts":0,"mx_hosts":0,"servers":0,"forwards":0,"routes":0,)"
              R"("stored":null,"stored_enable":null,"rule":null,"dnat":null,"answers":false,"problems":[]})");
    running_.status.has_dnat = running_.status.dnat = 1;
    const std::string running = JsonOf(running_.status);
    EXPECT_NE(running.find(R"("state":"running",)"), std::string::npos);
    EXPECT_NE(running.find(R"("stored":true,"stored_enable":true,"rule":true,"dnat":true,"answers":true,)"),
              std::string::npos);
}

TEST_F(StatusTest, JsonHasTheHistoryThatWasSent)
{
    AddHistory(running_);
    EXPECT_THAT(
        JsonOf(running_.status),
        testing::EndsWith(R"("problems":[],"ends":2,"last_end_time":4999999990,"last_end":"killed by signal 9",)"
                          R"("next_start_time":5000000004,"repairs":3,"last_repair_time":4999999975,)"
                          R"("last_repair":"the steering rule was gone","revision":"r 1"})"));
}

TEST_F(StatusTest, JsonOfAStartingInstance)
{
    MakeStarting(stopped_);
    const std::string json = JsonOf(stopped_.status);
    EXPECT_NE(json.find(R"("state":"starting","meant":true,"starting":true,"pid_file":false,)"), std::string::npos)
        << json;
}

TEST_F(StatusTest, JsonEscapesWhatMustNotReachATerminal)
{
    std::string netns = "a\u202E\u009B\xFF\x7F";
    stopped_.status.namespace_ = netns.data();
    const Kavel__VpnStatus *one = &stopped_.status;
    EXPECT_THAT(StatusJson({&one, 1}), testing::HasSubstr(R"("namespace": "a\u202e\u009b\ufffd\u007f")"));
}

TEST(StatusJson, OfNoVpnIsAnEmptyArray)
{
    EXPECT_EQ(json_object_array_length(ParseJson(StatusJson({})).get()), 0U);
}

TEST(StartText, SaysHowManyVpnsAreBack)
{
    Kavel__Start start{};
    kavel__start__init(&start);
    start.back = 120;
    start.total = 300;
    EXPECT_EQ(StartText(start), "starting: 120 of 300 VPNs are back\n");
}

TEST(UptimeText, ShowsTwoUnits)
{
    EXPECT_EQ(UptimeText(0), "0s");
    EXPECT_EQ(UptimeText(59), "59s");
    EXPECT_EQ(UptimeText(60), "1m00s");
    EXPECT_EQ(UptimeText(192), "3m12s");
    EXPECT_EQ(UptimeText(3599), "59m59s");
    EXPECT_EQ(UptimeText(3600), "1h00m");
    EXPECT_EQ(UptimeText(86399), "23h59m");
    EXPECT_EQ(UptimeText(86400), "1d00h");
    EXPECT_EQ(UptimeText(34'570'800), "400d03h");
}

TEST(MemoryText, ShowsOneDecimalInTheLargestUnit)
{
    EXPECT_EQ(MemoryText(0), "0B");
    EXPECT_EQ(MemoryText(1023), "1023B");
    EXPECT_EQ(MemoryText(1024), "1.0K");
    EXPECT_EQ(MemoryText(1'048'575), "1023.9K");
    EXPECT_EQ(MemoryText(1'048'576), "1.0M");
    EXPECT_EQ(MemoryText(1'900'000), "1.8M");
    EXPECT_EQ(MemoryText(18446744073709551615U), "15.9E");
}

class ColourTest : public testing::Test {
  public:
    ColourTest()
    {
        int leader = -1;
        int terminal = -1;
        EXPECT_EQ(::openpty(&leader, &terminal, nullptr, nullptr, nullptr), 0);
        leader_ = UniqueFd(leader);
        terminal_ = UniqueFd(terminal);
        if (const char *value = std::getenv("NO_COLOR")) {
            before_ = value;
        }
        ::unsetenv("NO_COLOR");
    }
    ~ColourTest() override { before_ ? ::setenv("NO_COLOR", before_->c_str(), 1) : ::unsetenv("NO_COLOR"); }

  protected:
    UniqueFd leader_;
    UniqueFd terminal_;
    std::optional<std::string> before_;
};

TEST_F(ColourTest, IsWantedOnATerminal)
{
    EXPECT_TRUE(WantsColour(terminal_.Get()));
}

TEST_F(ColourTest, IsNotWantedWithNoColor)
{
    ::setenv("NO_COLOR", "1", 1);
    EXPECT_FALSE(WantsColour(terminal_.Get()));
    ::setenv("NO_COLOR", "", 1);
    EXPECT_TRUE(WantsColour(terminal_.Get()));
}

TEST_F(ColourTest, IsNotWantedWithoutATerminal)
{
    EXPECT_FALSE(WantsColour(-1));
}

} // namespace
} // namespace kavel::ctl
