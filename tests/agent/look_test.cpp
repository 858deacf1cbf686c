// Routes and rules need a namespace of their own: what is looked at here is VPN 0, whose rules an ordinary user cannot
// read.
#include "finding_texts.h"
#include "supervision/look.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class LookTest : public testing::Test {
  protected:
    LookTest()
    {
        instances_.CreateBoxDirectory();
        for (const std::string &file : instances_.Files(0)) {
            box_.Write(file.substr(box_.Root().size()), "content\n");
        }
        for (const char *directory : {"/etc/kavel/dnsmasq", "/etc/kavel/dnsmasq/dnsmasq.d"}) {
            SetMode(directory, 0755);
        }
        wanted_.enables = true;
        for (const std::string &file : instances_.Files(0)) {
            wanted_.files.push_back(MarkOfFile(file));
        }
        NameInstance(instance_.Pid());
    }

    void SetMode(const std::string &path, mode_t mode) const { ASSERT_EQ(::chmod(box_.Path(path).c_str(), mode), 0); }

    void NameInstance(pid_t pid) const { box_.WritePidFile(0, std::to_string(pid) + "\n"); }

    std::vector<Difference> Look() { return LookAt(host_, instances_, 0, wanted_, options_); }

    // What a look finds after `change`.
    std::vector<Difference> LookAfter(const std::function<void()> &change)
    {
        EXPECT_THAT(Look(), IsEmpty());
        change();
        return Look();
    }

    TestBox box_;
    Host host_{box_.Configuration()};
    Instances instances_{box_.Root(), OwnIdentity()};
    FakeInstance instance_{box_, 0, OwnProgram()};
    InForce wanted_;
    LookOptions options_;
};

TEST_F(LookTest, FindsNothingWhereNothingDiffers)
{
    EXPECT_THAT(Look(), IsEmpty());
    options_.instance = instance_.Pid();
    EXPECT_THAT(Look(), IsEmpty());
}

TEST_F(LookTest, FindsAChangedFile)
{
    EXPECT_THAT(LookAfter([&] { box_.Write("/etc/kavel/dnsmasq/dnsmasq.d/Mxhost.conf", "mx-host=a,b,1\n"); }),
                ElementsAre(Difference{Part::kFiles, "Mxhost.conf was changed"}));
}

TEST_F(LookTest, FindsAFileThatIsGone)
{
    EXPECT_THAT(LookAfter([&] { std::filesystem::remove(box_.Path("/etc/kavel/dnsmasq/hosts")); }),
                ElementsAre(Difference{Part::kFiles, "hosts was gone"}));
}

TEST_F(LookTest, FindsAFileThatWasNotThere)
{
    std::filesystem::remove(box_.Path("/etc/kavel/dnsmasq/hosts"));
    wanted_.files.front() = {};
    EXPECT_THAT(LookAfter([&] { box_.Write("/etc/kavel/dnsmasq/hosts", "192.0.2.1 a\n"); }),
                ElementsAre(Difference{Part::kFiles, "hosts was changed"}));
}

TEST_F(LookTest, FindsAFileThatCannotBeReadByOthers)
{
    EXPECT_THAT(LookAfter([&] { SetMode("/etc/kavel/dnsmasq/resolv.conf", 0600); }),
                ElementsAre(Difference{Part::kFiles, "resolv.conf was changed"}));
}

// An older agent has not noted what they were like.
TEST_F(LookTest, FilesThatAreNotKnownAreNotCompared)
{
    wanted_.files.clear();
    EXPECT_THAT(LookAfter([&] { box_.Write("/etc/kavel/dnsmasq/hosts", "changed\n"); }), IsEmpty());
}

TEST_F(LookTest, FindsAClosedDirectory)
{
    for (const char *directory : {"/etc/kavel", "/etc/kavel/dnsmasq", "/etc/kavel/dnsmasq/dnsmasq.d"}) {
        for (const mode_t mode : {mode_t{0700}, mode_t{0754}}) {
            EXPECT_THAT(LookAfter([&] { SetMode(directory, mode); }),
                        ElementsAre(Difference{Part::kFiles, "its directory was closed to dnsmasq's user"}));
            SetMode(directory, 0755);
        }
    }
}

// Nobody lists it: the names of the files are known.
TEST_F(LookTest, ADirectoryThatCanBeSearchedIsOpen)
{
    EXPECT_THAT(LookAfter([&] { SetMode("/etc/kavel", 0711); }), IsEmpty());
}

