// What a look finds and a repair mends, of what needs no namespace.
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "finding_texts.h"
#include "supervisor_fixture.h"
#include "vqFile.h"

namespace kavel::agent {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

using UpkeepTest = SupervisorTest;

constexpr const char *kHosts = "/etc/kavel/dnsmasq/hosts";

TEST_F(UpkeepTest, ARepairOfWhatIsRightDoesNothing)
{
    Start();
    (void)Serve();
    module_.calls.clear();
    const auto report = RepairNow();
    EXPECT_THAT(report.notes, IsEmpty());
    EXPECT_THAT(report.problems, IsEmpty());
    EXPECT_THAT(module_.calls, IsEmpty());
    EXPECT_FALSE(Described().fields.has_repairs);
}

TEST_F(UpkeepTest, ARepairTellsWhatItHasRepaired)
{
    Start();
    const FakeInstance &instance = Serve();
    box_.Write(kHosts, "edited\n");
    instances_.RemovePidFile(0);
    EXPECT_THAT(RepairNow().notes, ElementsAre("vpn 0: repaired: hosts was changed; its pid file was gone"));
    EXPECT_EQ(instances_.ReadPidFile(0).pid, instance.Pid());
    EXPECT_EQ(Calls("recover"), 1U);
    EXPECT_EQ(Described().fields.repairs, 1U);
    EXPECT_TRUE(Described().fields.has_last_repair_time);
    EXPECT_EQ(Described().lastRepair, "hosts was changed; its pid file was gone");
    EXPECT_THAT(RepairNow().notes, IsEmpty()) << "it is right now";
    EXPECT_THAT(log_.Take(), HasSubstr("NOTICE vpn 0: repaired: hosts was changed; its pid file was gone"));
}

// A message restarts the instance after it has written the files: others can change them before they are noted.
TEST_F(UpkeepTest, WhatOthersDidToAFileBeforeItWasNotedIsNoPartOfWhatIsInForce)
{
    Start();
    const std::string hosts = box_.Path(kHosts);
    ASSERT_EQ(VQ_WriteSyncWithFilePath(hosts.c_str(), "written\n", 8), 0);
    box_.Write(kHosts, "edited\n");
    (void)Serve();
    module_.onRecover = [this, hosts] {
        VQ_SqliteConfListRelease(host_.store.List(VQ_SQL_CONF_CPE_DNSMASQ));
        return VQ_WriteSyncWithFilePath(hosts.c_str(), "written\n", 8);
    };
    EXPECT_THAT(RepairNow().notes, ElementsAre("vpn 0: repaired: hosts was changed"));
    EXPECT_EQ(ReadText(hosts), "written\n");
    EXPECT_THAT(RepairNow().notes, IsEmpty());
}

TEST_F(UpkeepTest, ARepairWaitsForTheInstanceThatItStarts)
{
    Start();
    const FakeInstance &instance = Serve();
    supervisor_.OnFree([](std::uint32_t /*vpnId*/) {});
    instance.Kill();
    module_.onRecover = [this] {
        VQ_SqliteConfListRelease(host_.store.List(VQ_SQL_CONF_CPE_DNSMASQ));
        (void)host_.launchOutputs.Begin(0);
        running_.emplace_back(box_, 0, OwnProgram()); // without a pid file
        return 0;
    };
    ASSERT_TRUE(RunUntil(loop_, [this] { return IsPending(); }));
    std::optional<Supervisor::RepairReport> answered;
    supervisor_.RepairNow({0}, [&](const Supervisor::RepairReport &report) { answered = report; });
    DispatchReady(loop_);
    EXPECT_FALSE(answered);
    box_.WritePidFile(0, std::to_string(running_.back().Pid()));
    EXPECT_TRUE(RunUntil(loop_, [&] { return answered.has_value(); }));
    EXPECT_THAT(answered->notes, ElementsAre("vpn 0: repaired: its instance was started"));
}

TEST_F(UpkeepTest, ARepairTellsThatAnInstanceDoesNotStart)
{
    Start();
    const FakeInstance &instance = Serve();
    failure_ = "\ndnsmasq: no\n";
    instance.Kill();
    ASSERT_TRUE(RunUntil(loop_, [this] { return IsPending(); }));
    const auto report = RepairNow();
    EXPECT_THAT(report.notes, IsEmpty());
    EXPECT_THAT(report.problems, ElementsAre("vpn 0: did not start: dnsmasq: no"));
}

TEST_F(UpkeepTest, ARepairTellsWhatItCannotRepair)
{
    Start();
    (void)Serve();
    std::filesystem::remove_all(box_.Path("/etc/kavel"));
    box_.Write("/etc/kavel", "a file in the place of the directory");
    EXPECT_THAT(RepairNow().problems, ElementsAre(StartsWith("vpn 0: its directory was gone: ")));
    EXPECT_THAT(TextsOf(Described().problems), ElementsAre(StartsWith("its directory was gone: ")));
    std::filesystem::remove(box_.Path("/etc/kavel"));
    EXPECT_THAT(RepairNow().notes, ElementsAre("vpn 0: repaired: its directory was gone"));
    EXPECT_THAT(TextsOf(Described().problems), IsEmpty());
}

TEST_F(UpkeepTest, ARepairOfAVpnWithoutItsNamespaceSaysSo)
{
    Start();
    Apply(TestVpn(1), true, VQ_DNSMASQ_OP_RELOAD);
    const auto report = RepairNow({TestVpn(1), 0});
    EXPECT_THAT(report.notes, IsEmpty());
    EXPECT_THAT(report.problems, ElementsAre("vpn " + std::to_string(TestVpn(1)) + ": namespace \"" +
                                             host_.config.vpns[0].netns + "\" does not exist"));
}

TEST_F(UpkeepTest, AnInstanceThatRunsAlthoughItIsOffIsEnded)
{
    Start();
    const FakeInstance &instance = Serve();
    Apply(0, false, VQ_DNSMASQ_OP_RELOAD);
    ASSERT_TRUE(instance.IsAlive()) << "its rule may still be there";
    EXPECT_THAT(RepairNow().notes, ElementsAre("vpn 0: repaired: its instance ran although the service is off"));
    EXPECT_FALSE(instance.IsAlive());
    EXPECT_FALSE(instances_.ReadPidFile(0).exists);
}

TEST_F(UpkeepTest, ARepairIsAnsweredAtTheEnd)
{
    Start();
    running_.emplace_back(box_, 0, OwnProgram());
    Apply(0, true, VQ_DNSMASQ_OP_REBOOT);
    std::optional<Supervisor::RepairReport> answered;
    supervisor_.RepairNow({0}, [&](const Supervisor::RepairReport &report) { answered = report; });
    EXPECT_FALSE(answered);
    supervisor_.Stop();
    ASSERT_TRUE(answered);
    EXPECT_THAT(answered->problems, ElementsAre("the agent is stopping"));
}

// ---- Looks ----

// The look that follows a start has passed, and the next one is half a minute away.
TEST_F(UpkeepTest, ALostPidFileIsSeen)
{
    Start();
    const FakeInstance &instance = Serve();
    RunFor(1500ms);
    instances_.RemovePidFile(0);
    EXPECT_TRUE(RunUntil(loop_, [this] { return Described().fields.repairs == 1; }));
    EXPECT_EQ(instances_.ReadPidFile(0).pid, instance.Pid());
    EXPECT_TRUE(RunUntil(loop_, [&] { return instance.Reloads() == 1; })) << "a message may have come meanwhile";
    EXPECT_TRUE(instance.IsAlive());
}

TEST_F(UpkeepTest, AfterALaunchTheVpnIsLookedAt)
{
    Start();
    (void)Serve();
    box_.Write(kHosts, "edited\n");
    EXPECT_TRUE(RunUntil(loop_, [this] { return Described().fields.repairs == 1; }));
    EXPECT_EQ(Described().lastRepair, "hosts was changed");
}

class OftenTest : public SupervisorTest {
  protected:
    OftenTest() : SupervisorTest([](Config &config) { config.watch.lookSeconds = 1; }) {}
};

TEST_F(OftenTest, WhatNoEventTellsIsSeenByTheNextLook)
{
    Start();
    (void)Serve();
    for (std::uint32_t count = 1; count <= 2; ++count) {
        box_.Write(kHosts, "edited " + std::to_string(count));
        EXPECT_TRUE(RunUntil(
            loop_, [&] { return Described().fields.repairs == count; }, 5s));
    }
}

TEST_F(OftenTest, ALookThatIsDueDuringALaunchIsNotLost)
{
    Start();
    (void)Serve();
    running_.pop_back();
    instances_.RemovePidFile(0);
    running_.emplace_back(box_, 0, OwnProgram());
    Apply(0, true, VQ_DNSMASQ_OP_REBOOT);
    RunFor(1500ms);
    ASSERT_TRUE(IsPending());
    box_.WritePidFile(0, std::to_string(running_.back().Pid()) + "\n");
    ASSERT_TRUE(RunUntil(loop_, [this] { return !IsPending(); }));
    box_.Write(kHosts, "edited\n");
    EXPECT_TRUE(RunUntil(
        loop_, [this] { return Described().fields.repairs == 1; }, 5s));
}

TEST_F(OftenTest, ARepairThatFailsAgainIsToldOnce)
{
    Start();
    (void)Serve();
    std::filesystem::remove_all(box_.Path("/etc/kavel"));
    box_.Write("/etc/kavel", "a file in the place of the directory");
    RunFor(4500ms);
    EXPECT_EQ(Described().fields.repairs, 0U);
    EXPECT_THAT(TextsOf(Described().problems), ElementsAre(StartsWith("its directory was gone: ")));
    const std::string log = log_.Take();
    const std::string line = "cannot be repaired: ";
    const std::size_t first = log.find(line);
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(log.find(line, first + 1), std::string::npos) << "the same problem is told once";
}

// The repair itself has written the pid file: what looks at that comes before the next repair is due.
TEST_F(UpkeepTest, ALookBeforeTheNextRepairIsDueDoesNotReplaceIt)
{
    Start();
    (void)Serve();
    std::filesystem::remove_all(box_.Path("/etc/kavel"));
    box_.Write("/etc/kavel", "a file in the place of the directory");
    instances_.RemovePidFile(0);
    ASSERT_TRUE(RunUntil(loop_, [this] { return !Described().problems.empty(); }));
    RunFor(300ms);
    std::filesystem::remove(box_.Path("/etc/kavel"));
    EXPECT_TRUE(RunUntil(
        loop_, [this] { return Described().fields.repairs == 1; }, 5s));
}

// ---- Stored rows ----

class RowsTest : public SupervisorTest {
  protected:
    RowsTest() : SupervisorTest([](Config &config) { config.persistence = true; })
    {
        host_.conversions.DnsmasqConfToStr = [](const VQ_DNSMASQ_CONF *) { return ::strdup("on 0"); };
        host_.conversions.DataTransJsonStrFree = [](char *text) { std::free(text); };
    }

