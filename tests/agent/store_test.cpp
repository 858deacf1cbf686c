#include "services/store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "base/sqlite.h"
#include "store_fixture.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;

TEST_F(StoreTest, CreatesTheFileAndItsDirectoriesForTheAgentAlone)
{
    Config config = BaseConfig();
    config.store = directory_.File("one/two/agent.db");
    Start(config);
    EXPECT_THAT(directory_.Names(), IsEmpty());
    EXPECT_THAT(TheStore().Read(), IsEmpty());
    EXPECT_EQ(ModeOf(config.store), 0600U);
    EXPECT_EQ(ModeOf(config.store + "-wal"), 0600U);
    EXPECT_EQ(ModeOf(directory_.File("one")), 0700U);
    EXPECT_EQ(ModeOf(directory_.File("one/two")), 0700U);
}

TEST_F(StoreTest, NarrowsTheModeOfAnExistingFile)
{
    directory_.Write("agent.db", "");
    ASSERT_EQ(::chmod(Path().c_str(), 0644), 0);
    Start();
    EXPECT_THAT(TheStore().Read(), IsEmpty());
    EXPECT_EQ(ModeOf(Path()), 0600U);
}

TEST_F(StoreTest, FailsWhenADirectoryCannotBeMade)
{
    Config config = BaseConfig();
    directory_.Write("file", "");
    config.store = directory_.File("file/agent.db");
    Start(config);
    EXPECT_EQ(FailureToOpen().error, ENOTDIR);
    config.store = "/proc/none/agent.db";
    Start(config);
    EXPECT_EQ(FailureToOpen().error, ENOENT);
}

TEST_F(StoreTest, GivesBackTheTextThatWasPut)
{
    Start();
    const std::string text = "7 '\";--\\\n\xC3\xA9" + std::string(1'000'000, 'x');
    TheStore().Put(7, text, kCpe);
    EXPECT_EQ(TheStore().ReadText(7), text);
    EXPECT_EQ(TheStore().ReadText(8), std::nullopt);
    EXPECT_FALSE(TheStore().Read(8));
}

TEST_F(StoreTest, KeepsTheRecordsForTheNextAgent)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    Start();
    EXPECT_THAT(TheStore().ReadText(7), Optional(Eq("7")));
}

TEST_F(StoreTest, DescribesARecord)
{
    Start();
    TheStore().Put(7, "7 words", kCpe);
    const std::optional<StoredRecord> record = TheStore().Read(7);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->vpn, 7U);
    EXPECT_EQ(record->problem, std::nullopt);
    EXPECT_TRUE(record->enable);
    EXPECT_EQ(record->hosts, 1U);
    EXPECT_EQ(record->mxHosts, 2U);
    EXPECT_EQ(record->servers, 3U);
    EXPECT_EQ(record->forwards, 4U);
    EXPECT_EQ(record->bytes, 7U);
    TheStore().Put(7, "7 disabled", kCpe);
    EXPECT_FALSE(TheStore().Read(7)->enable);
}

TEST_F(StoreTest, ReadsTheRecordsByRisingVpn)
{
    Start();
    for (const std::uint32_t vpn : {kLargest, 8U, 0U, 0x80000000U, 7U}) {
        TheStore().Put(vpn, std::to_string(vpn), kCpe);
    }
    const std::vector<StoredRecord> records = TheStore().Read();
    EXPECT_THAT(VpnsOf(records), ElementsAre(0U, 7U, 8U, 0x80000000U, kLargest));
    for (const StoredRecord &record : records) {
        EXPECT_EQ(record.problem, std::nullopt) << record.vpn;
    }
}

TEST_F(StoreTest, ReplacesAndRemovesARecord)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    TheStore().Put(8, "8", kCpe);
    TheStore().Put(7, "7 again", kCpe);
    EXPECT_THAT(TheStore().ReadText(7), Optional(Eq("7 again")));
    TheStore().Remove(7, kCpe);
    EXPECT_THAT(VpnsOf(TheStore().Read()), ElementsAre(8U));
}