TEST_F(LookTest, FindsADirectoryThatIsGone)
{
    const Difference gone{Part::kFiles, "its directory was gone"};
    EXPECT_THAT(LookAfter([&] { std::filesystem::remove_all(box_.Path("/etc/kavel/dnsmasq/dnsmasq.d")); }),
                ElementsAre(gone));
    std::filesystem::remove_all(box_.Path("/etc/kavel/dnsmasq"));
    EXPECT_THAT(Look(), ElementsAre(gone));
}

TEST_F(LookTest, FindsThatNoInstanceRuns)
{
    EXPECT_THAT(LookAfter([&] { instance_.Stop(); }), ElementsAre(Difference{Part::kInstance, "no instance ran"}));
}

TEST_F(LookTest, AKnownInstanceThatEndsIsReportedOtherwise)
{
    options_.instance = instance_.Pid();
    EXPECT_THAT(LookAfter([&] { instance_.Stop(); }), IsEmpty());
}

TEST_F(LookTest, WithoutAPidFileOnlyAKnownInstanceRuns)
{
    EXPECT_THAT(LookAfter([&] { instances_.RemovePidFile(0); }),
                ElementsAre(Difference{Part::kInstance, "no instance ran"}));
    options_.instance = instance_.Pid();
    EXPECT_THAT(Look(), ElementsAre(Difference{Part::kPidFile, "its pid file was gone"}));
}

TEST_F(LookTest, FindsAChangedPidFile)
{
    options_.instance = instance_.Pid();
    const Difference changed{Part::kPidFile, "its pid file was changed"};
    EXPECT_THAT(LookAfter([&] { NameInstance(1); }), ElementsAre(changed));
    NameInstance(instance_.Pid());
    EXPECT_THAT(LookAfter([&] { SetMode(PidFilePath(0), 0666); }), ElementsAre(changed)) << "others can write it";
}

TEST_F(LookTest, WithAServiceThatIsOffNoInstanceMayRun)
{
    wanted_.enables = false;
    EXPECT_THAT(Look(), ElementsAre(Difference{Part::kInstance, "its instance ran although the service is off"}));
    instance_.Stop();
    EXPECT_THAT(Look(), ElementsAre(Difference{Part::kPidFile, "its pid file was left over"}));
    instances_.RemovePidFile(0);
    EXPECT_THAT(Look(), IsEmpty());
}

// The next message could not be written without the directory.
TEST_F(LookTest, TheFilesOfAServiceThatIsOffMatterAsWell)
{
    wanted_.enables = false;
    instance_.Stop();
    instances_.RemovePidFile(0);
    EXPECT_THAT(LookAfter([&] { std::filesystem::remove_all(box_.Path("/etc/kavel")); }),
                ElementsAre(Difference{Part::kFiles, "its directory was gone"}));
}

TEST_F(LookTest, GivesTheDifferencesInTheirOrder)
{
    options_.instance = instance_.Pid();
    std::filesystem::remove(box_.Path("/etc/kavel/dnsmasq/hosts"));
    instances_.RemovePidFile(0);
    EXPECT_THAT(Look(), ElementsAre(Difference{Part::kFiles, "hosts was gone"},
                                    Difference{Part::kPidFile, "its pid file was gone"}));
}

TEST_F(LookTest, RulesThatCannotBeReadAreLoggedAndCountAsRight)
{
    LogCapture log;
    ConfigureLog(LogLevel::kDebug);
    EXPECT_THAT(Look(), IsEmpty());
    EXPECT_THAT(log.Take(), HasSubstr("DEBUG vpn 0: its rules cannot be read: "));
    LogCapture silence;
    options_.skipsRules = true;
    EXPECT_THAT(Look(), IsEmpty());
    EXPECT_EQ(silence.Take(), "");
    ConfigureLog(LogLevel::kNotice);
}

TEST_F(LookTest, AVpnWithoutANamespaceIsNotLookedAt)
{
    EXPECT_THAT(LookAt(host_, instances_, TestVpn(1), wanted_, {}), IsEmpty());
}

// ---- What is missing ----

TEST_F(LookTest, TellsThatANamespaceIsMissing)
{
    for (std::uint32_t number = 1; number <= 3; ++number) {
        const Missing missing = FindMissing(host_, TestVpn(number));
        EXPECT_TRUE(missing.isNamespace);
        EXPECT_THAT(TextsOf(missing.findings),
                    ElementsAre("namespace \"" + host_.config.Find(TestVpn(number))->netns + "\" does not exist"));
    }
}

TEST_F(LookTest, NothingIsMissingForTheBoxItself)
{
    EXPECT_EQ(FindMissing(host_, 0), Missing{});
}

TEST_F(LookTest, NothingIsMissingForAVpnThatIsNotConfigured)
{
    EXPECT_EQ(FindMissing(host_, TestVpn(9)), Missing{});
}

} // namespace
} // namespace kavel::agent
