// Durability of the history and of the rows beside it, failures, and tables of another shape.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "message_history_fixture.h"
#include "sync_count.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kFull = 2;

TEST_F(MessageHistoryTest, AnAdditionDoesNotWaitForTheDiskAndARowDoes)
{
    SyncCount syncs;
    Start();
    TheStore().Put(7, "7", kCpe);
    EXPECT_GT(syncs.Take(), 0);
    for (int i = 0; i < 15; ++i) {
        Add(7, Entry("applied", 1000));
    }
    EXPECT_EQ(syncs.Take(), 0);
    TheStore().Put(7, "7 again", kCpe);
    EXPECT_GT(syncs.Take(), 0);
    Execute("CREATE TRIGGER refuse BEFORE INSERT ON history BEGIN SELECT RAISE(ABORT, 'no'); END");
    EXPECT_EQ(FailureToAdd(), (ThrownError{EINVAL, "no"}));
    (void)TheStore().Read();
    (void)syncs.Take();
    TheStore().Put(7, "7", kCpe);
    EXPECT_GT(syncs.Take(), 0);
}

// The database of the tests below stays open after a failure, unlike the store's.
class HistoryDatabaseTest : public MessageHistoryTest {
  protected:
    HistoryDatabaseTest()
    {
        Start();
        TheStore().Put(7, "7", kCpe);
        host_.reset();
        database_.emplace(Path(), 0);
        database_->Execute("PRAGMA synchronous = FULL");
        history_.emplace(*database_, Platform::kCpe);
    }
    [[nodiscard]] std::int64_t Synchronous() const { return database_->Number("PRAGMA synchronous"); }
    ThrownError FailureToAddEntry()
    {
        return FailureOf([&] { history_->Add(7, Entry("failed")); });
    }

    std::optional<Database> database_;
    std::optional<MessageHistory> history_;
};

TEST_F(HistoryDatabaseTest, EveryCommitIsFullAfterAnAddition)
{
    ASSERT_EQ(Synchronous(), kFull);
    history_->Add(7, Entry("one"));
    EXPECT_EQ(Synchronous(), kFull);
}

TEST_F(HistoryDatabaseTest, AnInsertionThatFailsLeavesNothingBehind)
{
    history_->Add(7, Entry("one"));
    Execute("CREATE TRIGGER refuse BEFORE INSERT ON history BEGIN SELECT RAISE(ABORT, 'no'); END");
    EXPECT_EQ(FailureToAddEntry(), (ThrownError{EINVAL, "no"}));
    EXPECT_EQ(Synchronous(), kFull);
    Execute("DROP TRIGGER refuse");
    history_->Add(7, Entry("two"));
    EXPECT_THAT(OutcomesOf(history_->Read(7)), ElementsAre("two", "one"));
}

// Insertion and removal are one transaction.
TEST_F(HistoryDatabaseTest, ARemovalThatFailsTakesTheInsertionBack)
{
    for (int i = 0; i < 10; ++i) {
        history_->Add(7, Entry("applied"));
    }
    const std::vector<HistoryEntry> before = history_->Read(7);
    Execute("CREATE TRIGGER refuse BEFORE DELETE ON history BEGIN SELECT RAISE(ABORT, 'no'); END");
    EXPECT_EQ(FailureToAddEntry(), (ThrownError{EINVAL, "no"}));
    EXPECT_EQ(Synchronous(), kFull);
    EXPECT_NE(sqlite3_get_autocommit(database_->Get()), 0);
    EXPECT_EQ(history_->Read(7), before);
    Execute("DROP TRIGGER refuse");
    history_->Add(7, Entry("last"));
    EXPECT_EQ(history_->Read(7).front().outcome, "last");
    EXPECT_EQ(Number("SELECT count(*) FROM history"), 10);
}

TEST_F(HistoryDatabaseTest, ALockedDatabaseIsBusy)
{
    history_->Add(7, Entry("one"));
    const Database other(Path(), 0);
    other.Execute("BEGIN EXCLUSIVE");
    EXPECT_EQ(FailureToAddEntry(), (ThrownError{EBUSY, "database is locked"}));
    EXPECT_EQ(Synchronous(), kFull);
    EXPECT_THAT(OutcomesOf(history_->Read(7)), ElementsAre("one"));
    other.Execute("ROLLBACK");
    EXPECT_EQ(FailureToAddEntry(), ThrownError{});
}