TEST_F(StoreTest, RemovingWhatIsNotStoredFailsWithoutALogLine)
{
    Start();
    TheStore().Put(8, "8", kCpe);
    const CapturedStderr captured;
    EXPECT_EQ(FailureOf([&] { TheStore().Remove(7, kCpe); }), (ThrownError{ENOENT, "vpn 7 is not stored"}));
    EXPECT_EQ(captured.Text(), "");
}

TEST_F(StoreTest, ReadsTheTableOfItsPlatform)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    TheStore().Put(8, "8", kPop);
    EXPECT_THAT(VpnsOf(TheStore().Read()), ElementsAre(7U));
    Config config = BaseConfig();
    config.platform = Platform::kPop;
    Start(config);
    EXPECT_THAT(VpnsOf(TheStore().Read()), ElementsAre(8U));
    EXPECT_EQ(TheStore().ReadText(7), std::nullopt);
}

TEST_F(StoreTest, TellsWhichVpnsHaveARow)
{
    Start();
    EXPECT_THAT(TheStore().Ids(), IsEmpty());
    for (const std::uint32_t vpn : {kLargest, 8U, 0U}) {
        TheStore().Put(vpn, "not read", kCpe);
    }
    TheStore().Put(7, "7", kPop);
    EXPECT_THAT(TheStore().Ids(), ElementsAre(0U, 8U, kLargest));
    TheStore().Remove(8, kCpe);
    EXPECT_THAT(TheStore().Ids(), ElementsAre(0U, kLargest));
}

TEST_F(StoreTest, ComparesARowWithAText)
{
    Start();
    EXPECT_FALSE(TheStore().Equals(7, ""));
    TheStore().Put(7, std::string("7\0 words", 8), kCpe);
    TheStore().Put(8, "", kCpe);
    EXPECT_TRUE(TheStore().Equals(7, std::string_view("7\0 words", 8)));
    EXPECT_FALSE(TheStore().Equals(7, "7"));
    EXPECT_FALSE(TheStore().Equals(7, std::string_view("7\0 Words", 8)));
    EXPECT_FALSE(TheStore().Equals(7, std::string_view("7\0 words ", 9)));
    EXPECT_TRUE(TheStore().Equals(8, ""));
    TheStore().Put(7, "7", kPop);
    EXPECT_FALSE(TheStore().Equals(7, "7"));
    EXPECT_FALSE(TheStore().Equals(0, ""));
}

TEST_F(StoreTest, IdsAndComparisonsFailLikeReads)
{
    directory_.Write("agent.db", std::string(5000, 'x'));
    Start();
    const ThrownError damaged{EIO, "file is not a database"};
    EXPECT_EQ(FailureOf([&] { (void)TheStore().Ids(); }), damaged);
    EXPECT_EQ(FailureOf([&] { (void)TheStore().Equals(7, "7"); }), damaged);
    std::filesystem::remove(Path());
    EXPECT_THAT(TheStore().Ids(), IsEmpty());
    EXPECT_FALSE(TheStore().Equals(7, "7"));
}

TEST_F(StoreTest, RefusesAnUnknownTable)
{
    Start();
    const CapturedStderr captured;
    EXPECT_EQ(FailureOf([&] { TheStore().Put(7, "7", static_cast<VQ_SQL_CONF_TBL>(99)); }),
              (ThrownError{EINVAL, "there is no table 99"}));
    EXPECT_EQ(captured.Text(), "ERROR store " + Path() + ": vpn 7 cannot be stored: there is no table 99\n");
}

TEST_F(StoreTest, WithoutPersistenceNothingIsRead)
{
    Config config = BaseConfig();
    config.persistence = false;
    Start(config);
    EXPECT_EQ(FailureToOpen(), (ThrownError{EOPNOTSUPP, "persistence is switched off"}));
    EXPECT_EQ(FailureOf([&] { (void)TheStore().ReadText(7); }).error, EOPNOTSUPP);
    EXPECT_THAT(directory_.Names(), IsEmpty());
    EXPECT_EQ(VQ_IsPersistentConfEnable(), FALSE);
}

