// Crashes and errors at every system call that the file services make.
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "base/files.h"
#include "contract_test.h"
#include "syscall_tracer.h"
#include "vqFile.h"

namespace kavel::contract {
namespace {

using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Eq;
using testing::Gt;
using testing::IsEmpty;
using testing::Optional;
using testing::StartsWith;

using Kind = Disturbance::Kind;

constexpr const char *kPath = "/etc/kavel/dnsmasq/hosts";
constexpr const char *kCallsCannotBeChanged = "the tracer does not know the registers of this processor";
constexpr std::size_t kNever = static_cast<std::size_t>(-1);

const std::string &NewText()
{
    static const std::string text(100000, 'n');
    return text;
}

// The index of the first call that satisfies the condition.
template <typename Condition>
std::size_t Find(const std::vector<SystemCall> &calls, Condition condition)
{
    const auto found = std::ranges::find_if(calls, condition);
    return found == calls.end() ? kNever : static_cast<std::size_t>(found - calls.begin());
}

bool Renamed(const Outcome &outcome)
{
    return Find(outcome.calls, [](const SystemCall &call) { return call.Is("rename") && call.result == 0; }) != kNever;
}

// Runs `work` once for each of its system calls, disturbing that call. Returns the number of calls.
template <typename Work, typename Check>
std::size_t AtEveryCall(Kind kind, int error, Work work, Check check)
{
    for (std::size_t at = 0;; ++at) {
        const Outcome outcome = work(Disturbance{kind, at, error});
        if (at >= outcome.calls.size()) {
            return at;
        }
        check(outcome, outcome.calls[at]);
        if (testing::Test::HasFailure()) {
            ADD_FAILURE() << "call " << at << ": " << outcome.calls[at].name << " " << outcome.calls[at].path;
            return at;
        }
    }
}

struct Case {
    const char *name;
    decltype(&VQ_WriteSyncWithFilePath) write;
    std::optional<std::string> old;
};

class Replacement : public ContractTest, public testing::WithParamInterface<Case> {
  protected:
    Outcome Write(const Disturbance &disturbance = {})
    {
        std::filesystem::remove(kPath);
        if (GetParam().old) {
            world().PutFile(kPath, *GetParam().old);
        }
        return RunTraced([] { return GetParam().write(kPath, NewText().data(), NewText().size()); }, disturbance);
    }