TEST_F(HistoryDatabaseTest, AFullDatabaseHasNoSpace)
{
    database_->Execute("PRAGMA max_page_count = 20");
    EXPECT_EQ(FailureOf([&] { history_->Add(7, Entry("large", kHalf)); }),
              (ThrownError{ENOSPC, "database or disk is full"}));
    EXPECT_EQ(Synchronous(), kFull);
    EXPECT_THAT(history_->Read(7), IsEmpty());
    history_->Add(7, Entry("small"));
    EXPECT_THAT(OutcomesOf(history_->Read(7)), ElementsAre("small"));
}

// Tables of another shape, as a damaged file or another program may have them.
TEST_F(MessageHistoryTest, ATableWithOtherColumnsIsAnErrorAndTheRowsAreNotHarmed)
{
    Start();
    Add(7, Entry("one"));
    Execute("DROP TABLE history; CREATE TABLE history (vpn_id INTEGER, text TEXT)");
    EXPECT_EQ(FailureToAdd().error, EIO);
    EXPECT_EQ(FailureToRead().error, EIO);
    ExpectRowsWork();
    Start();
    EXPECT_EQ(FailureToAdd(), (ThrownError{EIO, "table history has no column named platform"}));
    EXPECT_EQ(FailureToRead(), (ThrownError{EIO, "no such column: time"}));
    ExpectRowsWork();
}

// The table cannot be created, as on a full disk.
TEST_F(MessageHistoryTest, AStoreWithoutATableIsOpened)
{
    WriteOldStore();
    Execute("DELETE FROM cpe_dnsmasq; CREATE INDEX history ON cpe_dnsmasq (conf)");
    Start();
    ExpectRowsWork();
    EXPECT_EQ(FailureToAdd(), (ThrownError{EIO, "there is already an index named history"}));
    EXPECT_EQ(FailureToRead().error, EIO);
    ExpectRowsWork();
    Execute("DROP INDEX history");
    Add(7, Entry("one"));
    EXPECT_THAT(Outcomes(7), ElementsAre("one"));
}

// Looking for the table takes no lock, for which the store would wait 2 s.
TEST_F(MessageHistoryTest, ALockedStoreIsOpenedWithoutWaiting)
{
    Start();
    Add(7, Entry("one"));
    Start();
    const Database other(Path(), 0);
    other.Execute("BEGIN EXCLUSIVE");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THAT(Outcomes(7), ElementsAre("one"));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

TEST_F(MessageHistoryTest, AnEntryThatIsNotCompleteIsAnError)
{
    Start();
    Add(7, Entry("one"));
    for (const std::string column : {"peer", "outcome"}) {
        Execute("DROP TABLE history; CREATE TABLE history (platform, vpn_id, number, time, peer, revision, result,"
                " outcome, message_bytes, message)");
        Add(7, Entry("one"));
        EXPECT_THAT(Outcomes(7), ElementsAre("one"));
        Execute("UPDATE history SET " + column + " = NULL");
        EXPECT_EQ(FailureToRead(), (ThrownError{EINVAL, "an entry of the history is not complete"})) << column;
        ExpectRowsWork();
    }
}

TEST_F(MessageHistoryTest, WhatAnotherProgramAddsIsBounded)
{
    Start();
    Add(7, Entry("one"));
    Execute("WITH RECURSIVE n (i) AS (SELECT 2 UNION ALL SELECT i + 1 FROM n WHERE i < 100)"
            " INSERT INTO history SELECT 'cpe', 7, i, 0, '', NULL, 0, 'n' || i, 0, NULL FROM n");
    Execute("UPDATE history SET message = zeroblob(100000000), outcome = printf('%.1000c', 'o') WHERE number = 100");
    Start(); // with a cache of its own
    (void)TheStore().Read(7);
    (void)sqlite3_memory_highwater(1);
    const std::vector<HistoryEntry> entries = TheStore().ReadHistory(7);
    EXPECT_LT(sqlite3_memory_highwater(0), 16'000'000);
    ASSERT_EQ(entries.size(), 10U);
    EXPECT_EQ(entries[0].message, std::nullopt);
    EXPECT_EQ(entries[0].outcome, std::string(kHistoryOutcomeMax, 'o'));
    EXPECT_EQ(entries[9].outcome, "n91");
    Add(7, Entry("last"));
    EXPECT_THAT(Outcomes(7), ElementsAre("last")) << "the message before is longer than what is kept of a VPN";
    EXPECT_LT(sqlite3_memory_highwater(0), 16'000'000);
}

} // namespace
} // namespace kavel::agent
