#include "services/store.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/sqlite.h"
#include "scratch.h"
#include "services/host.h"
#include "vqLog.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;

constexpr VQ_SQL_CONF_TBL kCpe = VQ_SQL_CONF_CPE_DNSMASQ;
constexpr VQ_SQL_CONF_TBL kPop = VQ_SQL_CONF_POP_DNSMASQ;
constexpr std::uint32_t kLargest = 0xFFFFFFFFU;

// The conversion of the module: "<vpn>" or "<vpn> <a sign or a word>" becomes a record with one of each entry.
VQ_ERR_T Convert(VQ_DNSMASQ_CONF *record, const char *text)
{
    const std::string_view whole = text;
    if (whole.ends_with("reported")) {
        VQ_FlexLogSetFormatData("%s", "member \"Host\" is no list");
        VQ_FlexLogSetFormatData("%s", "record is bad(22:Invalid argument)\n");
        return -EINVAL;
    }
    if (whole.ends_with("silent")) {
        return -EINVAL;
    }
    if (whole.ends_with("memory")) {
        throw std::bad_alloc();
    }
    std::from_chars(whole.data(), whole.data() + whole.size(), record->VpnId);
    EXPECT_EQ(record->DnsHostNum, 0U) << "the record is not zeroed";
    record->Enable = whole.ends_with("disabled") ? FALSE : TRUE;
    record->DnsHostNum = 1;
    record->DnsMxHostNum = 2;
    record->DnsServerNum = 3;
    record->DnsProxyNum = 4;
    return 0;
}

std::vector<std::uint32_t> VpnsOf(const std::vector<StoredRecord> &records)
{
    std::vector<std::uint32_t> vpns;
    for (const StoredRecord &record : records) {
        vpns.push_back(record.vpn);
    }
    return vpns;
}

struct ReleaseList {
    void operator()(VQ_PersistentConfList *list) const { VQ_SqliteConfListRelease(list); }
};
using ListPtr = std::unique_ptr<VQ_PersistentConfList, ReleaseList>;

std::vector<std::uint32_t> VpnsOf(const ListPtr &list)
{
    std::vector<std::uint32_t> vpns;
    for (const VQ_LIST_HEAD *link = list->Head.next; link != &list->Head; link = link->next) {
        vpns.push_back(reinterpret_cast<const VQ_DnsmasqConfNode *>(link)->Dnsmasq.VpnId);
    }
    EXPECT_EQ(list->Count, static_cast<std::int32_t>(vpns.size()));
    return vpns;
}

class StoreTest : public testing::Test {
  protected:
    // The box serves the VPNs 0, 7 and 8.
    [[nodiscard]] Config BaseConfig() const
    {
        Config config;
        config.persistence = true;
        config.store = directory_.File("agent.db");
        for (const std::uint32_t id : {7U, 8U}) {
            Vpn vpn;
            vpn.id = id;
            config.vpns.push_back(vpn);
        }
        return config;
    }
    void Start(const Config &config)
    {
        host_.reset();
        host_.emplace(config);
        host_->conversions.DnsmasqStrToConf = Convert;
    }
    void Start() { Start(BaseConfig()); }
    Store &TheStore() { return host_->store; }
    [[nodiscard]] std::string Path() const { return directory_.File("agent.db"); }

    // What opening the store says when this is at its path.
    ThrownError FailureToOpen()
    {
        const CapturedStderr captured;
        return FailureOf([&] { (void)TheStore().Read(); });
    }
    // Why the record of VPN 7 cannot be read, when this text is stored.
    std::optional<std::string> ProblemOf(const std::string &text)
    {
        TheStore().Put(7, text, kCpe);
        const std::optional<StoredRecord> record = TheStore().Read(7);
        EXPECT_TRUE(record);
        EXPECT_EQ(record->vpn, 7U);
        EXPECT_EQ(record->bytes, text.size());
        return record->problem;
    }

    ScratchDirectory directory_;
    std::optional<Host> host_;
};

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