// An older agent must not change what a newer one wrote.
TEST_F(StoreTest, RefusesAFileOfANewerReleaseAndLeavesItAsItIs)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    host_.reset();
    Database(Path(), 0).Execute("PRAGMA journal_mode = DELETE; PRAGMA user_version = 2");
    const std::string before = ContentOf(Path());
    Start();
    EXPECT_EQ(FailureToOpen(), (ThrownError{EOPNOTSUPP, "was written by a newer release (version 2)"}));
    EXPECT_EQ(ContentOf(Path()), before);
}

TEST_F(StoreTest, RefusesTheDatabaseOfAnotherProgramAndLeavesItAsItIs)
{
    directory_.Write("agent.db", "");
    Database(Path(), 0).Execute("CREATE TABLE other (id)");
    const std::string before = ContentOf(Path());
    Start();
    EXPECT_EQ(FailureToOpen(), (ThrownError{EINVAL, "is a database of another program"}));
    EXPECT_EQ(ContentOf(Path()), before);
}

TEST_F(StoreTest, RefusesWhatIsNoDatabase)
{
    const std::string text(5000, 'x');
    directory_.Write("agent.db", text);
    Start();
    EXPECT_EQ(FailureToOpen(), (ThrownError{EIO, "file is not a database"}));
    EXPECT_EQ(ContentOf(Path()), text);
}

TEST_F(StoreTest, RefusesWhatIsNoFile)
{
    ASSERT_EQ(::mkfifo(Path().c_str(), 0600), 0);
    Start();
    EXPECT_EQ(FailureToOpen(), (ThrownError{EINVAL, "is not a file"}));
    std::filesystem::remove(Path());
    std::filesystem::create_directory(Path());
    EXPECT_NE(FailureToOpen().error, 0);
    EXPECT_TRUE(std::filesystem::is_directory(Path()));
}

TEST_F(StoreTest, OpensTheFileAgainAfterAFailure)
{
    directory_.Write("agent.db", std::string(5000, 'x'));
    Start();
    EXPECT_NE(FailureToOpen().error, 0);
    std::filesystem::remove(Path());
    TheStore().Put(7, "7", kCpe);
    EXPECT_THAT(TheStore().ReadText(7), Optional(Eq("7")));
}

TEST_F(StoreTest, ARemovedFileIsCreatedAgain)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    std::filesystem::remove(Path());
    const CapturedStderr captured;
    TheStore().Put(8, "8", kCpe);
    EXPECT_EQ(captured.Text(), "WARNING store " + Path() + " was removed or replaced: it is opened again\n");
    Start();
    EXPECT_THAT(VpnsOf(TheStore().Read()), ElementsAre(8U));
    EXPECT_THAT(directory_.Names(), ElementsAre("agent.db", "agent.db-shm", "agent.db-wal"));
}

TEST_F(StoreTest, AReplacedFileIsOpenedAgain)
{
    Config other = BaseConfig();
    other.store = directory_.File("other.db");
    Start(other);
    TheStore().Put(8, "8 of the other", kCpe);
    Start();
    std::filesystem::remove(other.store + "-wal");
    std::filesystem::remove(other.store + "-shm");
    TheStore().Put(7, "7", kCpe);
    std::filesystem::rename(other.store, Path());
    const CapturedStderr captured;
    // The log of the first file must not be applied to the second one.
    EXPECT_THAT(VpnsOf(TheStore().Read()), ElementsAre(8U));
    EXPECT_THAT(captured.Text(), HasSubstr("was removed or replaced"));
    TheStore().Put(7, "7 again", kCpe);
    Start();
    EXPECT_THAT(TheStore().ReadText(7), Optional(Eq("7 again")));
    EXPECT_THAT(TheStore().ReadText(8), Optional(Eq("8 of the other")));
}

