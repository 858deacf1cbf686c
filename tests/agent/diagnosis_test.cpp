// Links, routes and addresses need root: the files and the process of the box itself are looked at here.
#include "instances/diagnosis.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/sqlite.h"
#include "finding_texts.h"
#include "instances/start_files.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class DiagnosisTest : public testing::Test {
  protected:
    DiagnosisTest()
    {
        instances_.CreateBoxDirectory();
        for (const char *path : {"/etc/kavel", "/etc/kavel/dnsmasq", "/etc/kavel/dnsmasq/dnsmasq.d"}) {
            SetMode(path, 0755);
        }
        status_.netns = "-";
        status_.fields.meant = 1;
    }

    void SetMode(const std::string &path, mode_t mode) const { ASSERT_EQ(::chmod(box_.Path(path).c_str(), mode), 0); }

    std::vector<Finding> Found() { return FindFaults(host_, instances_, status_); }

    TestBox box_;
    Host host_{box_.Configuration()};
    Instances instances_{box_.Root()};
    VpnStatus status_;
};

TEST_F(DiagnosisTest, NothingIsWrong)
{
    EXPECT_THAT(TextsOf(Found()), IsEmpty());
}

TEST_F(DiagnosisTest, AVpnThatIsOffIsNotLookedAt)
{
    SetMode("/etc/kavel", 0700);
    status_.fields.meant = 0;
    EXPECT_THAT(TextsOf(Found()), IsEmpty());
}

TEST_F(DiagnosisTest, AVpnWithoutANamespaceIsNotLookedAt)
{
    SetMode("/etc/kavel", 0700);
    status_.fields.vpn = TestVpn(1);
    EXPECT_THAT(TextsOf(Found()), IsEmpty());
}

TEST_F(DiagnosisTest, WhatDnsmasqsUserCannotRead)
{
    SetMode("/etc/kavel", 0700);
    SetMode("/etc/kavel/dnsmasq/hosts", 0600);
    EXPECT_THAT(TextsOf(Found()),
                ElementsAre(box_.Path("/etc/kavel") + " is closed to dnsmasq's user",
                            box_.Path("/etc/kavel/dnsmasq/hosts") + " cannot be read by dnsmasq's user"));
}

TEST_F(DiagnosisTest, NamesThatAreNotServedAreToldUpToALimit)
{
    const std::string line = "10.0.0.1 " + std::string(64, 'a') + ".example\n";
    std::string hosts = "10.0.0.1 nas.example\n";
    for (int i = 0; i < 20; ++i) {
        hosts += line;
    }
    box_.Write("/etc/kavel/dnsmasq/hosts", hosts);
    const std::vector<Finding> found = Found();
    EXPECT_EQ(found.size(), 8U);
    EXPECT_THAT(found.front().text, HasSubstr("hosts, line 2: "));
    EXPECT_EQ(found.front().fault, Fault::kHostSkipped);
}

TEST_F(DiagnosisTest, AChangeThatWaitsForARestartOfTheInstance)
{
    std::filesystem::create_directories(box_.Path("/run/kavel"));
    RememberStartFiles(instances_, 0);
    box_.Write("/etc/kavel/dnsmasq/dnsmasq.d/own.conf", "log-queries\n");
    EXPECT_THAT(TextsOf(Found()), IsEmpty()) << "no instance runs";
    status_.fields.pid = ::getpid();
    status_.fields.alive = status_.fields.is_dnsmasq = 1;
    EXPECT_THAT(TextsOf(Found()),
                ElementsAre("own.conf has changed since the instance started; dnsmasq reads it at a start only"));
}

TEST_F(DiagnosisTest, AProcessThatIsStopped)
{
    const FakeInstance instance(box_, 0);
    status_.fields.pid = instance.Pid();
    status_.fields.alive = status_.fields.is_dnsmasq = 1;
    EXPECT_THAT(TextsOf(Found()), IsEmpty());
    ASSERT_EQ(::kill(instance.Pid(), SIGSTOP), 0);
    siginfo_t stopped{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(instance.Pid()), &stopped, WSTOPPED | WNOWAIT), 0);
    const std::vector<Finding> found = Found();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found.front().fault, Fault::kInstanceSuspended);
}

TEST(DiagnosisOfBox, TellsALockedStore)
{
    const TestBox box;
    Config config = box.Configuration();
    config.persistence = true;
    config.store = box.Path("/agent.db");
    Host host(config);
    EXPECT_THAT(TextsOf(FindFaultsOfBox(host)), IsEmpty()) << "there is no store yet";
    host.store.Put(TestVpn(1), "text", VQ_SQL_CONF_CPE_DNSMASQ);
    EXPECT_THAT(TextsOf(FindFaultsOfBox(host)), IsEmpty());
    const Database other(config.store, 0);
    other.Execute("BEGIN IMMEDIATE");
    EXPECT_THAT(TextsOf(FindFaultsOfBox(host)),
                ElementsAre("another program has locked the store: nothing can be stored"));
}

} // namespace
} // namespace kavel::agent
