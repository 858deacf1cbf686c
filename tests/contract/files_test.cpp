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

class Files : public ContractTest {};

TEST_F(Files, CreationCreatesAnEmptyFile)
{
    EXPECT_GE(VQ_CreateFilePath(kPath), 0);
    EXPECT_THAT(world().ReadFile(kPath), Optional(Eq("")));
}

TEST_F(Files, CreationKeepsAnExistingFile)
{
    world().PutFile(kPath, "text\n");
    EXPECT_GE(VQ_CreateFilePath(kPath), 0);
    EXPECT_THAT(world().ReadFile(kPath), Optional(Eq("text\n")));
}

TEST_F(Files, CreationInAMissingDirectoryIsRefused)
{
    EXPECT_EQ(VQ_CreateFilePath(Below("nowhere/hosts").c_str()), -ENOENT);
}

TEST_F(Files, RemovalRemovesATreeAndNothingElse)
{
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