// Without its log a record that was stored could be lost: it is noticed before the next use.
TEST_F(StoreTest, ARemovedLogIsNoticed)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    std::filesystem::remove(Path() + "-wal");
    const CapturedStderr captured;
    TheStore().Put(8, "8", kCpe);
    EXPECT_THAT(captured.Text(), HasSubstr("was removed or replaced"));
    Start();
    EXPECT_THAT(TheStore().ReadText(8), Optional(Eq("8")));
}

TEST_F(StoreTest, AnUnchangedFileIsNotOpenedAgain)
{
    Start();
    const CapturedStderr captured;
    TheStore().Put(7, "7", kCpe);
    TheStore().Put(8, "8", kCpe);
    EXPECT_EQ(VpnsOf(TheStore().Read()).size(), 2U);
    EXPECT_EQ(captured.Text(), "");
}

TEST_F(StoreTest, AReadOnlyFileIsReadAndWrittenOnceItCanBe)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    Start();
    for (const std::string &name : directory_.Names()) {
        ASSERT_EQ(::chmod(directory_.File(name).c_str(), 0444), 0);
    }
    {
        const OrdinaryUser user;
        EXPECT_THAT(TheStore().ReadText(7), Optional(Eq("7")));
        const CapturedStderr captured;
        EXPECT_EQ(FailureOf([&] { TheStore().Put(8, "8", kCpe); }).error, EROFS);
        EXPECT_THAT(captured.Text(), HasSubstr("vpn 8 cannot be stored: attempt to write a readonly database"));
        EXPECT_THAT(TheStore().ReadText(7), Optional(Eq("7")));
    }
    for (const std::string &name : directory_.Names()) {
        ASSERT_EQ(::chmod(directory_.File(name).c_str(), 0600), 0);
    }
    TheStore().Put(8, "8", kCpe);
    EXPECT_THAT(VpnsOf(TheStore().Read()), ElementsAre(7U, 8U));
}

TEST_F(StoreTest, AFileThatNobodyMayReadFails)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    Start();
    ASSERT_EQ(::chmod(Path().c_str(), 0), 0);
    const OrdinaryUser user;
    EXPECT_EQ(FailureToOpen().error, EACCES);
}

TEST_F(StoreTest, ARecordWithoutConversionHasAProblem)
{
    Start();
    host_->conversions.DnsmasqStrToConf = nullptr;
    EXPECT_THAT(ProblemOf("7"), Optional(Eq("the module has no conversion for it")));
}

TEST_F(StoreTest, TheProblemOfARecordIsWhatTheConversionReported)
{
    Start();
    VQ_FlexLogSetFormatData("%s", "an earlier failure");
    EXPECT_THAT(ProblemOf("7 reported"), Optional(Eq("member \"Host\" is no list")));
}

TEST_F(StoreTest, AConversionThatReportsNothingIsNamedByItsErrno)
{
    Start();
    VQ_FlexLogSetFormatData("%s", "an earlier failure");
    EXPECT_THAT(ProblemOf("7 silent"), Optional(Eq("Invalid argument")));
}

TEST_F(StoreTest, ARecordOfAnotherVpnHasAProblem)
{
    Start();
    EXPECT_THAT(ProblemOf("8"), Optional(Eq("it is a record of vpn 8")));
    EXPECT_THAT(ProblemOf("no number"), Optional(Eq("it is a record of vpn 0")));
}

// The text form of a record has 0 in the place of these two ids.
TEST_F(StoreTest, TwoVpnsAreStoredAsZero)
{
    Start();
    for (const std::uint32_t vpn : {0x7FFFFFFFU, 0x80000000U}) {
        TheStore().Put(vpn, "0", kCpe);
        EXPECT_EQ(TheStore().Read(vpn)->problem, std::nullopt) << vpn;
        TheStore().Put(vpn, "7", kCpe);
        EXPECT_THAT(TheStore().Read(vpn)->problem, Optional(Eq("it is a record of vpn 7"))) << vpn;
    }
    TheStore().Put(0x7FFFFFFEU, "0", kCpe);
    EXPECT_THAT(TheStore().Read(0x7FFFFFFEU)->problem, Optional(Eq("it is a record of vpn 0")));
}

} // namespace
} // namespace kavel::agent
