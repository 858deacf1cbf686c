#include "instances/in_force.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <system_error>

#include "scratch.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::HasSubstr;

class InForceTest : public testing::Test {
  protected:
    static InForce Facts()
    {
        InForce facts;
        facts.enables = true;
        facts.isStored = true;
        facts.revision = "r 7: end";
        facts.routes = 3;
        facts.files = {{1, 2, 3, 4}, {}, {5, 6, -7, 8}};
        return facts;
    }

    static void ExpectSame(const std::optional<InForce> &facts, const InForce &expected)
    {
        ASSERT_TRUE(facts);
        EXPECT_EQ(facts->enables, expected.enables);
        EXPECT_EQ(facts->isStored, expected.isStored);
        EXPECT_EQ(facts->revision, expected.revision);
        EXPECT_EQ(facts->routes, expected.routes);
        EXPECT_EQ(facts->files, expected.files);
    }

    // The warning about a file with this text, of which nothing is taken.
    std::string WarningAbout(const std::string &text)
    {
        box_.Write("/run/kavel/vpn_7.inforce", text);
        LogCapture log;
        EXPECT_FALSE(files_.Read(7)) << text;
        return log.Take();
    }

    TestBox box_;
    Instances instances_{box_.Root()};
    InForceFiles files_{instances_};
};

TEST_F(InForceTest, AtFirstNothingIsInForce)
{
    LogCapture log;
    EXPECT_FALSE(files_.Read(7));
    EXPECT_EQ(log.Take(), "");
    EXPECT_EQ(FailureOf([this] { (void)files_.ReadContent(7); }).error, ENOENT);
}

TEST_F(InForceTest, FactsAndContentAreReadAsTheyWereWritten)
{
    files_.Write(7, Facts(), {true, std::string("a\nend\n\0b", 8)});
    ExpectSame(files_.Read(7), Facts());
    const InForceContent message = files_.ReadContent(7);
    EXPECT_TRUE(message.isMessage);
    EXPECT_EQ(message.bytes, std::string("a\nend\n\0b", 8));
    EXPECT_FALSE(files_.Read(8));

    files_.Write(7, InForce{}, {false, ""});
    ExpectSame(files_.Read(7), InForce{});
    const InForceContent record = files_.ReadContent(7);
    EXPECT_FALSE(record.isMessage);
    EXPECT_EQ(record.bytes, "");
}

TEST_F(InForceTest, TheFactsAreReplacedAlone)
{
    files_.Write(7, InForce{}, {true, "content"});
    files_.Write(7, Facts());
    ExpectSame(files_.Read(7), Facts());
    EXPECT_TRUE(files_.ReadContent(7).isMessage);
    EXPECT_EQ(files_.ReadContent(7).bytes, "content");
}

TEST_F(InForceTest, FactsWithoutContentAreNotWritten)
{
    EXPECT_THROW(files_.Write(7, Facts()), std::system_error);
    EXPECT_FALSE(files_.Read(7));
}

// The message may hold what is nobody else's business.
TEST_F(InForceTest, TheFileIsForTheAgentAlone)
{
    files_.Write(7, Facts(), {true, "content"});
    EXPECT_EQ(ModeOf(instances_.StatePath(7, "inforce")), 0600U);
}

TEST_F(InForceTest, AFileThatCannotBeReadIsIgnored)
{
    for (const char *text : {"kavel in force 2\nend\nM", "kavel in force 1\nenables 1\n",
                             "kavel in force 1\nunknown 1\nend\nM", "kavel in force 1\nenables x\nend\nM",
                             "kavel in force 1\nroutes\nend\nM", "kavel in force 1\nfile 1 2 3\nend\nM", "\n"}) {
        EXPECT_THAT(WarningAbout(text), HasSubstr("WARNING vpn 7: " + instances_.StatePath(7, "inforce") +
                                                  " cannot be read: it is ignored"))
            << text;
    }
}

