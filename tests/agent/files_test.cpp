#include "base/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "scratch.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// The strictest mask for a scope: the mode of a file must not depend on it.
class StrictMask {
  public:
    StrictMask() : before_(::umask(077)) {}
    StrictMask(const StrictMask &) = delete;
    StrictMask &operator=(const StrictMask &) = delete;
    ~StrictMask() { ::umask(before_); }

  private:
    mode_t before_;
};

// Files must not grow beyond a size for a scope; without the signal that ends a process otherwise.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        ::getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit{bytes, before_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    FileSizeLimit(const FileSizeLimit &) = delete;
    FileSizeLimit &operator=(const FileSizeLimit &) = delete;
    ~FileSizeLimit()
    {
        ::setrlimit(RLIMIT_FSIZE, &before_);
        ::signal(SIGXFSZ, handlerBefore_); // NOLINT(cert-err33-c)
    }

  private:
    rlimit before_{};
    void (*handlerBefore_)(int) = ::signal(SIGXFSZ, SIG_IGN);
};

TEST(ReplaceFile, CreatesAFileThatEverybodyReads)
{
    const ScratchDirectory directory;
    const StrictMask mask;
    ReplaceFile(directory.File("hosts"), "text\n");
    EXPECT_EQ(ContentOf(directory.File("hosts")), "text\n");
    EXPECT_EQ(ModeOf(directory.File("hosts")), 0644U);
    EXPECT_THAT(directory.Names(), ElementsAre("hosts"));
}

