// The box itself, VPN 0, is repaired here: it needs no namespace.
#include "supervision/repair.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "scratch.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::uint32_t kLocalAddress = 0x0A000001;

class RepairTest : public testing::Test {
  protected:
    explicit RepairTest(Platform platform = Platform::kCpe) : host_(Settings(platform))
    {
        wanted_.enables = true;
        const Bytes message = platform == Platform::kCpe ? PackCpe(0, true, VQ_DNSMASQ_OP_RELOAD) : PackPop(true);
        inForce_.Write(0, wanted_, {true, std::string(message.begin(), message.end())});
        instances_.CreateBoxDirectory();
        module_.onTranslate = [](VQ_DNSMASQ_CONF &record) {
            record.LocalIp = kLocalAddress;
            return 0;
        };
        module_.onRecover = [this] {
            const auto table =
                host_.config.platform == Platform::kCpe ? VQ_SQL_CONF_CPE_DNSMASQ : VQ_SQL_CONF_POP_DNSMASQ;
            VQ_PersistentConfList *list = host_.store.List(table);
            const VQ_DNSMASQ_CONF &record = reinterpret_cast<const VQ_DnsmasqConfNode *>(list->Head.next)->Dnsmasq;
            module_.calls.push_back(record.Op == VQ_DNSMASQ_OP_REBOOT ? "reboot" : "reload");
            VQ_SqliteConfListRelease(list);
            if (launches_) {
                (void)host_.launchOutputs.Begin(0);
            }
            for (const std::string &error : errors_) {
                host_.moduleErrors.Add(error);
            }
            return 0;
        };
    }

    Config Settings(Platform platform) const
    {
        Config config = box_.Configuration();
        config.platform = platform;
        return config;
    }

    RepairOutcome Repair(const std::vector<Part> &parts, pid_t instance = 0)
    {
        std::vector<Difference> differences;
        for (const Part part : parts) {
            differences.push_back({part, "differs"});
        }
        const LogCapture log;
        return repairs_.Repair(0, wanted_, differences, instance);
    }

    TestBox box_;
    Host host_;
    Instances instances_{box_.Root(), OwnIdentity()};
    InForceFiles inForce_{instances_};
    FakeModule module_;
    bool launches_ = false; // what the module applies launches an instance
    std::vector<std::string> errors_;
    InForce wanted_;
    Repairs repairs_{host_, instances_, module_.functions, inForce_};
};

TEST_F(RepairTest, FilesAreWrittenAgainByAReload)
{
    const RepairOutcome outcome = Repair({Part::kFiles});
    EXPECT_THAT(module_.calls, ElementsAre("translate", "recover", "reload"));
    EXPECT_EQ(outcome.problem, std::nullopt);
    EXPECT_FALSE(instances_.ReadPidFile(0).exists) << "no instance is known";
}

// The module signals the process that the pid file names.
TEST_F(RepairTest, BeforeAReloadThePidFileNamesTheInstance)
{
    box_.WritePidFile(0, "1\n");
    const FakeInstance instance(box_, 0, OwnProgram());
    EXPECT_EQ(Repair({Part::kFiles}, instance.Pid()).problem, std::nullopt);
    EXPECT_EQ(instances_.ReadPidFile(0).pid, instance.Pid());
}

TEST_F(RepairTest, AClosedDirectoryIsOpened)
{
    const std::vector<std::string> directories{instances_.Directory(0), instances_.Directory(0) + "/dnsmasq.d"};
    ASSERT_EQ(::chmod(directories[1].c_str(), 0700), 0);
    ASSERT_EQ(::chmod(directories[0].c_str(), 0700), 0);
    EXPECT_EQ(Repair({Part::kFiles}).problem, std::nullopt);
    EXPECT_EQ(ModeOf(directories[0]), 0755U);
    EXPECT_EQ(ModeOf(directories[1]), 0755U);
}

TEST_F(RepairTest, TheBoxWideDirectoryIsCreatedAgain)
{
    std::filesystem::remove_all(box_.Path("/etc/kavel"));
    EXPECT_EQ(Repair({Part::kFiles}).problem, std::nullopt);
    EXPECT_TRUE(std::filesystem::is_directory(instances_.Directory(0) + "/dnsmasq.d"));
}

TEST_F(RepairTest, TheModuleCreatesTheDirectoryOfAVpn)
{
    const std::uint32_t vpnId = TestVpn(1);
    inForce_.Write(vpnId, wanted_, inForce_.ReadContent(0));
    const std::vector<Difference> differences{{Part::kFiles, "its directory was gone"}};
    EXPECT_EQ(repairs_.Repair(vpnId, wanted_, differences, 0).problem, std::nullopt);
    EXPECT_THAT(module_.calls, ElementsAre("init " + std::to_string(vpnId), "translate", "recover", "reload"));
}

