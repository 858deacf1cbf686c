#include "finding_texts.h"
#include "instances/status.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

Kavel__VpnStatus With(const std::function<void(Kavel__VpnStatus &)> &change)
{
    Kavel__VpnStatus status = KAVEL__VPN_STATUS__INIT;
    status.vpn = 7;
    change(status);
    return status;
}

// ---- Problems ----

// An instance that runs and is meant to.
Kavel__VpnStatus Healthy()
{
    return With([](Kavel__VpnStatus &status) {
        status.meant = status.pid_file = status.alive = status.is_dnsmasq = status.in_namespace = status.answers = 1;
        status.pid = 42;
    });
}

struct ProcessCase {
    const char *name;
    std::function<void(Kavel__VpnStatus &)> change; // of a healthy status
    PidFileTraits traits;
    std::optional<std::string> problem;
};

TEST(ProcessProblem, TellsTheFirstThingThatIsWrong)
{
    const std::optional<std::string> none;
    const std::vector<ProcessCase> cases{
        {"healthy", [](auto &) {}, {}, none},
        {"no pid file, meant to run",
         [](auto &status) { status.pid_file = 0; },
         {},
         "no instance runs: it did not start, or was ended from outside"},
        {"no pid file, switched off", [](auto &status) { status.pid_file = status.meant = 0; }, {}, none},
        {"empty pid file", [](auto &) {}, {.isEmptyPidFile = true}, "pid file names no process"},
        {"pid 0", [](auto &status) { status.pid = 0; }, {}, "pid file names no process"},
        {"pid -1", [](auto &status) { status.pid = -1; }, {}, "pid file names no process"},
        {"gone", [](auto &status) { status.alive = 0; }, {}, "process 42 is gone"},
        {"other program",
         [](auto &status) { status.is_dnsmasq = 0; },
         {},
         "pid file names process 42, which is not dnsmasq"},
        {"other dnsmasq",
         [](auto &status) { status.is_dnsmasq = 0; },
         {.isOtherDnsmasq = true},
         "pid file names process 42, which is another dnsmasq"},
        {"other namespace", [](auto &status) { status.in_namespace = 0; }, {}, "runs in another network namespace"},
        {"switched off", [](auto &status) { status.meant = 0; }, {}, "runs although it is switched off"},
        {"starting without a pid file",
         [](auto &status) {
             status.starting = 1;
             status.pid_file = 0;
         },
         {},
         none},
        {"starting with the pid file of the instance before",
         [](auto &status) {
             status.starting = 1;
             status.alive = 0;
         },
         {},
         none}};
    for (const ProcessCase &each : cases) {
        Kavel__VpnStatus status = Healthy();
        each.change(status);
        EXPECT_EQ(TextOf(ProcessProblem(status, each.traits)), each.problem) << each.name;
    }
}

TEST(AnswerProblem, ComparesTheAnswerWithTheProcess)
{
    struct Case {
        bool meant;
        bool alive;
        bool answers;
        std::optional<std::string> problem;
    };
    const std::string silent = "does not answer on port 53";
    const std::string other = "something answers on port 53 although no instance is meant to run";
    for (const Case &each : {Case{true, true, true, std::nullopt}, Case{true, true, false, silent},
                             Case{false, true, false, silent}, Case{false, true, true, std::nullopt},
                             Case{true, false, false, std::nullopt}, Case{true, false, true, std::nullopt},
                             Case{false, false, false, std::nullopt}, Case{false, false, true, other}}) {
        Kavel__VpnStatus status = With([&](Kavel__VpnStatus &fields) {
            fields.meant = each.meant ? 1 : 0;
            fields.alive = each.alive ? 1 : 0;
            fields.answers = each.answers ? 1 : 0;
        });
        const std::string text = "meant, alive, answers: " + std::to_string(each.meant) + std::to_string(each.alive) +
                                 std::to_string(each.answers);
        EXPECT_EQ(TextOf(AnswerProblem(status)), each.problem) << text;
        status.starting = 1;
        EXPECT_EQ(TextOf(AnswerProblem(status)), std::nullopt) << text;
        status.starting = 0;
        status.vpn = 0;
        EXPECT_EQ(TextOf(AnswerProblem(status)), each.problem == other ? std::nullopt : each.problem)
            << "the box may have a resolver of its own; " << text;
    }
}