    [[nodiscard]] bool HasOldContent() { return world().ReadFile(kPath) == GetParam().old; }
    [[nodiscard]] bool HasNewContent() { return world().ReadFile(kPath) == NewText(); }
    [[nodiscard]] std::vector<std::string> FilesBeside()
    {
        std::vector<std::string> names = world().FilesIn(kDirectory);
        std::erase(names, "hosts");
        return names;
    }
};

INSTANTIATE_TEST_SUITE_P(Of, Replacement,
                         testing::Values(Case{"DurableNothing", &VQ_WriteSyncWithFilePath, std::nullopt},
                                         Case{"DurableEmpty", &VQ_WriteSyncWithFilePath, ""},
                                         Case{"DurableText", &VQ_WriteSyncWithFilePath, std::string(5000, 'o')},
                                         Case{"PlainNothing", &VQ_WriteWithFilePath, std::nullopt},
                                         Case{"PlainText", &VQ_WriteWithFilePath, std::string(5000, 'o')}),
                         [](const auto &instance) { return instance.param.name; });

TEST_P(Replacement, IsSyncedBeforeAndAfterTheRename)
{
    const Outcome outcome = Write();
    ASSERT_EQ(outcome.result, 0);
    const auto isTemporary = [](const std::string &path) { return path.starts_with(Below(".hosts.")); };
    const auto &calls = outcome.calls;
    const std::size_t lastWrite = calls.size() - 1 - Find({calls.rbegin(), calls.rend()}, [&](const SystemCall &call) {
                                      return call.Is("write") && isTemporary(call.path);
                                  });
    const std::size_t synced =
        Find(calls, [&](const SystemCall &call) { return call.Is("fsync") && isTemporary(call.path); });
    const std::size_t renamed = Find(calls, [&](const SystemCall &call) {
        return call.Is("rename") && isTemporary(call.path) && call.target == kPath;
    });
    const std::size_t directorySynced =
        Find(calls, [](const SystemCall &call) { return call.Is("fsync") && call.path == kDirectory; });
    EXPECT_LT(lastWrite, synced);
    EXPECT_LT(synced, renamed);
    EXPECT_LT(renamed, directorySynced);
    ASSERT_NE(directorySynced, kNever);
    for (const std::size_t at : {synced, renamed, directorySynced}) {
        EXPECT_EQ(calls[at].result, 0);
    }
}

// Only the rename changes the file itself.
TEST_P(Replacement, NeverOpensTheOldFile)
{
    const Outcome outcome = Write();
    EXPECT_EQ(Find(outcome.calls, [](const SystemCall &call) { return call.Is("open") && call.path == kPath; }),
              kNever);
    EXPECT_EQ(outcome.descriptorsAfter, outcome.descriptorsBefore);
}

TEST_P(Replacement, HasOldOrNewContentAfterACrash)
{
    for (const Kind kind : {Kind::kCrashBefore, Kind::kCrashAfter}) {
        bool sawOld = false;
        bool sawNew = false;
        const std::size_t calls = AtEveryCall(
            kind, 0, [this](const Disturbance &crash) { return Write(crash); },
            [&](const Outcome &outcome, const SystemCall & /*call*/) {
                EXPECT_TRUE(outcome.crashed);
                EXPECT_TRUE(HasOldContent() || HasNewContent());
                sawOld |= HasOldContent();
                sawNew |= HasNewContent();
                EXPECT_THAT(FilesBeside(), testing::Each(StartsWith(".hosts.")));
                constexpr std::array<std::string_view, 1> kNames{"hosts"};
                agent::RemoveTemporaryFiles(kDirectory, kNames);
                EXPECT_THAT(FilesBeside(), IsEmpty());
            });
        EXPECT_EQ(calls, 10U); // the last one takes the mark of the new file
        EXPECT_TRUE(sawOld);
        EXPECT_TRUE(sawNew);
    }
}

// Temporary files of the crash do not disturb the next write, and are not renamed by it.
TEST_P(Replacement, SucceedsAfterACrash)
{
    AtEveryCall(
        Kind::kCrashAfter, 0, [this](const Disturbance &crash) { return Write(crash); },
        [&](const Outcome & /*outcome*/, const SystemCall & /*call*/) {
            const std::vector<std::string> leftBehind = FilesBeside();
            EXPECT_GE(GetParam().write(kPath, "later\n", 6), 0);
            EXPECT_THAT(world().ReadFile(kPath), Optional(Eq("later\n")));
            EXPECT_EQ(FilesBeside(), leftBehind);
            constexpr std::array<std::string_view, 1> kNames{"hosts"};
            agent::RemoveTemporaryFiles(kDirectory, kNames);
        });
    EXPECT_THAT(FilesBeside(), IsEmpty());
}

// Every call that fails is reported with its errno, and the file is complete. EINTR only repeats a write; an error of
// close is ignored, since it comes after the sync. Without a mark the file counts as changed, and is written again.
TEST_P(Replacement, ReportsEveryErrorAndLeavesNoTemporaryFile)
{
    if (!kCanChangeCalls) {
        GTEST_SKIP() << kCallsCannotBeChanged;
    }
    for (const int error : {EIO, ENOSPC, EINTR}) {
        std::size_t failures = 0;
        AtEveryCall(
            Kind::kFail, error, [this](const Disturbance &failure) { return Write(failure); },
            [&](const Outcome &outcome, const SystemCall &failed) {
                const bool harmless = failed.Is("close") || failed.Is("stat") || (failed.Is("write") && error == EINTR);
                EXPECT_EQ(outcome.result, harmless ? 0 : -error);
                EXPECT_TRUE(Renamed(outcome) ? HasNewContent() : HasOldContent());
                EXPECT_THAT(FilesBeside(), IsEmpty());
                EXPECT_EQ(outcome.descriptorsAfter, outcome.descriptorsBefore);
                failures += outcome.result < 0 ? 1U : 0U;
            });
        EXPECT_EQ(failures, error == EINTR ? 6U : 7U);
    }
}

TEST_P(Replacement, ContinuesAfterAShortWrite)
{
    if (!kCanChangeCalls) {
        GTEST_SKIP() << kCallsCannotBeChanged;
    }
    std::size_t shortened = 0;
    AtEveryCall(
        Kind::kShorten, 0, [this](const Disturbance &cut) { return Write(cut); },
        [&](const Outcome &outcome, const SystemCall &call) {
            EXPECT_EQ(outcome.result, 0);
            EXPECT_TRUE(HasNewContent());
            shortened += call.Is("write") && call.result == 1 ? 1U : 0U;
        });
    EXPECT_EQ(shortened, 1U);
}

// dnsmasq reads the file again after it has dropped its privileges.
TEST_P(Replacement, FileIsReadableByEveryone)
{
    const mode_t before = ::umask(077);
    const Outcome outcome = Write();
    ::umask(before);
    ASSERT_EQ(outcome.result, 0);
    struct stat info {};
    ASSERT_EQ(::stat(kPath, &info), 0);
    EXPECT_EQ(info.st_mode, S_IFREG | 0644U);
}

class Creation : public ContractTest, public testing::WithParamInterface<std::optional<std::string>> {
  protected:
    Outcome Create(const Disturbance &disturbance = {})
    {
        std::filesystem::remove(kPath);
        if (GetParam()) {
            world().PutFile(kPath, *GetParam());
        }
        return RunTraced([] { return VQ_CreateFilePath(kPath); }, disturbance);
    }
    [[nodiscard]] bool HasAllowedContent()
    {
        const std::optional<std::string> content = world().ReadFile(kPath);
        return content == GetParam() || content == GetParam().value_or("");
    }
};

INSTANTIATE_TEST_SUITE_P(Of, Creation, testing::Values(std::nullopt, "text\n"));

TEST_P(Creation, CanBeRepeatedAfterACrash)
{
    for (const Kind kind : {Kind::kCrashBefore, Kind::kCrashAfter}) {
        const std::size_t calls = AtEveryCall(
            kind, 0, [this](const Disturbance &crash) { return Create(crash); },
            [&](const Outcome &outcome, const SystemCall & /*call*/) {
                EXPECT_TRUE(outcome.crashed);
                EXPECT_TRUE(HasAllowedContent());
                EXPECT_GE(VQ_CreateFilePath(kPath), 0);
                EXPECT_THAT(world().ReadFile(kPath), Optional(Eq(GetParam().value_or(""))));
                EXPECT_THAT(world().FilesIn(kDirectory), ElementsAre("hosts"));
            });
        EXPECT_GE(calls, 1U);
    }
}

TEST_P(Creation, ReportsEveryError)
{
    if (!kCanChangeCalls) {
        GTEST_SKIP() << kCallsCannotBeChanged;
    }
    for (const int error : {EIO, ENOSPC, EINTR}) {
        AtEveryCall(
            Kind::kFail, error, [this](const Disturbance &failure) { return Create(failure); },
            [&](const Outcome &outcome, const SystemCall &failed) {
                EXPECT_EQ(outcome.result, failed.Is("close") ? 0 : -error);
                EXPECT_TRUE(HasAllowedContent());
                EXPECT_EQ(outcome.descriptorsAfter, outcome.descriptorsBefore);
            });
    }
}

TEST_P(Creation, FileIsReadableByEveryone)
{
    const mode_t before = ::umask(077);
    const Outcome outcome = Create();
    ::umask(before);
    ASSERT_EQ(outcome.result, 0);
    struct stat info {};
    ASSERT_EQ(::stat(kPath, &info), 0);
    EXPECT_EQ(info.st_mode & 0444U, GetParam() ? info.st_mode & 0444U : 0444U);
}

class Removal : public ContractTest {
  protected:
    Outcome Remove(const Disturbance &disturbance = {})
    {
        for (const std::string &directory : {tree_, tree_ + "/dnsmasq.d", tree_ + "/dnsmasq.d/deep"}) {
            std::filesystem::create_directories(directory);
            world().PutFile(directory + "/one", "text\n");
            world().PutFile(directory + "/two", "text\n");
        }
        std::filesystem::create_directories(outside_);
        world().PutFile(outside_ + "/kept", "text\n");
        std::filesystem::remove(tree_ + "/link");
        std::filesystem::create_directory_symlink(outside_, tree_ + "/link");
        return RunTraced([this] { return VQ_RemoveDirRecursion(std::string(tree_).data()); }, disturbance);
    }
    [[nodiscard]] bool IsGone() const { return !std::filesystem::exists(tree_); }
    void ExpectNothingElseRemoved()
    {
        EXPECT_THAT(world().FilesIn(outside_), ElementsAre("kept"));
        EXPECT_TRUE(world().IsDirectory(Below("dnsmasq.d")));
    }