    void Store(const std::string &text) { host_.store.Put(0, text, VQ_SQL_CONF_CPE_DNSMASQ); }
};

TEST_F(RowsTest, ARowThatIsGoneIsWrittenAgain)
{
    isKept_ = true;
    Start();
    Store("on 0");
    (void)Serve();
    host_.store.Remove(0, VQ_SQL_CONF_CPE_DNSMASQ);
    EXPECT_THAT(RepairNow().problems, IsEmpty());
    EXPECT_EQ(host_.store.ReadText(0), "on 0");
    EXPECT_EQ(Described().lastRepair, "its stored row was gone");
}

TEST_F(RowsTest, AStoreThatIsGoneIsWrittenAgain)
{
    isKept_ = true;
    Start();
    Store("on 0");
    (void)Serve();
    std::filesystem::remove_all(box_.Path("/store"));
    EXPECT_THAT(RepairNow().problems, IsEmpty());
    EXPECT_EQ(host_.store.ReadText(0), "on 0");
}

// The store had failed when the message came.
TEST_F(RowsTest, ARowThatWasNeverWrittenIsWritten)
{
    isKept_ = true;
    Start();
    (void)Serve();
    EXPECT_THAT(RepairNow().problems, IsEmpty());
    EXPECT_EQ(host_.store.ReadText(0), "on 0");
}

TEST_F(RowsTest, ARowThatIsNotInForceIsRemoved)
{
    Start();
    (void)Serve();
    Store("on 0");
    EXPECT_THAT(RepairNow().problems, IsEmpty());
    EXPECT_EQ(host_.store.ReadText(0), std::nullopt);
    EXPECT_EQ(Described().lastRepair, "a row was stored that is not in force");
}

TEST_F(RowsTest, RowsOfWhatIsNotInForceAreLeft)
{
    Start();
    host_.store.Put(TestVpn(9), "on 9", VQ_SQL_CONF_CPE_DNSMASQ);
    Store("on 0");
    (void)RepairNow();
    EXPECT_EQ(host_.store.ReadText(0), "on 0");
    EXPECT_EQ(host_.store.ReadText(TestVpn(9)), "on 9");
}

} // namespace
} // namespace kavel::agent
