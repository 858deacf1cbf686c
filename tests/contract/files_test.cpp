#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <vector>

#include "contract_test.h"
#include "vqFile.h"

namespace kavel::contract {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::IsEmpty;
using testing::Optional;

constexpr const char *kPath = "/etc/kavel/dnsmasq/hosts";

// What both writers guarantee.
class FileWriters : public ContractTest, public testing::WithParamInterface<decltype(&VQ_WriteSyncWithFilePath)> {
  protected:
    static std::int32_t Write(const std::string &path, const std::string &text)
    {
        return GetParam()(path.c_str(), text.data(), text.size());
    }
};

INSTANTIATE_TEST_SUITE_P(Durable, FileWriters, testing::Values(&VQ_WriteSyncWithFilePath));
INSTANTIATE_TEST_SUITE_P(Plain, FileWriters, testing::Values(&VQ_WriteWithFilePath));

TEST_P(FileWriters, CreateTheFile)
{
    EXPECT_GE(Write(kPath, "text\n"), 0);
    EXPECT_THAT(world().ReadFile(kPath), Optional(Eq("text\n")));
    EXPECT_THAT(world().FilesIn(kDirectory), ElementsAre("hosts"));
}

TEST_P(FileWriters, ReplaceLongerContentCompletely)
{
    PROMISE(kFileSync);
    PROMISE(kFileWrite);
    world().PutFile(kPath, "much longer than what comes\n");
    EXPECT_GE(Write(kPath, "short\n"), 0);
    EXPECT_THAT(world().ReadFile(kPath), Optional(Eq("short\n")));
    EXPECT_THAT(world().FilesIn(kDirectory), ElementsAre("hosts"));
}

TEST_P(FileWriters, UseTheLengthAndIgnoreTerminators)
{
    const std::string text("one\0two", 7);
    EXPECT_GE(Write(kPath, text), 0);
    EXPECT_THAT(world().ReadFile(kPath), Optional(Eq(text)));
    EXPECT_GE(GetParam()(kPath, "three and more", 5), 0);
    EXPECT_THAT(world().ReadFile(kPath), Optional(Eq("three")));
}

TEST_P(FileWriters, TruncateTheFileForANullText)
{
    PROMISE(kFileSyncEmpty);
    world().PutFile(kPath, "text\n");
    EXPECT_GE(GetParam()(kPath, nullptr, 0), 0);
    EXPECT_THAT(world().ReadFile(kPath), Optional(Eq("")));
}

TEST_P(FileWriters, CreateAnEmptyFileForANullText)
{
    EXPECT_GE(GetParam()(kPath, nullptr, 0), 0);
    EXPECT_THAT(world().ReadFile(kPath), Optional(Eq("")));
}

TEST_P(FileWriters, RefuseANullTextWithALength)
{
    world().AllowUnusualUse();
    world().PutFile(kPath, "old\n");
    EXPECT_LT(GetParam()(kPath, nullptr, 1), 0);
    EXPECT_THAT(world().ReadFile(kPath), Optional(Eq("old\n")));
}

TEST_P(FileWriters, RefuseAMissingDirectory)
{
    PROMISE(kFileSyncMissing);
    EXPECT_EQ(Write(Below("nowhere/hosts"), "text"), -ENOENT);
    EXPECT_FALSE(world().IsDirectory(Below("nowhere")));
}

TEST_P(FileWriters, RefuseToReplaceADirectory)
{
    EXPECT_EQ(Write(Below("dnsmasq.d"), "text"), -EISDIR);
    EXPECT_TRUE(world().IsDirectory(Below("dnsmasq.d")));
    EXPECT_THAT(world().FilesIn(kDirectory), IsEmpty());
}

TEST_P(FileWriters, WriteLargeContent)
{
    std::string text;
    for (unsigned line = 0; line < 100000; ++line) {
        text += "server=/a.example/" + std::to_string(line) + "\n";
    }
    EXPECT_GE(Write(kPath, text), 0);
    EXPECT_TRUE(world().ReadFile(kPath) == text);
}

// dnsmasq reads the file again as an unprivileged user.
TEST_P(FileWriters, MakeFilesThatEveryoneCanRead)
{
    PROMISE(kFileSyncReadable);
    PROMISE(kFileWriteReadable);
    const mode_t before = ::umask(077);
    EXPECT_GE(Write(kPath, "text\n"), 0);
    ::umask(before);
    EXPECT_TRUE(world().IsReadableByEveryone(kPath));
}

class Files : public ContractTest {};

TEST_F(Files, DurableReplacementLeavesAnOpenedOldFileAsItIs)
{
    PROMISE(kFileSyncAtomic);
    world().PutFile(kPath, "old bytes\n");
    const auto opened = world().KeepOpen(kPath);
    EXPECT_GE(VQ_WriteSyncWithFilePath(kPath, "new\n", 4), 0);
    EXPECT_EQ(opened(), "old bytes\n");
    EXPECT_THAT(world().ReadFile(kPath), Optional(Eq("new\n")));
}

TEST_F(Files, CreationMakesAFileThatEveryoneCanRead)
{
    PROMISE(kFileCreate);
    const mode_t before = ::umask(077);
    EXPECT_GE(VQ_CreateFilePath(kPath), 0);
    ::umask(before);
    EXPECT_TRUE(world().IsReadableByEveryone(kPath));
}

TEST_F(Files, CreationCreatesAnEmptyFile)
{
    PROMISE(kFileCreate);
    EXPECT_GE(VQ_CreateFilePath(kPath), 0);
    EXPECT_THAT(world().ReadFile(kPath), Optional(Eq("")));
}

TEST_F(Files, CreationKeepsAnExistingFile)
{
    PROMISE(kFileCreateKept);
    world().PutFile(kPath, "text\n");
    EXPECT_GE(VQ_CreateFilePath(kPath), 0);
    EXPECT_THAT(world().ReadFile(kPath), Optional(Eq("text\n")));
}

TEST_F(Files, CreationInAMissingDirectoryIsRefused)
{
    PROMISE(kFileCreateMissing);
    EXPECT_EQ(VQ_CreateFilePath(Below("nowhere/hosts").c_str()), -ENOENT);
}

TEST_F(Files, RemovalRemovesATreeAndNothingElse)
{
    PROMISE(kFileRemove);
    PROMISE(kFileRemoveOnly);
    std::string tree = Below("vpn_7");
    for (const std::string &directory : {tree, tree + "/dnsmasq.d", Below("vpn_77")}) {
        world().MakeDirectory(directory);
        world().PutFile(directory + "/hosts", "text\n");
    }
    world().PutFile(kPath, "text\n");
    EXPECT_GE(VQ_RemoveDirRecursion(tree.data()), 0);
    EXPECT_FALSE(world().IsDirectory(tree));
    EXPECT_THAT(world().ReadFile(tree + "/dnsmasq.d/hosts"), Eq(std::nullopt));
    EXPECT_THAT(world().ReadFile(Below("vpn_77/hosts")), Optional(Eq("text\n")));
    EXPECT_THAT(world().FilesIn(kDirectory), ElementsAre("hosts"));
}

TEST_F(Files, RemovalOfAMissingDirectoryIsNotFound)
{
    PROMISE(kFileRemoveMissing);
    std::string tree = Below("vpn_7");
    EXPECT_EQ(VQ_RemoveDirRecursion(tree.data()), -ENOENT);
}

TEST_F(Files, RemovalRefusesAFile)
{
    world().PutFile(kPath, "text\n");
    std::string path = kPath;
    EXPECT_EQ(VQ_RemoveDirRecursion(path.data()), -ENOTDIR);
    EXPECT_THAT(world().ReadFile(kPath), Optional(Eq("text\n")));
}

} // namespace
} // namespace kavel::contract