    std::string tree_ = Below("vpn_7");
    std::string outside_ = Below("outside");
};

TEST_F(Removal, DoesNotFollowLinks)
{
    EXPECT_EQ(Remove().result, 0);
    EXPECT_TRUE(IsGone());
    ExpectNothingElseRemoved();
}

TEST_F(Removal, RefusesALinkToADirectory)
{
    std::filesystem::create_directories(outside_);
    world().PutFile(outside_ + "/kept", "text\n");
    std::filesystem::create_directory_symlink(outside_, tree_);
    EXPECT_EQ(VQ_RemoveDirRecursion(tree_.data()), -ENOTDIR);
    ExpectNothingElseRemoved();
}

TEST_F(Removal, IsCompletedByTheNextCallAfterACrash)
{
    for (const Kind kind : {Kind::kCrashBefore, Kind::kCrashAfter}) {
        const std::size_t calls = AtEveryCall(
            kind, 0, [this](const Disturbance &crash) { return Remove(crash); },
            [&](const Outcome &outcome, const SystemCall & /*call*/) {
                EXPECT_TRUE(outcome.crashed);
                const bool wasGone = IsGone();
                EXPECT_EQ(VQ_RemoveDirRecursion(tree_.data()), wasGone ? -ENOENT : 0);
                EXPECT_TRUE(IsGone());
                ExpectNothingElseRemoved();
            });
        EXPECT_GE(calls, 10U);
    }
}

TEST_F(Removal, ReportsSuccessOnlyIfTheTreeIsGone)
{
    if (!kCanChangeCalls) {
        GTEST_SKIP() << kCallsCannotBeChanged;
    }
    for (const int error : {EIO, EBUSY, EINTR}) {
        std::size_t failures = 0;
        AtEveryCall(
            Kind::kFail, error, [this](const Disturbance &failure) { return Remove(failure); },
            [&](const Outcome &outcome, const SystemCall & /*failed*/) {
                EXPECT_EQ(outcome.result == 0, IsGone());
                EXPECT_THAT(outcome.result, AnyOf(Eq(0), Eq(-error)));
                EXPECT_EQ(outcome.descriptorsAfter, outcome.descriptorsBefore);
                ExpectNothingElseRemoved();
                failures += outcome.result < 0 ? 1U : 0U;
            });
        EXPECT_THAT(failures, Gt(10U));
    }
}

} // namespace
} // namespace kavel::contract
