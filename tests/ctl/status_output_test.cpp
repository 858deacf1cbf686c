#include "status_output.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <optional>
#include <pty.h>
#include <string>
#include <vector>

#include "json_output.h"
#include "json_reader.h"
#include "status_samples.h"
#include "unique_fd.h"

namespace kavel::ctl {
namespace {

TEST_F(StatusTest, TableHasAlignedColumns)
{
    EXPECT_EQ(StatusTable(all_, {}),
              "       VPN  NAMESPACE       STATE    UPTIME  MEMORY  HOSTS  STORED  RULE  ANSWERS\n"
              "         0  -               stopped       -       -      0  -       -     -\n"
              "         7  vpn_7           running   3m12s    1.8M      3  yes     yes   yes\n"
              "4294967295  vpn_4294967295  failed    3m12s    1.8M      3  no      no    no\n");
}

TEST_F(StatusTest, ProblemsHaveTheirCodeAndWhatMendsThem)
{
    EXPECT_EQ(StatusLines(all_, {}), "vpn 4294967295: a-code: does not answer on port 53\n"
                                     "    do: this\n"
                                     "vpn 4294967295: a-code: runs in another?network namespace\n"
                                     "    do: this\n");
}

TEST_F(StatusTest, AProblemWithoutARemedyHasNone)
{
    failed_.findings.front()->remedy = nullptr;
    EXPECT_TRUE(StatusLines(all_, {}).starts_with("vpn 4294967295: a-code: does not answer on port 53\n"
                                                  "vpn 4294967295: a-code: runs"));
}

// The widest values of all columns, and a name that does not fit.
TEST_F(StatusTest, ATableIsNotWiderThanAsked)
{
    SampleVpn wide(4294967295, "customer-with-a-long-n\u00E4me-1");
    MakeRunning(wide, 1);
    wide.status.uptime_seconds = 34'570'800;
    wide.status.memory_bytes = 1'048'575;
    wide.status.hosts = 99999;
    wide.status.meant = 0;
    wide.status.has_starting = wide.status.starting = 1;
    const Kavel__VpnStatus *one = &wide.status;
    EXPECT_EQ(StatusTable({&one, 1}, {.widest = 80}),
              "       VPN  NAMESPACE   STATE      UPTIME   MEMORY  HOSTS  STORED  RULE  ANSWERS\n"
              "4294967295  custome...  starting  400d03h  1023.9K  99999  yes     yes   yes\n");
    EXPECT_NE(StatusTable({&one, 1}, {}).find("  customer-with-a-long-n\u00E4me-1  starting  "), std::string::npos);
}

TEST_F(StatusTest, ANameIsCutBetweenCharacters)
{
    SampleVpn wide(7, "\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4");
    const Kavel__VpnStatus *one = &wide.status;
    const FieldList fields = FieldsNamed("vpn,namespace,state", "");
    EXPECT_EQ(StatusTable({&one, 1}, {.fields = fields, .widest = 22}),
              "VPN  NAMESPACE   STATE\n"
              "  7  \u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4...  off\n");
    EXPECT_EQ(StatusTable({&one, 1}, {.fields = fields, .widest = 23}),
              "VPN  NAMESPACE    STATE\n"
              "  7  \u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4...  off\n");
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

TEST_F(StatusTest, TheSummaryCountsTheStates)
{
    EXPECT_EQ(SummaryLine(all_), "3 VPNs: 1 running, 1 failed, 1 stopped\n");
    EXPECT_EQ(SummaryLine(std::span(all_).first(1)), "1 VPN: 1 stopped\n");
    EXPECT_EQ(SummaryLine({}), "0 VPNs\n");
    std::vector<const Kavel__VpnStatus *> many(300, &running_.status);
    SampleVpn off(1, "a");
    SampleVpn degraded(2, "b");
    MakeRunning(degraded, 1);
    degraded.AddProblem("a problem");
    SampleVpn starting(3, "c");
    starting.status.has_starting = starting.status.starting = 1;
    many[0] = &off.status;
    many[1] = &degraded.status;
    many[2] = &starting.status;
    EXPECT_EQ(SummaryLine(many), "300 VPNs: 297 running, 1 degraded, 1 starting, 1 off\n");
}

void MakeStarting(SampleVpn &vpn)
{
    vpn.status.meant = vpn.status.has_starting = vpn.status.starting = 1;
}

TEST_F(StatusTest, StartingIsNoProblem)
{
    MakeStarting(stopped_);
    EXPECT_FALSE(AnyProblem(std::span(all_).first(2)));
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
    return StatusLines({&one, 1}, {.now = kNow, .withRevisions = withRevisions});
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
    EXPECT_EQ(StatusLines(all_, {.now = kNow, .withRevisions = true}),
              "vpn 7: a-code: no instance runs\n"
              "    do: this\n"
              "vpn 7: ended 2 times, last 10 s ago: killed by signal 9; starts again in 4 s\n"
              "vpn 7: revision r 1\n"
              "vpn 4294967295: a-code: does not answer on port 53\n"
              "    do: this\n"
              "vpn 4294967295: a-code: runs in another?network namespace\n"
              "    do: this\n"
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

// The document of a reply without anything else.
std::string JsonOfAll(StatusList vpns)
{
    const JsonPtr document = NewJsonDocument();
    Kavel__Reply reply{};
    kavel__reply__init(&reply);
    AddStatus(document.get(), reply, vpns, AllFields());
    return JsonDocument(document.get());
}

TEST_F(StatusTest, JsonHoldsEveryFieldOfTheProtocolAndTheState)
{
    AddHistory(failed_);
    failed_.status.has_undone_in_seconds = failed_.status.has_redirected = 1;
    std::string text = "x";
    Kavel__HistoryEntry last = KAVEL__HISTORY_ENTRY__INIT;
    last.sender = last.outcome = text.data();
    failed_.status.last_numbered = &last;
    const JsonPtr json = ParseJson(JsonOfAll(all_));
    json_object *const list = json_object_object_get(json.get(), "vpns");
    ASSERT_EQ(json_object_array_length(list), 3U);
    json_object *const vpn = json_object_array_get_idx(list, 2);
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
    const JsonPtr json = ParseJson(JsonOfAll({&one, 1}));
    json_object *const list = json_object_object_get(json.get(), "vpns");
    return json_object_to_json_string_ext(json_object_array_get_idx(list, 0), JSON_C_TO_STRING_PLAIN);
}

TEST_F(StatusTest, JsonHasTheValuesOfTheStatus)
{
    failed_.status.in_namespace = 0;
    failed_.status.memory_bytes = 18446744073709551615U;
    EXPECT_EQ(
        JsonOf(failed_.status),
        R"({"vpn":4294967295,"namespace":"vpn_4294967295","state":"failed","meant":true,"stopped":false,"starting":false,)"
        R"("pid_file":true,"pid":99,"alive":true,"is_dnsmasq":true,"in_namespace":false,"uptime_seconds":192,)"
        R"("memory_bytes":18446744073709551615,"hosts":3,"mx_hosts":1,"servers":2,"forwards":1,"routes":3,)"
        R"("stored":false,"stored_enable":null,"rule":false,"dnat":null,"answers":false,)"
        R"("problems":[{"code":"a-code","text":"does not answer on port 53","do":"this"},)"
        R"({"code":"a-code","text":"runs in another\nnetwork namespace","do":"this"}]})");
    EXPECT_EQ(
        JsonOf(stopped_.status),
        R"({"vpn":0,"namespace":"-","state":"stopped","meant":false,"stopped":true,"starting":false,"pid_file":false,"pid":0,)"
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

TEST_F(StatusTest, TheLastNumberedMessageIsAnObjectAndAColumn)
{
    std::string revision = "12";
    std::string sender = "pid 1, uid 0";
    std::string outcome = "refused: why";
    Kavel__HistoryEntry last = KAVEL__HISTORY_ENTRY__INIT;
    last.time = 5;
    last.revision = revision.data();
    last.sender = sender.data();
    last.result = -22;
    last.outcome = outcome.data();
    last.bytes = 9;
    running_.status.last_numbered = &last;
    EXPECT_THAT(JsonOf(running_.status),
                testing::EndsWith(R"("last_numbered":{"time":5,"sender":"pid 1, uid 0","revision":"12","result":-22,)"
                                  R"("outcome":"refused: why","undone":false,"bytes":9}})"));
    const std::vector<const StatusField *> fields = AllFields();
    const auto field = std::ranges::find(fields, "last_numbered", &StatusField::name);
    ASSERT_NE(field, fields.end());
    EXPECT_EQ((*field)->text(running_.status), "12: refused: why");
    EXPECT_EQ((*field)->text(failed_.status), "-");
}

TEST_F(StatusTest, JsonOfAStartingInstance)
{
    MakeStarting(stopped_);
    const std::string json = JsonOf(stopped_.status);
    EXPECT_NE(json.find(R"("state":"starting","meant":true,"stopped":true,"starting":true,"pid_file":false,)"),
              std::string::npos)
        << json;
}

TEST_F(StatusTest, JsonEscapesWhatMustNotReachATerminal)
{
    std::string netns = "a\u202E\u009B\xFF\x7F";
    stopped_.status.namespace_ = netns.data();
    const Kavel__VpnStatus *one = &stopped_.status;
    EXPECT_THAT(JsonOfAll({&one, 1}), testing::HasSubstr(R"("namespace": "a\u202e\u009b\ufffd\u007f")"));
}

TEST(StatusJson, OfNoVpnIsAnEmptyArray)
{
    EXPECT_EQ(JsonOfAll({}), "{\n  \"schema\": 1,\n  \"vpns\": [\n  ]\n}\n");
}

TEST(StartText, SaysHowManyVpnsAreBack)
{
    Kavel__Start start{};
    kavel__start__init(&start);
    start.back = 120;
    start.total = 300;
    EXPECT_EQ(StartText(start), "starting: 120 of 300 VPNs are back\n");
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