TEST_F(RepairTest, RoutesAreAdded)
{
    EXPECT_EQ(Repair({Part::kRoutes}).problem, std::nullopt);
    EXPECT_THAT(module_.calls, ElementsAre("translate", "add routes of 0"));
}

TEST_F(RepairTest, ARuleIsInstalled)
{
    EXPECT_EQ(Repair({Part::kRule}).problem, std::nullopt);
    EXPECT_THAT(module_.calls, ElementsAre("add rule of 0"));
}

TEST_F(RepairTest, APidFileIsWrittenAgain)
{
    const FakeInstance instance(box_, 0, OwnProgram());
    EXPECT_EQ(Repair({Part::kPidFile}, instance.Pid()).problem, std::nullopt);
    EXPECT_EQ(instances_.ReadPidFile(0).pid, instance.Pid());
    EXPECT_EQ(Repair({Part::kPidFile}).problem, std::nullopt);
    EXPECT_FALSE(instances_.ReadPidFile(0).exists) << "no instance is known";
    EXPECT_THAT(module_.calls, ElementsAre());
}

TEST_F(RepairTest, EachPartIsRepairedInTheOrderOfTheDifferences)
{
    EXPECT_EQ(Repair({Part::kFiles, Part::kRoutes, Part::kPidFile, Part::kRule}).problem, std::nullopt);
    EXPECT_THAT(module_.calls,
                ElementsAre("translate", "recover", "reload", "translate", "add routes of 0", "add rule of 0"));
}

TEST_F(RepairTest, TheFirstProblemIsTold)
{
    errors_ = {"hosts is bad (5:Input/output error).", "nothing was applied (5:Input/output error)."};
    module_.partResult = -ENETUNREACH;
    EXPECT_EQ(Repair({Part::kFiles, Part::kRoutes, Part::kRule}).problem, "hosts is bad (5:Input/output error).");
    EXPECT_EQ(module_.calls.back(), "add rule of 0") << "the other parts are repaired all the same";
    EXPECT_EQ(Repair({Part::kRoutes}).problem, "Network is unreachable") << "without a message of the module";
}

TEST_F(RepairTest, ContentThatCannotBeReadIsAProblem)
{
    std::filesystem::remove(instances_.StatePath(0, "inforce"));
    for (const Part part : {Part::kFiles, Part::kRoutes}) {
        EXPECT_THAT(Repair({part}).problem.value_or(""), HasSubstr("No such file or directory"));
    }
    EXPECT_THAT(module_.calls, ElementsAre());
}

// ---- Restart ----

TEST_F(RepairTest, AnInstanceThatIsGoneIsStartedWithEverythingThatBelongsToIt)
{
    launches_ = true;
    const RepairOutcome outcome = Repair({Part::kFiles, Part::kInstance, Part::kRule});
    EXPECT_THAT(module_.calls, ElementsAre("translate", "recover", "reboot"));
    EXPECT_EQ(outcome.problem, std::nullopt);
}

TEST_F(RepairTest, ARestartEndsEveryProcessOfTheInstance)
{
    const FakeInstance first(box_, 0, OwnProgram());
    const FakeInstance second(box_, 0, OwnProgram());
    const FakeInstance other(box_, TestVpn(1), OwnProgram());
    launches_ = true;
    const LogCapture log;
    EXPECT_EQ(repairs_.Restart(0).problem, std::nullopt);
    EXPECT_FALSE(first.IsAlive());
    EXPECT_FALSE(second.IsAlive());
    EXPECT_TRUE(other.IsAlive());
}

// A route over a link that is down.
TEST_F(RepairTest, WhatKeepsTheModuleFromTheLaunchDoesNotKeepTheInstanceFromStarting)
{
    errors_ = {"the route is bad (101:Network is unreachable)."};
    module_.onRestart = [this] {
        (void)host_.launchOutputs.Begin(0);
        return 0;
    };
    const RepairOutcome outcome = repairs_.Restart(0);
    EXPECT_THAT(module_.calls, ElementsAre("translate", "recover", "reboot", "restart 0"));
    EXPECT_EQ(outcome.problem, "the route is bad (101:Network is unreachable).");
}

TEST_F(RepairTest, AnInstanceThatCannotBeStartedIsAProblem)
{
    module_.onRestart = [] { return -EAGAIN; };
    EXPECT_EQ(repairs_.Restart(0).problem, "Resource temporarily unavailable");
}