TEST(ReplaceFile, ReplacesTheWholeContentAndTheMode)
{
    const ScratchDirectory directory;
    const std::string path = directory.Write("hosts", std::string(100'000, 'x'));
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    ReplaceFile(path, std::string_view("a\0b", 3));
    EXPECT_EQ(ContentOf(path), std::string("a\0b", 3));
    EXPECT_EQ(ModeOf(path), 0644U);
    ReplaceFile(path, "");
    EXPECT_EQ(ContentOf(path), "");
}

// A reader that has the old file open reads the old bytes to the end.
TEST(ReplaceFile, GivesTheFileTheMode)
{
    const ScratchDirectory directory;
    const std::string path = directory.Write("secret", "old");
    ReplaceFile(path, "new", 0600);
    EXPECT_EQ(ContentOf(path), "new");
    EXPECT_EQ(ModeOf(path), 0600U);
}

TEST(ReplaceFile, LeavesTheOldFileToItsReaders)
{
    const ScratchDirectory directory;
    const std::string path = directory.Write("hosts", "old\n");
    std::filesystem::create_hard_link(path, directory.File("other"));
    ReplaceFile(path, "new\n");
    EXPECT_EQ(ContentOf(directory.File("other")), "old\n");
    EXPECT_EQ(ContentOf(path), "new\n");
}

TEST(ReplaceFile, ReplacesALinkAndNotItsTarget)
{
    const ScratchDirectory directory;
    const std::string target = directory.Write("target", "old\n");
    std::filesystem::create_symlink(target, directory.File("hosts"));
    ReplaceFile(directory.File("hosts"), "new\n");
    EXPECT_FALSE(std::filesystem::is_symlink(directory.File("hosts")));
    EXPECT_EQ(ContentOf(target), "old\n");
}

TEST(ReplaceFile, WritesARelativePathIntoTheCurrentDirectory)
{
    const ScratchDirectory directory;
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(directory.Path());
    const ThrownError failure = FailureOf([] { ReplaceFile("hosts", "text\n"); });
    std::filesystem::current_path(before);
    EXPECT_EQ(failure, ThrownError{});
    EXPECT_EQ(ContentOf(directory.File("hosts")), "text\n");
}

TEST(ReplaceFile, FailsWithoutTheDirectory)
{
    const ScratchDirectory directory;
    const ThrownError failure = FailureOf([&] { ReplaceFile(directory.File("none/hosts"), "text\n"); });
    EXPECT_EQ(failure.error, ENOENT);
    EXPECT_THAT(failure.text, testing::StartsWith(directory.File("none/.hosts.")));
}

TEST(ReplaceFile, RemovesTheTemporaryFileAfterAFailure)
{
    const ScratchDirectory directory;
    std::filesystem::create_directory(directory.File("hosts"));
    const ThrownError failure = FailureOf([&] { ReplaceFile(directory.File("hosts"), "text\n"); });
    EXPECT_EQ(failure, (ThrownError{EISDIR, directory.File("hosts") + ": Is a directory"}));
    EXPECT_THAT(directory.Names(), ElementsAre("hosts"));
}

TEST(ReplaceFile, LeavesTheFileWhereNothingCanBeWritten)
{
    const ScratchDirectory directory;
    const std::string path = directory.Write("hosts", "old\n");
    ASSERT_EQ(::chmod(directory.Path().c_str(), 0555), 0);
    const OrdinaryUser user;
    EXPECT_EQ(FailureOf([&] { ReplaceFile(path, "new\n"); }).error, EACCES);
    EXPECT_EQ(ContentOf(path), "old\n");
}

TEST(ReplaceFile, FailsInTheRootDirectoryForAnOrdinaryUser)
{
    const OrdinaryUser user;
    const ThrownError failure = FailureOf([] { ReplaceFile("/vqagent_test_hosts", "text\n"); });
    EXPECT_THAT(failure.error, testing::AnyOf(EACCES, EROFS));
    EXPECT_THAT(failure.text, testing::StartsWith("//.vqagent_test_hosts."));
}

TEST(ReplaceFile, FailsWhenTheFileWouldBeTooLarge)
{
    const ScratchDirectory directory;
    const std::string path = directory.Write("hosts", "old\n");
    const FileSizeLimit limit(10);
    EXPECT_EQ(FailureOf([&] { ReplaceFile(path, std::string(100, 'x')); }).error, EFBIG);
    EXPECT_EQ(ContentOf(path), "old\n");
    EXPECT_THAT(directory.Names(), ElementsAre("hosts"));
}

TEST(SyncDirectory, FailsForWhatIsNoDirectory)
{
    const ScratchDirectory directory;
    const std::string file = directory.Write("file", "");
    EXPECT_EQ(FailureOf([&] { SyncDirectory(directory.Path()); }), ThrownError{});
    EXPECT_EQ(FailureOf([&] { SyncDirectory(file); }), (ThrownError{ENOTDIR, file + ": Not a directory"}));
    EXPECT_EQ(FailureOf([&] { SyncDirectory(directory.File("none")); }).error, ENOENT);
}

TEST(CreateFile, CreatesAnEmptyFileThatEverybodyReads)
{
    const ScratchDirectory directory;
    const StrictMask mask;
    CreateFile(directory.File("hosts"));
    EXPECT_EQ(ContentOf(directory.File("hosts")), "");
    EXPECT_EQ(ModeOf(directory.File("hosts")), 0644U);
}

TEST(CreateFile, LeavesAnExistingFileAsItIs)
{
    const ScratchDirectory directory;
    const std::string path = directory.Write("hosts", "text\n");
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    CreateFile(path);
    EXPECT_EQ(ContentOf(path), "text\n");
    EXPECT_EQ(ModeOf(path), 0600U);
}

TEST(CreateFile, FailsWithoutTheDirectory)
{
    const ScratchDirectory directory;
    const std::string path = directory.File("none/hosts");
    EXPECT_EQ(FailureOf([&] { CreateFile(path); }), (ThrownError{ENOENT, path + ": No such file or directory"}));
}

TEST(RemoveTree, RemovesADirectoryWithItsContent)
{
    const ScratchDirectory directory;
    std::filesystem::create_directories(directory.File("vpn_7/dnsmasq.d"));
    directory.Write("vpn_7/dnsmasq.d/hosts", "text\n");
    directory.Write("vpn_70", "text\n");
    RemoveTree(directory.File("vpn_7"));
    EXPECT_THAT(directory.Names(), ElementsAre("vpn_70"));
}

TEST(RemoveTree, DoesNotFollowLinks)
{
    const ScratchDirectory directory;
    const ScratchDirectory outside;
    outside.Write("kept", "text\n");
    std::filesystem::create_directory(directory.File("vpn_7"));
    std::filesystem::create_directory_symlink(outside.Path(), directory.File("vpn_7/link"));
    RemoveTree(directory.File("vpn_7"));
    EXPECT_THAT(directory.Names(), IsEmpty());
    EXPECT_THAT(outside.Names(), ElementsAre("kept"));
}

TEST(RemoveTree, RefusesWhatIsNoDirectory)
{
    const ScratchDirectory directory;
    const std::string file = directory.Write("file", "text\n");
    const std::string link = directory.File("link");
    std::filesystem::create_directory(directory.File("real"));
    std::filesystem::create_directory_symlink(directory.File("real"), link);
    EXPECT_EQ(FailureOf([&] { RemoveTree(file); }), (ThrownError{ENOTDIR, file + ": Not a directory"}));
    EXPECT_EQ(FailureOf([&] { RemoveTree(link); }).error, ENOTDIR);
    EXPECT_EQ(FailureOf([&] { RemoveTree(directory.File("none")); }).error, ENOENT);
    EXPECT_THAT(directory.Names(), ElementsAre("file", "link", "real"));
}

TEST(RemoveTemporaryFiles, RemovesWhatAReplacementOfTheseFilesLeft)
{
    const ScratchDirectory directory;
    directory.Write(".hosts.Ab12xZ", "");
    directory.Write(".dnsmasq.conf.000000", "");
    constexpr std::array<std::string_view, 2> kNames{"hosts", "dnsmasq.conf"};
    RemoveTemporaryFiles(directory.Path(), kNames);
    EXPECT_THAT(directory.Names(), IsEmpty());
}

TEST(RemoveTemporaryFiles, KeepsEveryOtherName)
{
    const ScratchDirectory directory;
    const std::vector<std::string> others{".hosts",        ".hosts.Ab12x",  ".hosts.Ab12xZ9", ".hosts.Ab-2xZ",
                                          ".hosts_Ab12xZ", ".other.Ab12xZ", "hosts",          "hosts.Ab12xZ",
                                          "xhosts.Ab12xZ", ".host.xAb12xZ"};
    for (const std::string &name : others) {
        directory.Write(name, "");
    }
    constexpr std::array<std::string_view, 1> kNames{"hosts"};
    RemoveTemporaryFiles(directory.Path(), kNames);
    EXPECT_THAT(directory.Names(), testing::UnorderedElementsAreArray(others));
}

TEST(RemoveTemporaryFiles, IgnoresAMissingDirectory)
{
    const ScratchDirectory directory;
    constexpr std::array<std::string_view, 1> kNames{"hosts"};
    EXPECT_NO_THROW(RemoveTemporaryFiles(directory.File("none"), kNames));
}

TEST(FileIdentity, TellsAFileFromTheOneThatTookItsPlace)
{
    const ScratchDirectory directory;
    const std::string path = directory.Write("file", "1");
    const FileIdentity before = IdentityOfFile(path);
    EXPECT_EQ(IdentityOfFile(path), before);
    (void)directory.Write("other", "1");
    std::filesystem::rename(directory.File("other"), path);
    EXPECT_NE(IdentityOfFile(path), before);
    std::filesystem::remove(path);
    EXPECT_EQ(IdentityOfFile(path), FileIdentity());
}

} // namespace
} // namespace kavel::agent