TEST(RuleProblem, ComparesTheRuleWithWhatIsMeant)
{
    Kavel__VpnStatus status = Healthy();
    EXPECT_EQ(TextOf(RuleProblem(status, true, false)), std::nullopt);
    EXPECT_EQ(TextOf(RuleProblem(status, false, false)), "the steering rule is missing");
    status.meant = 0;
    EXPECT_EQ(TextOf(RuleProblem(status, true, false)),
              "the steering rule is installed although the service is switched off");
    EXPECT_EQ(TextOf(RuleProblem(status, false, false)), std::nullopt);
}

TEST(StoredProblem, ComparesTheRecordWithWhatIsMeant)
{
    Kavel__VpnStatus status = Healthy();
    StoredRecord record;
    record.enable = true;
    EXPECT_EQ(TextOf(StoredProblem(status, record)), std::nullopt);
    record.enable = false;
    EXPECT_EQ(TextOf(StoredProblem(status, record)), "stored as switched off, but meant to run");
    status.meant = 0;
    EXPECT_EQ(TextOf(StoredProblem(status, record)), std::nullopt);
    record.enable = true;
    EXPECT_EQ(TextOf(StoredProblem(status, record)), "stored as switched on, but not meant to run");
    status.stopped = 1;
    EXPECT_EQ(TextOf(StoredProblem(status, record)), std::nullopt) << "a client has stopped it";
    status.meant = 1;
    record.enable = false;
    EXPECT_EQ(TextOf(StoredProblem(status, record)), "stored as switched off, but meant to run");
    record.problem = "is broken";
    EXPECT_EQ(TextOf(StoredProblem(status, record)), "its stored record cannot be read: is broken");
}

// ---- The status of a VPN ----

class StatusTest : public testing::Test {
  protected:
    StatusTest() : host_(Settings()) { host_.conversions.DnsmasqStrToConf = ConvertStoredText; }

    Config Settings() const
    {
        Config config = box_.Configuration();
        config.persistence = true;
        return config;
    }

    VpnStatus Status(std::uint32_t vpnId, KnownState known = {}, const StoredRecords &stored = {})
    {
        return StatusOfVpn(host_, instances_, vpnId, known, stored);
    }

    const std::uint32_t vpnId_ = TestVpn(1);
    TestBox box_;
    Host host_;
    Instances instances_{box_.Root()};
};

TEST_F(StatusTest, AVpnWithoutAnythingHasNoProcess)
{
    const VpnStatus status = Status(vpnId_);
    const Kavel__VpnStatus &fields = status.fields;
    EXPECT_EQ(fields.vpn, vpnId_);
    EXPECT_FALSE(fields.meant || fields.pid_file || fields.alive || fields.is_dnsmasq || fields.in_namespace ||
                 fields.answers || fields.has_stored || fields.has_rule || fields.has_dnat || fields.has_starting);
    EXPECT_EQ(fields.pid, 0);
    EXPECT_EQ(fields.hosts + fields.mx_hosts + fields.servers + fields.forwards, 0U);
    EXPECT_EQ(status.netns, "no-namespace-" + std::to_string(vpnId_));
    EXPECT_THAT(TextsOf(status.problems), ElementsAre("namespace " + status.netns + " does not exist"));
}

TEST_F(StatusTest, CountsTheLinesOfTheInstancesFiles)
{
    const std::string directory = "/etc/kavel/dnsmasq/vpn_" + std::to_string(vpnId_);
    box_.Write(directory + "/hosts", "1\n\n2\n3\n4");
    box_.Write(directory + "/dnsmasq.d/Mxhost.conf", "1\n2\n3\n");
    box_.Write(directory + "/resolv.conf", "1\n2\n");
    box_.Write(directory + "/dnsmasq.d/DnsProxy.conf", "1\n");
    const Kavel__VpnStatus fields = Status(vpnId_).fields;
    EXPECT_EQ(fields.hosts, 4U);
    EXPECT_EQ(fields.mx_hosts, 3U);
    EXPECT_EQ(fields.servers, 2U);
    EXPECT_EQ(fields.forwards, 1U);
}

TEST_F(StatusTest, DescribesTheProcessOfThePidFile)
{
    const FakeInstance instance(box_, vpnId_);
    box_.WritePidFile(vpnId_, std::to_string(instance.Pid()));
    instances_.SetMeantToRun(vpnId_, true);
    const VpnStatus status = Status(vpnId_);
    EXPECT_TRUE(status.fields.meant && status.fields.pid_file && status.fields.alive && status.fields.is_dnsmasq);
    EXPECT_EQ(status.fields.pid, instance.Pid());
    EXPECT_GT(status.fields.memory_bytes, 0U);
    EXPECT_FALSE(status.fields.in_namespace) << "the VPN has no namespace";
    EXPECT_THAT(TextsOf(status.problems), Contains("runs in another network namespace"));
}