// An older agent has not kept the content.
TEST_F(RepairTest, WithoutContentTheInstanceIsStartedAlone)
{
    std::filesystem::remove(instances_.StatePath(0, "inforce"));
    EXPECT_THAT(repairs_.Restart(0).problem.value_or(""), HasSubstr("No such file or directory"));
    EXPECT_THAT(module_.calls, ElementsAre("restart 0"));
}

// ---- A service that is off ----

TEST_F(RepairTest, AServiceThatIsOffIsEnded)
{
    wanted_.enables = false;
    const FakeInstance instance(box_, 0, OwnProgram());
    box_.WritePidFile(0, std::to_string(instance.Pid()));
    EXPECT_EQ(Repair({Part::kInstance}).problem, std::nullopt);
    EXPECT_THAT(module_.calls, ElementsAre("translate", "recover", "reload"));
    EXPECT_FALSE(instance.IsAlive());
    EXPECT_FALSE(instances_.ReadPidFile(0).exists);
}

TEST_F(RepairTest, APidFileThatCannotBeRemovedIsAProblem)
{
    std::filesystem::create_directories(box_.Path(PidFilePath(0)));
    EXPECT_THAT(repairs_.SwitchOff(0).problem.value_or(""), HasSubstr("kvl_dns_vpn_0.pid"));
}

// Without root the rules of a namespace cannot be read: what is left then is a case of the end-to-end tests.
TEST_F(RepairTest, TakingDownSwitchesOffWhatIsInForce)
{
    const FakeInstance instance(box_, 0, OwnProgram());
    box_.WritePidFile(0, std::to_string(instance.Pid()));
    bool isEnabled = true;
    module_.onRecover = [this, &isEnabled] {
        VQ_PersistentConfList *list = host_.store.List(VQ_SQL_CONF_CPE_DNSMASQ);
        isEnabled = reinterpret_cast<const VQ_DnsmasqConfNode *>(list->Head.next)->Dnsmasq.Enable != FALSE;
        VQ_SqliteConfListRelease(list);
        return 0;
    };
    const LogCapture log;
    (void)repairs_.TakeDown(0);
    EXPECT_THAT(module_.calls, ElementsAre("translate", "recover"));
    EXPECT_FALSE(isEnabled);
    EXPECT_FALSE(instance.IsAlive());
    EXPECT_FALSE(instances_.ReadPidFile(0).exists);
}

TEST_F(RepairTest, TakingDownEndsAnInstanceOfWhichNothingIsKnown)
{
    inForce_.Remove(0);
    const FakeInstance instance(box_, 0, OwnProgram());
    const LogCapture log;
    (void)repairs_.TakeDown(0);
    EXPECT_THAT(module_.calls, ElementsAre());
    EXPECT_FALSE(instance.IsAlive());
}

TEST_F(RepairTest, WhatCannotBeTakenDownIsAProblem)
{
    std::filesystem::create_directories(box_.Path(PidFilePath(0)));
    EXPECT_THAT(repairs_.TakeDown(0).problem.value_or(""), HasSubstr("kvl_dns_vpn_0.pid"));
    EXPECT_NE(inForce_.Read(0), std::nullopt) << "it can be tried again";
}

TEST_F(RepairTest, WhatNobodyHasConfirmedIsRemoved)
{
    const FakeInstance instance(box_, 0, OwnProgram());
    box_.WritePidFile(0, std::to_string(instance.Pid()));
    module_.partResult = -ENOENT; // there is no rule
    LogCapture log;
    repairs_.Forsake(0);
    EXPECT_THAT(module_.calls, ElementsAre("remove rule of 0"));
    EXPECT_FALSE(instance.IsAlive());
    EXPECT_FALSE(instances_.ReadPidFile(0).exists);
    EXPECT_EQ(log.Take(), "NOTICE vpn 0: process " + std::to_string(instance.Pid()) + " is killed\n");
}

// ---- A POP ----

class PopRepairTest : public RepairTest {
  protected:
    PopRepairTest() : RepairTest(Platform::kPop) {}
};

TEST_F(PopRepairTest, TheRulesOfAPopAreTwo)
{
    EXPECT_EQ(Repair({Part::kRule}).problem, std::nullopt);
    EXPECT_THAT(module_.calls,
                ElementsAre("add rule of 0", "translate", "add DNAT to " + std::to_string(kLocalAddress)));
}

TEST_F(PopRepairTest, WithoutTheFirstRuleTheSecondIsNotInstalled)
{
    module_.partResult = -EPERM;
    EXPECT_EQ(Repair({Part::kRule}).problem, "Operation not permitted");
    EXPECT_THAT(module_.calls, ElementsAre("add rule of 0"));
}

} // namespace
} // namespace kavel::agent
