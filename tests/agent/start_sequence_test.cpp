// The start of the agent on a box whose VPN 0 needs no namespace, and whose other VPN has none.
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "finding_texts.h"
#include "services/launch_mark.h"
#include "services/message_history.h"
#include "supervisor_fixture.h"

namespace kavel::agent {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class StartSequenceTest : public SupervisorTest {
  protected:
    StartSequenceTest() : SupervisorTest([](Config &config) { config.persistence = true; })
    {
        host_.conversions.DnsmasqConfToStr = [](const VQ_DNSMASQ_CONF *record) {
            return ::strdup(record->Enable != FALSE ? "on 0" : "off 0");
        };
        host_.conversions.DataTransJsonStrFree = [](char *text) { std::free(text); };
        module_.onTranslate = [this](VQ_DNSMASQ_CONF &record) {
            record.Enable = translatesToOn_ ? TRUE : FALSE;
            return 0;
        };
    }

    // What an earlier agent has kept about VPN 0.
    void KeepInForce(bool enables, bool isStored = false)
    {
        translatesToOn_ = enables;
        InForce facts;
        facts.enables = enables;
        facts.isStored = isStored;
        facts.revision = "r0";
        for (const std::string &file : instances_.Files(0)) {
            facts.files.push_back(MarkOfFile(file));
        }
        const Bytes bytes = PackCpe(0, enables, VQ_DNSMASQ_OP_REBOOT);
        InForceFiles(instances_).Write(0, facts, {true, std::string(bytes.begin(), bytes.end())});
    }

    void LeaveMark() const { box_.Write("/run/kavel/vpn_0.launch", ""); }

    void Store(const std::string &text) { host_.store.Put(0, text, VQ_SQL_CONF_CPE_DNSMASQ); }

    // What the history has of a message for VPN 0.
    void AddMessage(const std::string &revision, std::int32_t result = 0)
    {
        HistoryEntry entry;
        entry.revision = revision;
        entry.result = result;
        entry.outcome = result < 0 ? "refused: why" : "applied";
        entry.message = PackCpe(0, false, VQ_DNSMASQ_OP_REBOOT);
        entry.messageBytes = entry.message->size();
        host_.store.AddToHistory(0, entry);
    }