TEST_F(StatusTest, RecognisesAnotherVpnsDnsmasq)
{
    const FakeInstance other(box_, TestVpn(2));
    box_.WritePidFile(vpnId_, std::to_string(other.Pid()));
    EXPECT_THAT(TextsOf(Status(vpnId_).problems),
                Contains("pid file names process " + std::to_string(other.Pid()) + ", which is another dnsmasq"));
    const FakeInstance shell(box_, vpnId_, "shell");
    box_.WritePidFile(vpnId_, std::to_string(shell.Pid()));
    EXPECT_THAT(TextsOf(Status(vpnId_).problems),
                Contains("pid file names process " + std::to_string(shell.Pid()) + ", which is not dnsmasq"));
}

TEST_F(StatusTest, TellsAnEmptyPidFileFromAMissingOne)
{
    box_.WritePidFile(vpnId_, "");
    EXPECT_THAT(TextsOf(Status(vpnId_).problems), Contains("pid file names no process"));
}

TEST_F(StatusTest, TellsWhatIsKnownBefore)
{
    instances_.SetMeantToRun(vpnId_, true);
    const VpnStatus starting = Status(vpnId_, {.starting = true, .answers = true});
    EXPECT_TRUE(starting.fields.has_starting && starting.fields.starting);
    EXPECT_TRUE(starting.fields.answers);
    EXPECT_THAT(TextsOf(starting.problems), Not(Contains(HasSubstr("no instance runs"))));
    EXPECT_THAT(TextsOf(Status(vpnId_).problems), Contains(HasSubstr("no instance runs")));
}

// Without privileges neither routes nor rules of the box can be read, since that enters its namespace.
TEST_F(StatusTest, DescribesTheBoxItself)
{
    const FakeInstance instance(box_, 0);
    box_.WritePidFile(0, std::to_string(instance.Pid()));
    box_.Write("/etc/kavel/dnsmasq/hosts", "1\n");
    instances_.SetMeantToRun(0, true);
    LogCapture log;
    const VpnStatus status = Status(0, {.starting = false, .answers = true});
    EXPECT_EQ(status.netns, "-");
    EXPECT_EQ(status.fields.hosts, 1U);
    EXPECT_TRUE(status.fields.is_dnsmasq && status.fields.in_namespace);
    EXPECT_FALSE(status.fields.has_rule || status.fields.has_dnat);
    EXPECT_THAT(TextsOf(status.problems),
                ElementsAre("its routes cannot be read: Operation not permitted", "its rules cannot be read"));
    EXPECT_THAT(log.Take(), HasSubstr("WARNING vpn 0: its rules cannot be read: "));
}

TEST_F(StatusTest, TheBoxThatDoesNotAnswerHasAProblem)
{
    const FakeInstance instance(box_, 0);
    box_.WritePidFile(0, std::to_string(instance.Pid()));
    LogCapture log;
    EXPECT_THAT(TextsOf(Status(0).problems), Contains("does not answer on port 53"));
}

TEST(IsIdleBox, IsTrueForVpnZeroWithoutAnythingToTell)
{
    const VpnStatus idle;
    EXPECT_TRUE(IsIdleBox(idle));
    for (const auto member : {&Kavel__VpnStatus::meant, &Kavel__VpnStatus::pid_file, &Kavel__VpnStatus::starting,
                              &Kavel__VpnStatus::stopped, &Kavel__VpnStatus::stored, &Kavel__VpnStatus::rule}) {
        VpnStatus status;
        status.fields.*member = 1;
        EXPECT_FALSE(IsIdleBox(status));
    }
    VpnStatus other;
    other.fields.vpn = 7;
    EXPECT_FALSE(IsIdleBox(other));
    VpnStatus routed;
    routed.fields.routes = 1;
    EXPECT_FALSE(IsIdleBox(routed));
    VpnStatus wrong;
    wrong.problems.push_back({Fault::kKernelUnreadable, "its rules cannot be read", ""});
    EXPECT_FALSE(IsIdleBox(wrong));
    VpnStatus revised;
    revised.revision = "r1";
    EXPECT_FALSE(IsIdleBox(revised));
}