// A row of VPN 7 with a text of this length, as another program may write it.
class LargeRowTest : public StoreTest {
  protected:
    LargeRowTest() { Start(); }

    void PutText(std::size_t bytes)
    {
        TheStore().Put(0, "0", kCpe);
        TheStore().Put(8, "8", kCpe);
        Database(Path(), 0).Execute("INSERT INTO cpe_dnsmasq VALUES (7, CAST(zeroblob(" + std::to_string(bytes) +
                                    ") AS TEXT))");
    }

    static constexpr const char *kProblem = "its text has 33554433 bytes; at most 33554432 are read";
};

TEST_F(LargeRowTest, HasAProblem)
{
    PutText(kStoredTextMax + 1);
    const std::vector<StoredRecord> records = TheStore().Read();
    ASSERT_THAT(VpnsOf(records), ElementsAre(0U, 7U, 8U));
    for (const StoredRecord &record : {records[1], TheStore().Read(7).value()}) {
        EXPECT_EQ(record.vpn, 7U);
        EXPECT_EQ(record.bytes, kStoredTextMax + 1);
        EXPECT_THAT(record.problem, Optional(Eq(kProblem)));
    }
    EXPECT_EQ(records[0].problem, std::nullopt);
    EXPECT_EQ(records[2].problem, std::nullopt);
    EXPECT_EQ(FailureOf([&] { (void)TheStore().ReadText(7); }), (ThrownError{EOVERFLOW, kProblem}));
}

TEST_F(LargeRowTest, IsLeftOutOfTheList)
{
    PutText(kStoredTextMax + 1);
    const CapturedStderr captured;
    const ListPtr list(TheStore().List(kCpe));
    ASSERT_TRUE(list);
    EXPECT_THAT(VpnsOf(list), ElementsAre(0U, 8U));
    EXPECT_EQ(captured.Text(),
              std::string("ERROR vpn 7: its stored record cannot be read, and is kept: ") + kProblem + "\n");
}

TEST_F(LargeRowTest, IsNotRead)
{
    PutText(4 * kStoredTextMax);
    Start(); // with a cache of its own
    (void)TheStore().Read(8);
    (void)sqlite3_memory_highwater(1);
    const CapturedStderr captured;
    (void)TheStore().Read();
    (void)TheStore().Read(7);
    EXPECT_EQ(FailureOf([&] { (void)TheStore().ReadText(7); }).error, EOVERFLOW);
    const ListPtr list(TheStore().List(kCpe));
    EXPECT_LT(sqlite3_memory_highwater(0), 16'000'000);
}

TEST_F(LargeRowTest, IsReplacedAndRemovedLikeAnyOther)
{
    PutText(kStoredTextMax + 1);
    TheStore().Put(7, "7", kCpe);
    EXPECT_THAT(TheStore().ReadText(7), Optional(Eq("7")));
    TheStore().Remove(7, kCpe);
    EXPECT_THAT(VpnsOf(TheStore().Read()), ElementsAre(0U, 8U));
}

TEST_F(LargeRowTest, TheLongestTextIsRead)
{
    PutText(kStoredTextMax);
    EXPECT_EQ(TheStore().ReadText(7), std::string(kStoredTextMax, '\0'));
    EXPECT_THAT(TheStore().Read(7)->problem, Optional(Eq("it is a record of vpn 0"))) << "it is not too long";
}

TEST_F(StoreTest, TheModuleIsSilentDuringAConversionAlone)
{
    Start();
    host_->conversions.DnsmasqStrToConf = [](VQ_DNSMASQ_CONF *, const char *) -> VQ_ERR_T {
        EXPECT_EQ(VQ_LogTest(VQ_LOG_MODULE_ADVANCED_DNS, VQ_LOG_LEVEL_ERROR, TRUE, "Convert"), FALSE);
        return -EIO;
    };
    EXPECT_THAT(ProblemOf("7"), Optional(Eq("Input/output error")));
    EXPECT_EQ(VQ_LogTest(VQ_LOG_MODULE_ADVANCED_DNS, VQ_LOG_LEVEL_ERROR, TRUE, "Convert"), TRUE);
}