TEST_F(InForceTest, ContentOfAnUnknownKindIsNotRead)
{
    for (const char *text : {"kavel in force 1\nend\n", "kavel in force 1\nend\nX1"}) {
        box_.Write("/run/kavel/vpn_7.inforce", text);
        EXPECT_EQ(FailureOf([this] { (void)files_.ReadContent(7); }).error, ENOENT) << text;
    }
}

TEST(MarkOfFile, ChangesWithEveryChangeOfTheFile)
{
    const ScratchDirectory directory;
    const std::string path = directory.Write("hosts", "one");
    const FileMark first = MarkOfFile(path);
    EXPECT_NE(first.inode, 0U);
    EXPECT_EQ(first.size, 3U);
    EXPECT_EQ(MarkOfFile(path), first);
    directory.Write("other", "one");
    std::filesystem::rename(directory.File("other"), path);
    const FileMark replaced = MarkOfFile(path);
    EXPECT_NE(replaced.inode, first.inode);
    directory.Write("hosts", "longer");
    const FileMark edited = MarkOfFile(path);
    EXPECT_EQ(edited.inode, replaced.inode);
    EXPECT_EQ(edited.size, 6U);
    EXPECT_NE(edited, replaced);
    EXPECT_EQ(MarkOfFile(directory.File("none")), FileMark{});
}

// The clock of the file system advances every few milliseconds.
TEST(MarkOfFile, ChangesWithTheRights)
{
    const ScratchDirectory directory;
    const std::string path = directory.Write("hosts", "one");
    const FileMark before = MarkOfFile(path);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    FileMark after;
    do {
        ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
        after = MarkOfFile(path);
    } while (after == before && std::chrono::steady_clock::now() < deadline);
    EXPECT_EQ(after.modified, before.modified);
    EXPECT_GT(after.changed, before.changed);
}

TEST_F(InForceTest, AnAwaitedConfirmationIsAFact)
{
    InForce facts = Facts();
    facts.confirmation = AwaitedConfirmation{5'000'000'000'123, 60};
    files_.Write(7, facts, {true, "bytes"});
    EXPECT_EQ(files_.Read(7)->confirmation, facts.confirmation);
    facts.confirmation.reset();
    files_.Write(7, facts);
    EXPECT_EQ(files_.Read(7)->confirmation, std::nullopt);
}

TEST_F(InForceTest, WhatWasInForceBeforeIsKeptUntilItIsForgotten)
{
    files_.Write(7, Facts(), {false, "record"});
    files_.KeepBefore(7);
    files_.Write(7, {}, {true, "message"});
    const auto before = files_.ReadBefore(7);
    ASSERT_TRUE(before);
    ExpectSame(before->facts, Facts());
    EXPECT_FALSE(before->content.isMessage);
    EXPECT_EQ(before->content.bytes, "record");
    files_.ForgetBefore(7);
    EXPECT_EQ(FailureOf([this] { (void)files_.ReadBefore(7); }).error, ENOENT);
    EXPECT_EQ(files_.ReadContent(7).bytes, "message");
    files_.ForgetBefore(7);
}

TEST_F(InForceTest, ThatNothingWasInForceIsKept)
{
    files_.KeepBefore(7);
    files_.Write(7, Facts(), {true, "message"});
    EXPECT_FALSE(files_.ReadBefore(7));
    files_.Remove(7);
    EXPECT_EQ(FailureOf([this] { (void)files_.ReadBefore(7); }).error, ENOENT);
}

TEST_F(InForceTest, WhatCannotBeReadIsNotKept)
{
    LogCapture log;
    box_.Write("/run/kavel/vpn_7.inforce", "garbage");
    EXPECT_EQ(FailureOf([this] { files_.KeepBefore(7); }).error, ENOENT);
    box_.Write("/run/kavel/vpn_7.inforce", "garbage\nend\nMbytes");
    EXPECT_EQ(FailureOf([this] { files_.KeepBefore(7); }).error, EINVAL);
    box_.Write("/run/kavel/vpn_7.unconfirmed", "garbage");
    EXPECT_EQ(FailureOf([this] { (void)files_.ReadBefore(7); }).error, EINVAL);
}

} // namespace
} // namespace kavel::agent