    bool translatesToOn_ = true;
};

TEST_F(StartSequenceTest, WhereNothingIsInForceNothingIsDone)
{
    Start();
    EXPECT_THAT(module_.calls, IsEmpty());
    EXPECT_THAT(log_.Take(), HasSubstr("NOTICE recovered: 0 in force, 0 running"));
}

TEST_F(StartSequenceTest, TheDirectoryOfAVpnIsCreatedAlsoIfItsNamespaceIsMissing)
{
    bool isStarted = false;
    supervisor_.Start([&] { isStarted = true; });
    EXPECT_TRUE(RunUntil(loop_, [&] { return isStarted; }));
    EXPECT_THAT(module_.calls, ElementsAre("init " + std::to_string(TestVpn(1))));
    EXPECT_THAT(log_.Take(), HasSubstr("WARNING vpn " + std::to_string(TestVpn(1)) + ": namespace "));
}

TEST_F(StartSequenceTest, WhatIsInForceIsLeftAlone)
{
    const FakeInstance &instance = Run();
    KeepInForce(true);
    Start();
    EXPECT_THAT(module_.calls, IsEmpty());
    EXPECT_TRUE(instance.IsAlive());
    EXPECT_EQ(Described().revision, "r0");
    EXPECT_FALSE(Described().fields.has_repairs);
    EXPECT_THAT(log_.Take(), HasSubstr("recovered: 1 in force, 1 running"));
}

TEST_F(StartSequenceTest, AnInstanceThatIsLeftAloneIsWatched)
{
    const FakeInstance &instance = Run();
    KeepInForce(true);
    Start();
    instance.Kill();
    EXPECT_TRUE(RunUntilLaunched(1));
    EXPECT_TRUE(instances_.IsRunning(0));
}

TEST_F(StartSequenceTest, WhatIsInForceAndDoesNotRunIsStarted)
{
    KeepInForce(true);
    Start();
    EXPECT_THAT(launches_, testing::SizeIs(1));
    EXPECT_TRUE(instances_.IsRunning(0));
    EXPECT_THAT(log_.Take(), HasSubstr("recovered: 1 in force, 1 running"));
}

TEST_F(StartSequenceTest, WhatDiffersIsRepaired)
{
    const FakeInstance &instance = Run();
    KeepInForce(true);
    box_.Write("/etc/kavel/dnsmasq/hosts", "edited\n");
    Start();
    EXPECT_THAT(launches_, IsEmpty());
    EXPECT_TRUE(instance.IsAlive());
    EXPECT_EQ(Described().lastRepair, "hosts was changed");
}

TEST_F(StartSequenceTest, AnInstanceThatDoesNotComeUpIsToldAndDoesNotHoldTheStartUp)
{
    failure_ = "\ndnsmasq: Address already in use\n";
    KeepInForce(true);
    Start();
    EXPECT_EQ(Described().lastEnd, "did not start: dnsmasq: Address already in use");
    EXPECT_THAT(log_.Take(), HasSubstr("recovered: 1 in force, 0 running"));
}

TEST_F(StartSequenceTest, WhatIsOffIsEnded)
{
    const FakeInstance &instance = Run();
    KeepInForce(false);
    Start();
    EXPECT_FALSE(instance.IsAlive());
    EXPECT_FALSE(instances_.ReadPidFile(0).exists);
}

// ---- Launches that an earlier agent has begun ----

TEST_F(StartSequenceTest, ALaunchThatNobodyHasConfirmedIsDoneAgain)
{
    (void)Run();
    KeepInForce(true);
    LeaveMark();
    Start();
    EXPECT_THAT(launches_, testing::SizeIs(1));
    EXPECT_TRUE(instances_.IsRunning(0));
    EXPECT_THAT(instances_.WithState(kLaunchMark), IsEmpty());
}

TEST_F(StartSequenceTest, AMarkOfAVpnThatIsOffIsRemoved)
{
    const FakeInstance &instance = Run();
    KeepInForce(false);
    LeaveMark();
    Start();
    EXPECT_FALSE(instance.IsAlive());
    EXPECT_THAT(launches_, IsEmpty());
    EXPECT_THAT(instances_.WithState(kLaunchMark), IsEmpty());
}

TEST_F(StartSequenceTest, ALaunchWithoutAnythingInForceIsRemoved)
{
    const FakeInstance &instance = Run();
    LeaveMark();
    Start();
    EXPECT_FALSE(instance.IsAlive());
    EXPECT_THAT(module_.calls, ElementsAre("remove rule of 0"));
    EXPECT_THAT(instances_.WithState(kLaunchMark), IsEmpty());
    EXPECT_THAT(log_.Take(), HasSubstr("its instance was started by a message that nobody has confirmed"));
}

TEST_F(StartSequenceTest, WaitsForALaunchThatIsNotVisibleYet)
{
    UniqueFd mark = LeaveLaunchMark(instances_.StatePath(0, kLaunchMark));
    bool isStarted = false;
    supervisor_.Start([&] { isStarted = true; });
    RunFor(200ms);
    EXPECT_FALSE(isStarted);
    EXPECT_TRUE(supervisor_.IsBusy(0));
    mark = UniqueFd();
    EXPECT_TRUE(RunUntil(loop_, [&] { return isStarted; }));
}

TEST_F(StartSequenceTest, ALaunchThatIsNeverVisibleIsWaitedForTwoSeconds)
{
    const UniqueFd mark = LeaveLaunchMark(instances_.StatePath(0, kLaunchMark));
    const auto begin = EventLoop::Clock::now();
    Start();
    EXPECT_GE(EventLoop::Clock::now() - begin, 2s);
}

TEST_F(StartSequenceTest, WaitsForAnInstanceThatHasNoPidFileYet)
{
    KeepInForce(true);
    const FakeInstance &starting = running_.emplace_back(box_, 0, OwnProgram());
    bool isStarted = false;
    supervisor_.Start([&] { isStarted = true; });
    RunFor(200ms);
    EXPECT_FALSE(isStarted);
    TakeDirectoryCalls();
    EXPECT_THAT(module_.calls, IsEmpty());
    box_.WritePidFile(0, std::to_string(starting.Pid()) + "\n");
    EXPECT_TRUE(RunUntil(loop_, [&] { return isStarted; }));
    EXPECT_THAT(module_.calls, IsEmpty()) << "it is what is in force";
    EXPECT_TRUE(starting.IsAlive());
}

// ---- Stored rows ----

TEST_F(StartSequenceTest, AStoredRowIsAppliedWhereNothingElseIsKnown)
{
    Store("on 0");
    Start();
    EXPECT_EQ(Calls("recover"), 1U);
    EXPECT_TRUE(instances_.IsRunning(0));
    EXPECT_TRUE(instances_.IsMeantToRun(0));
    const auto kept = InForceFiles(instances_).Read(0);
    ASSERT_TRUE(kept);
    EXPECT_TRUE(kept->enables && kept->isStored);
    EXPECT_EQ(InForceFiles(instances_).ReadContent(0).bytes, "on 0");
}

TEST_F(StartSequenceTest, AStoredRowHasTheRevisionOfTheMessageThatItWasMadeOf)
{
    Store("off 0");
    translatesToOn_ = false;
    AddMessage("11");
    AddMessage("12");
    AddMessage("13", -EIO);
    Start();
    EXPECT_EQ(Described().revision, "12");
}

TEST_F(StartSequenceTest, AStoredRowOfNoMessageInTheHistoryHasNoRevision)
{
    Store("off 0");
    AddMessage("12");
    translatesToOn_ = true;
    Start();
    EXPECT_EQ(Described().revision, std::nullopt);
}

TEST_F(StartSequenceTest, AStoredRowThatIsOffStartsNothing)
{
    instances_.SetMeantToRun(0, true);
    Store("off 0");
    Start();
    EXPECT_THAT(launches_, IsEmpty());
    EXPECT_EQ(Calls("recover"), 1U) << "its rule and routes are removed";
    EXPECT_FALSE(instances_.IsMeantToRun(0));
}

TEST_F(StartSequenceTest, ARowThatCannotBeReadIsKept)
{
    Store("garbage");
    Start();
    EXPECT_THAT(module_.calls, IsEmpty());
    EXPECT_EQ(host_.store.ReadText(0), "garbage");
    EXPECT_THAT(log_.Take(), HasSubstr("ERROR vpn 0: its stored record cannot be read, and is kept: Invalid argument"));
}

TEST_F(StartSequenceTest, ARowOfAVpnThatIsNotConfiguredIsToldAndKept)
{
    const std::uint32_t unknown = TestVpn(9);
    host_.store.Put(unknown, "on " + std::to_string(unknown), VQ_SQL_CONF_CPE_DNSMASQ);
    Start();
    EXPECT_THAT(module_.calls, IsEmpty());
    EXPECT_TRUE(host_.store.Has(unknown));
    EXPECT_THAT(log_.Take(), HasSubstr("WARNING vpn " + std::to_string(unknown) +
                                       ": its stored record is not applied: the VPN is not configured"));
}

TEST_F(StartSequenceTest, AStoreThatCannotBeReadIsToldAndTheStartGoesOn)
{
    box_.Write("/store", "a file in the place of the directory");
    Start();
    EXPECT_THAT(log_.Take(), HasSubstr("ERROR store " + host_.config.store + ": the stored records cannot be read: "));
}

TEST_F(StartSequenceTest, ARowThatIsNotWhatIsInForceIsReplaced)
{
    (void)Run();
    KeepInForce(true, true);
    Store("off 0");
    Start();
    EXPECT_EQ(host_.store.ReadText(0), "on 0");
    EXPECT_THAT(launches_, IsEmpty());
}

TEST_F(StartSequenceTest, ARowThatIsNotInForceIsRemoved)
{
    (void)Run();
    KeepInForce(true, false);
    Store("off 0");
    Start();
    EXPECT_EQ(host_.store.ReadText(0), std::nullopt);
}

// ---- An older agent ----

TEST_F(StartSequenceTest, AnInstanceOfAnOlderAgentIsWatched)
{
    instances_.SetMeantToRun(0, true);
    const FakeInstance &instance = Run();
    Start();
    EXPECT_THAT(module_.calls, IsEmpty());
    EXPECT_TRUE(instance.IsAlive());
    instance.Kill();
    EXPECT_TRUE(RunUntilLaunched(1));
    EXPECT_THAT(module_.calls, ElementsAre("restart 0")) << "what was in force is not known";
}

// What was in force is not known: neither its files nor whether its row is right.
TEST_F(StartSequenceTest, WhatAnOlderAgentHasLeftIsNotRepaired)
{
    instances_.SetMeantToRun(0, true);
    Store("garbage");
    const FakeInstance &instance = Run();
    Start();
    instance.Kill();
    EXPECT_TRUE(RunUntilLaunched(1));
    (void)RepairNow();
    EXPECT_THAT(RepairNow().problems, IsEmpty());
    EXPECT_FALSE(Described().fields.has_repairs);
    EXPECT_EQ(host_.store.ReadText(0), "garbage");
}

TEST_F(StartSequenceTest, AStoredRowThatCouldNotBeAppliedIsAppliedAgain)
{
    Store("on 0");
    const auto launch = module_.onRecover;
    module_.onRecover = [this] {
        VQ_SqliteConfListRelease(host_.store.List(VQ_SQL_CONF_CPE_DNSMASQ));
        host_.moduleErrors.Add("hosts cannot be written (28:No space left on device).");
        return 0;
    };
    Start();
    EXPECT_TRUE(instances_.IsRunning(0)) << "started alone";
    module_.onRecover = launch;
    EXPECT_THAT(RepairNow().notes, ElementsAre(HasSubstr("hosts was ")));
    EXPECT_THAT(RepairNow().notes, IsEmpty());
}

// ---- Instances of others ----

TEST_F(StartSequenceTest, AnInstanceOfAVpnThatIsNotConfiguredIsToldAndLeftAlone)
{
    const std::uint32_t unknown = TestVpn(9);
    const FakeInstance stray(box_, unknown, OwnProgram());
    Start();
    EXPECT_TRUE(stray.IsAlive());
    EXPECT_THAT(log_.Take(), HasSubstr("WARNING vpn " + std::to_string(unknown) +
                                       ": an instance runs, but the VPN is not configured"));
}

// ---- A VPN that cannot be served ----

TEST_F(StartSequenceTest, AVpnWithoutItsNamespaceDoesNotHoldTheStartUp)
{
    const std::uint32_t vpnId = TestVpn(1);
    host_.store.Put(vpnId, "on " + std::to_string(vpnId), VQ_SQL_CONF_CPE_DNSMASQ);
    Start();
    EXPECT_THAT(module_.calls, Not(Contains("recover")));
    EXPECT_FALSE(supervisor_.IsBusy(vpnId));
    EXPECT_TRUE(instances_.IsMeantToRun(vpnId)) << "it comes up when its namespace appears";
    EXPECT_THAT(log_.Take(), HasSubstr("WARNING vpn " + std::to_string(vpnId) + ": namespace \"" +
                                       host_.config.vpns[0].netns + "\" does not exist"));
}

// ---- Progress ----

TEST_F(StartSequenceTest, TellsHowFarItIs)
{
    EXPECT_FALSE(supervisor_.Progress());
    KeepInForce(true);
    module_.onRecover = [this] {
        VQ_SqliteConfListRelease(host_.store.List(VQ_SQL_CONF_CPE_DNSMASQ));
        (void)host_.launchOutputs.Begin(0);
        running_.emplace_back(box_, 0, OwnProgram()); // without a pid file
        return 0;
    };
    bool isStarted = false;
    supervisor_.Start([&] { isStarted = true; });
    ASSERT_TRUE(supervisor_.Progress());
    EXPECT_EQ(supervisor_.Progress()->total, 1U) << "of the configured VPNs";
    EXPECT_EQ(supervisor_.Progress()->back, 0U);
    ASSERT_TRUE(RunUntil(loop_, [this] { return IsPending(); }));
    DispatchReady(loop_);
    EXPECT_TRUE(supervisor_.IsBusy(0));
    EXPECT_FALSE(supervisor_.IsBusy(TestVpn(1))) << "the others are served meanwhile";
    ASSERT_TRUE(supervisor_.Progress());
    box_.WritePidFile(0, std::to_string(running_.back().Pid()) + "\n");
    EXPECT_TRUE(RunUntil(loop_, [&] { return isStarted; }));
    EXPECT_FALSE(supervisor_.Progress());
    EXPECT_FALSE(supervisor_.IsBusy(0));
}

TEST_F(StartSequenceTest, AVpnIsFreeWhenItsStateIsRestored)
{
    std::vector<std::uint32_t> freed;
    supervisor_.OnFree([&](std::uint32_t vpnId) { freed.push_back(vpnId); });
    bool isStarted = false;
    supervisor_.Start([&] { isStarted = true; });
    EXPECT_TRUE(supervisor_.IsBusy(0));
    EXPECT_TRUE(supervisor_.IsBusy(TestVpn(1)));
    EXPECT_TRUE(RunUntil(loop_, [&] { return isStarted; }));
    EXPECT_THAT(freed, testing::UnorderedElementsAre(0U, TestVpn(1)));
}

TEST_F(StartSequenceTest, ARepairDuringTheStartIsAnswered)
{
    KeepInForce(true);
    const FakeInstance &starting = running_.emplace_back(box_, 0, OwnProgram());
    bool isStarted = false;
    supervisor_.Start([&] { isStarted = true; });
    ASSERT_TRUE(RunUntil(loop_, [this] { return IsPending(); }));
    EXPECT_THAT(RepairNow().problems, ElementsAre("vpn 0: its state is not restored yet"));
    box_.WritePidFile(0, std::to_string(starting.Pid()) + "\n");
    EXPECT_TRUE(RunUntil(loop_, [&] { return isStarted; }));
    EXPECT_THAT(RepairNow().problems, IsEmpty());
}

TEST_F(StartSequenceTest, AStartThatIsStoppedDoesNotEnd)
{
    KeepInForce(true);
    bool isStarted = false;
    supervisor_.Start([&] { isStarted = true; });
    supervisor_.Stop();
    RunFor(200ms);
    EXPECT_FALSE(isStarted);
    EXPECT_THAT(module_.calls, IsEmpty());
}

// ---- A changed configuration ----

class ChangedConfigurationTest : public StartSequenceTest {
  protected:
    void Change(const std::function<void(Config &)> &change)
    {
        const Config old = host_.config;
        change(host_.config);
        supervisor_.ConfigurationChanged(old);
    }