TEST_F(StatusTest, TellsThatAClientHasStoppedIt)
{
    EXPECT_FALSE(Status(vpnId_, {}, {}).fields.has_stopped);
    const VpnStatus status = Status(vpnId_, {.stopped = true}, {});
    EXPECT_TRUE(status.fields.has_stopped && status.fields.stopped);
}

TEST_F(StatusTest, TellsWhatIsStored)
{
    StoredRecords stored;
    stored.isKnown = true;
    Kavel__VpnStatus fields = Status(vpnId_, {}, stored).fields;
    EXPECT_TRUE(fields.has_stored && !fields.stored && !fields.has_stored_enable);

    stored.records[vpnId_].enable = true;
    const VpnStatus enabled = Status(vpnId_, {}, stored);
    EXPECT_TRUE(enabled.fields.stored && enabled.fields.has_stored_enable && enabled.fields.stored_enable);
    EXPECT_THAT(TextsOf(enabled.problems), Contains("stored as switched on, but not meant to run"));

    stored.records[vpnId_].problem = "is broken";
    const VpnStatus broken = Status(vpnId_, {}, stored);
    EXPECT_TRUE(broken.fields.stored && !broken.fields.has_stored_enable);
    EXPECT_THAT(TextsOf(broken.problems), Contains("its stored record cannot be read: is broken"));

    stored.isKnown = false;
    EXPECT_FALSE(Status(vpnId_, {}, stored).fields.has_stored);
}

// ---- Stored records ----

TEST_F(StatusTest, ReadsTheStoredRecords)
{
    host_.store.Put(vpnId_, "on " + std::to_string(vpnId_), VQ_SQL_CONF_CPE_DNSMASQ);
    host_.store.Put(TestVpn(2), "nonsense", VQ_SQL_CONF_CPE_DNSMASQ);
    const StoredRecords one = ReadStoredRecords(host_, {vpnId_});
    EXPECT_TRUE(one.isKnown);
    EXPECT_EQ(one.problem, std::nullopt);
    ASSERT_EQ(one.records.size(), 1U);
    EXPECT_TRUE(one.records.at(vpnId_).enable);

    const StoredRecords none = ReadStoredRecords(host_, {TestVpn(3)});
    EXPECT_TRUE(none.isKnown);
    EXPECT_EQ(none.records.size(), 0U);

    const StoredRecords all = ReadStoredRecords(host_, {vpnId_, TestVpn(2)});
    ASSERT_EQ(all.records.size(), 2U);
    EXPECT_EQ(all.records.at(TestVpn(2)).problem, "Invalid argument");
}

TEST_F(StatusTest, TellsWhyTheStoreCannotBeRead)
{
    box_.Write("/store", "a file in the place of the directory");
    const StoredRecords stored = ReadStoredRecords(host_, {vpnId_});
    EXPECT_FALSE(stored.isKnown);
    EXPECT_THAT(stored.problem.value_or(""), HasSubstr("the store cannot be read: "));
}

TEST(ReadStoredRecords, KnowsNothingWithoutPersistence)
{
    const TestBox box;
    Host host(box.Configuration());
    const StoredRecords stored = ReadStoredRecords(host, {TestVpn(1)});
    EXPECT_FALSE(stored.isKnown);
    EXPECT_EQ(stored.problem, std::nullopt);
}

// ---- Instances of VPNs that are not configured ----

TEST_F(StatusTest, FindsInstancesOfVpnsThatAreNotConfigured)
{
    const std::uint32_t stray = TestVpn(9);
    const FakeInstance configured(box_, vpnId_);
    const FakeInstance instance(box_, stray);
    box_.WritePidFile(stray, std::to_string(instance.Pid()));
    int found = 0;
    for (const VpnStatus &status : StatusOfStrays(host_.config, instances_)) {
        EXPECT_NE(status.fields.vpn, vpnId_);
        EXPECT_THAT(TextsOf(status.problems), ElementsAre("an instance runs, but the VPN is not configured"));
        if (status.fields.vpn == stray) {
            ++found;
            EXPECT_EQ(status.fields.pid, instance.Pid());
            EXPECT_TRUE(status.fields.is_dnsmasq);
            EXPECT_EQ(status.netns, "-");
        }
    }
    EXPECT_EQ(found, 1);
}

} // namespace
} // namespace kavel::agent