TEST_F(StoreTest, ListsTheReadableRecordsOfConfiguredVpns)
{
    Start();
    TheStore().Put(8, "8", kCpe);
    TheStore().Put(0, "0", kCpe);
    TheStore().Put(7, "7 silent", kCpe);
    TheStore().Put(9, "9", kCpe);
    const CapturedStderr captured;
    const ListPtr list(TheStore().List(kCpe));
    ASSERT_TRUE(list);
    EXPECT_THAT(VpnsOf(list), ElementsAre(0U, 8U));
    EXPECT_THAT(VpnsOf(TheStore().Listed()), ElementsAre(0U, 8U));
    EXPECT_EQ(TheStore().Listed().back().forwards, 4U);
    EXPECT_EQ(captured.Text(), "ERROR vpn 7: its stored record cannot be read, and is kept: Invalid argument\n"
                               "WARNING vpn 9: its stored record is not applied: the VPN is not configured\n");
    EXPECT_THAT(VpnsOf(TheStore().Read()), ElementsAre(0U, 7U, 8U, 9U));
}

TEST_F(StoreTest, ListedHasTheRecordsOfTheLastListAlone)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    TheStore().Put(8, "8", kPop);
    const ListPtr first(TheStore().List(kCpe));
    EXPECT_THAT(VpnsOf(TheStore().Listed()), ElementsAre(7U));
    const ListPtr second(TheStore().List(kPop));
    EXPECT_THAT(VpnsOf(TheStore().Listed()), ElementsAre(8U));
    EXPECT_THAT(VpnsOf(first), ElementsAre(7U));
}

TEST_F(StoreTest, AnEmptyStoreGivesAnEmptyList)
{
    Start();
    const ListPtr list(TheStore().List(kCpe));
    ASSERT_TRUE(list);
    EXPECT_THAT(VpnsOf(list), IsEmpty());
    EXPECT_THAT(TheStore().Listed(), IsEmpty());
}

TEST_F(StoreTest, AStoreThatCannotBeReadGivesNoList)
{
    directory_.Write("agent.db", std::string(5000, 'x'));
    Start();
    const CapturedStderr captured;
    EXPECT_EQ(TheStore().List(kCpe), nullptr);
    EXPECT_EQ(VQ_SqliteGetDnsMasqConf(kCpe), nullptr);
    const std::string line = "ERROR store " + Path() + ": the stored records cannot be read: file is not a database\n";
    EXPECT_EQ(captured.Text(), line + line);
}

TEST_F(StoreTest, WhatWasReadBeforeAFailureIsListed)
{
    Start();
    TheStore().Put(0, "0", kCpe);
    TheStore().Put(7, "7 memory", kCpe);
    TheStore().Put(8, "8", kCpe);
    const CapturedStderr captured;
    const ListPtr list(TheStore().List(kCpe));
    ASSERT_TRUE(list);
    EXPECT_THAT(VpnsOf(list), ElementsAre(0U));
    EXPECT_THAT(VpnsOf(TheStore().Listed()), ElementsAre(0U));
    EXPECT_THAT(captured.Text(), HasSubstr("the stored records cannot be read"));
}

TEST_F(StoreTest, AChangeDelaysARemoval)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    StoreChange change(TheStore());
    EXPECT_FALSE(change.IsBegun());
    TheStore().Remove(7, kCpe);
    EXPECT_TRUE(change.IsBegun());
    EXPECT_THAT(TheStore().ReadText(7), Optional(Eq("7")));
    EXPECT_TRUE(change.Finish());
    EXPECT_EQ(TheStore().ReadText(7), std::nullopt);
}

TEST_F(StoreTest, AnAdditionReplacesTheDelayedRemoval)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    StoreChange change(TheStore());
    TheStore().Remove(7, kCpe);
    TheStore().Put(7, "7 again", kCpe);
    EXPECT_THAT(TheStore().ReadText(7), Optional(Eq("7 again")));
    EXPECT_TRUE(change.IsBegun());
    EXPECT_TRUE(change.Finish());
    EXPECT_THAT(TheStore().ReadText(7), Optional(Eq("7 again")));
}