    static Vpn NewVpn(std::uint32_t number)
    {
        Vpn vpn;
        vpn.id = TestVpn(number);
        vpn.netns = "no-namespace-" + std::to_string(vpn.id);
        return vpn;
    }
};

TEST_F(ChangedConfigurationTest, ANewVpnIsBroughtBack)
{
    Start();
    Change([](Config &config) { config.vpns.push_back(NewVpn(2)); });
    EXPECT_TRUE(supervisor_.IsBusy(TestVpn(2)));
    EXPECT_TRUE(RunUntil(loop_, [this] { return !supervisor_.IsBusy(TestVpn(2)); }));
    EXPECT_FALSE(supervisor_.Progress());
    EXPECT_THAT(log_.Take(), HasSubstr("NOTICE vpn " + std::to_string(TestVpn(2)) + ": is configured now"));
}

TEST_F(ChangedConfigurationTest, ARemovedVpnIsNotWatchedAnyMore)
{
    Start();
    Apply(TestVpn(1), true, VQ_DNSMASQ_OP_RELOAD, "r1");
    Change([](Config &config) { config.vpns.clear(); });
    EXPECT_EQ(Described(TestVpn(1)).revision, std::nullopt);
    EXPECT_THAT(log_.Take(), HasSubstr(": is not configured any more; what it has is left as it is"));
}

TEST_F(ChangedConfigurationTest, AChangeLeavesTheInstancesOfOthersAlone)
{
    Start();
    const FakeInstance &instance = Serve();
    Change([](Config &config) { config.vpns = {NewVpn(2)}; });
    RunFor(300ms);
    EXPECT_TRUE(instance.IsAlive());
    EXPECT_THAT(launches_, IsEmpty());
}

TEST_F(ChangedConfigurationTest, AVpnThatIsRemovedDuringTheStartDoesNotHoldItUp)
{
    const FakeInstance starting(box_, TestVpn(1), OwnProgram());
    bool isStarted = false;
    supervisor_.Start([&] { isStarted = true; });
    ASSERT_TRUE(RunUntil(loop_, [this] { return pending_.IsPending(TestVpn(1)); }));
    DispatchReady(loop_);
    EXPECT_FALSE(isStarted);
    Change([](Config &config) { config.vpns.clear(); });
    EXPECT_TRUE(RunUntil(
        loop_, [&] { return isStarted; }, 1s));
    EXPECT_THAT(module_.calls, IsEmpty());
}

TEST_F(ChangedConfigurationTest, ARepairOfAVpnThatIsRemovedIsAnswered)
{
    Start();
    const FakeInstance starting(box_, TestVpn(1), OwnProgram());
    Apply(TestVpn(1), true, VQ_DNSMASQ_OP_REBOOT);
    std::optional<Supervisor::RepairReport> answered;
    supervisor_.RepairNow({TestVpn(1)}, [&](const Supervisor::RepairReport &report) { answered = report; });
    Change([](Config &config) { config.vpns.clear(); });
    EXPECT_FALSE(answered);
    box_.WritePidFile(TestVpn(1), std::to_string(starting.Pid()) + "\n");
    EXPECT_TRUE(RunUntil(loop_, [&] { return answered.has_value(); }));
    EXPECT_THAT(answered->problems, ElementsAre("vpn " + std::to_string(TestVpn(1)) + ": is not configured any more"));
}

} // namespace
} // namespace kavel::agent