TEST_F(StoreTest, AnAdditionThatFailsReplacesTheDelayedRemovalToo)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    StoreChange change(TheStore());
    TheStore().Remove(7, kCpe);
    {
        const CapturedStderr captured;
        EXPECT_EQ(FailureOf([&] { TheStore().Put(7, "7", static_cast<VQ_SQL_CONF_TBL>(99)); }).error, EINVAL);
    }
    EXPECT_TRUE(change.Finish());
    EXPECT_THAT(TheStore().ReadText(7), Optional(Eq("7")));
}

TEST_F(StoreTest, AnUnusedChangeIsNotBegun)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    StoreChange change(TheStore());
    EXPECT_TRUE(change.Finish());
    EXPECT_FALSE(change.IsBegun());
    EXPECT_THAT(TheStore().ReadText(7), Optional(Eq("7")));
}

TEST_F(StoreTest, AChangeThatIsNotFinishedRemovesNothing)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    {
        const StoreChange change(TheStore());
        TheStore().Remove(7, kCpe);
    }
    EXPECT_THAT(TheStore().ReadText(7), Optional(Eq("7")));
    TheStore().Remove(7, kCpe);
    EXPECT_EQ(TheStore().ReadText(7), std::nullopt);
}

TEST_F(StoreTest, FinishingTheRemovalOfWhatIsNotStoredSucceeds)
{
    Start();
    StoreChange change(TheStore());
    TheStore().Remove(7, kCpe);
    EXPECT_TRUE(change.Finish());
}

TEST_F(StoreTest, FinishTellsARemovalThatFailedAndDoesNotRepeatIt)
{
    directory_.Write("agent.db", std::string(5000, 'x'));
    Start();
    StoreChange change(TheStore());
    TheStore().Remove(7, kCpe);
    const CapturedStderr captured;
    EXPECT_FALSE(change.Finish());
    EXPECT_EQ(captured.Text(), "ERROR store " + Path() + ": vpn 7 cannot be removed: file is not a database\n");
    EXPECT_TRUE(change.Finish());
}

TEST_F(StoreTest, TheModuleAddsAndRemovesByOperation)
{
    Start();
    const auto operate = [](std::uint32_t vpn, const char *text, VQ_SQL_CONF_OP operation) {
        std::string copy = text == nullptr ? "" : text;
        return VQ_SqliteDnsMasqConfOp(static_cast<BOOL>(vpn), text == nullptr ? nullptr : copy.data(), operation, kCpe);
    };
    EXPECT_EQ(operate(kLargest, "4294967295", VQ_SQL_CONF_OP_ADD), 0);
    EXPECT_THAT(TheStore().ReadText(kLargest), Optional(Eq("4294967295")));
    EXPECT_EQ(operate(kLargest, nullptr, VQ_SQL_CONF_OP_ADD), -EINVAL);
    EXPECT_EQ(operate(kLargest, "x", VQ_SQL_CONF_OP_USPEC), -EINVAL);
    EXPECT_EQ(operate(kLargest, "x", VQ_SQL_CONF_OP_POLICY_RESET_ALL), -EINVAL);
    EXPECT_EQ(operate(7, nullptr, VQ_SQL_CONF_OP_DEL), -ENOENT);
    EXPECT_EQ(operate(kLargest, nullptr, VQ_SQL_CONF_OP_DEL), 0);
    EXPECT_THAT(TheStore().Read(), IsEmpty());
    EXPECT_EQ(VQ_IsPersistentConfEnable(), TRUE);
    EXPECT_EQ(VQ_GetDbDataTransOp(), &host_->conversions);
}

TEST_F(StoreTest, NoListIsReleased)
{
    EXPECT_NO_FATAL_FAILURE(VQ_SqliteConfListRelease(nullptr));
}

} // namespace
} // namespace kavel::agent
