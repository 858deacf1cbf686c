#include "base/sqlite.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "scratch.h"

namespace kavel::agent {
namespace {

// A database that holds the table `t` of a number and a text.
class SqliteTest : public testing::Test {
  protected:
    SqliteTest() { database_.Execute("CREATE TABLE t (id INTEGER PRIMARY KEY CHECK (id < 10), text TEXT) STRICT"); }

    ThrownError FailureOfExecute(const std::string &text)
    {
        return FailureOf([&] { database_.Execute(text); });
    }
    void Insert(std::int64_t id, std::string_view text)
    {
        const Statement statement(database_.Get(), "INSERT INTO t VALUES (?1, ?2)");
        Statement::Run run(statement);
        run.Bind(1, id);
        run.Bind(2, text);
        EXPECT_FALSE(run.Step());
    }

    ScratchDirectory directory_;
    std::string path_ = directory_.Write("db", "");
    Database database_{path_, 0};
};

TEST_F(SqliteTest, BindsAndReadsNumbersAndTexts)
{
    Insert(-9'000'000'000'000'000'000, std::string_view("a\0'b", 4));
    Insert(7, "");
    const Statement statement(database_.Get(), "SELECT id, text FROM t ORDER BY id");
    Statement::Run run(statement);
    ASSERT_TRUE(run.Step());
    EXPECT_EQ(run.Number(0), -9'000'000'000'000'000'000);
    EXPECT_EQ(run.Text(1), std::string_view("a\0'b", 4));
    ASSERT_TRUE(run.Step());
    EXPECT_EQ(run.Number(0), 7);
    EXPECT_EQ(run.Text(1), "");
    EXPECT_FALSE(run.Step());
}

TEST_F(SqliteTest, BindsAndReadsBlobs)
{
    database_.Execute("CREATE TABLE blobs (id INTEGER PRIMARY KEY, blob BLOB) STRICT");
    const Statement insert(database_.Get(), "INSERT INTO blobs VALUES (?1, ?2)");
    const std::vector<std::vector<std::uint8_t>> blobs{{0, 255, 0, 7}, {}};
    for (std::size_t i = 0; i < blobs.size(); ++i) {
        Statement::Run run(insert);
        run.Bind(1, static_cast<std::int64_t>(i));
        run.Bind(2, std::span(blobs[i]));
        EXPECT_FALSE(run.Step());
    }
    const Statement statement(database_.Get(), "SELECT blob FROM blobs ORDER BY id");
    Statement::Run run(statement);
    for (const std::vector<std::uint8_t> &blob : blobs) {
        ASSERT_TRUE(run.Step());
        EXPECT_FALSE(run.IsNull(0));
        const std::span<const std::uint8_t> read = run.Blob(0);
        EXPECT_EQ(std::vector(read.begin(), read.end()), blob);
    }
}

TEST_F(SqliteTest, AParameterThatIsNotBoundIsNull)
{
    const Statement insert(database_.Get(), "INSERT INTO t VALUES (?1, ?2)");
    {
        Statement::Run run(insert);
        run.Bind(1, 1);
        run.Step();
    }
    const Statement statement(database_.Get(), "SELECT id, text FROM t");
    Statement::Run run(statement);
    ASSERT_TRUE(run.Step());
    EXPECT_FALSE(run.IsNull(0));
    EXPECT_TRUE(run.IsNull(1));
}

TEST_F(SqliteTest, AStatementRunsAgainWithOtherValues)
{
    Insert(1, "one");
    Insert(2, "two");
    const Statement statement(database_.Get(), "SELECT text FROM t WHERE id = ?1");
    for (const auto &[id, text] : {std::pair{1, "one"}, std::pair{2, "two"}}) {
        Statement::Run run(statement);
        run.Bind(1, id);
        ASSERT_TRUE(run.Step());
        EXPECT_EQ(run.Text(0), text);
    }
    Statement::Run unbound(statement);
    EXPECT_FALSE(unbound.Step());
}

TEST_F(SqliteTest, ANullIsNoText)
{
    database_.Execute("INSERT INTO t VALUES (1, NULL)");
    const Statement statement(database_.Get(), "SELECT text FROM t");
    Statement::Run run(statement);
    ASSERT_TRUE(run.Step());
    EXPECT_THROW((void)run.Text(0), std::bad_alloc);
}

TEST_F(SqliteTest, ReadsOneNumber)
{
    EXPECT_EQ(database_.Number("SELECT count(*) FROM t"), 0);
    EXPECT_EQ(database_.Number("SELECT 7 UNION SELECT 8"), 7);
    EXPECT_EQ(database_.Number("SELECT id FROM t"), 0);
}

TEST_F(SqliteTest, TellsTheLengthsOfValuesInBytes)
{
    Insert(1, "");
    Insert(2, "caf\u00e9");
    Insert(3, std::string_view("a\0'b", 4));
    ColumnLengths lengths(database_, "t", "text");
    EXPECT_EQ(lengths.Of(2), 5);
    EXPECT_EQ(lengths.Of(3), 4);
    EXPECT_EQ(lengths.Of(1), 0);
}

TEST_F(SqliteTest, AMissingValueHasNoLength)
{
    Insert(1, "one");
    const ThrownError missing{EIO, "no such rowid: 4"};
    ColumnLengths lengths(database_, "t", "text");
    EXPECT_EQ(FailureOf([&] { (void)lengths.Of(4); }), missing) << "as the first";
    EXPECT_EQ(lengths.Of(1), 3);
    EXPECT_EQ(FailureOf([&] { (void)lengths.Of(4); }), missing) << "as a later one";
    EXPECT_EQ(FailureOf([&] { (void)ColumnLengths(database_, "none", "text").Of(1); }).error, EIO);
}

TEST_F(SqliteTest, ReadsNoValueToTellItsLength)
{
    database_.Execute("INSERT INTO t VALUES (1, CAST(zeroblob(20000000) AS TEXT))");
    (void)sqlite3_memory_highwater(1);
    EXPECT_EQ(ColumnLengths(database_, "t", "text").Of(1), 20'000'000);
    EXPECT_LT(sqlite3_memory_highwater(0), 10'000'000);
}

TEST_F(SqliteTest, CountsTheChangesOfTheLastStatement)
{
    Insert(1, "one");
    Insert(2, "two");
    database_.Execute("DELETE FROM t");
    EXPECT_EQ(database_.Changes(), 2);
    database_.Execute("DELETE FROM t");
    EXPECT_EQ(database_.Changes(), 0);
}

TEST_F(SqliteTest, AMissingFileIsNotCreated)
{
    const std::string path = directory_.File("none");
    EXPECT_EQ(FailureOf([&] { const Database database(path, 0); }),
              (ThrownError{ENOENT, "unable to open database file"}));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(SqliteTest, AFileThatCannotBeReadSaysWhy)
{
    ASSERT_EQ(::chmod(path_.c_str(), 0), 0);
    const OrdinaryUser user;
    EXPECT_EQ(FailureOf([&] { const Database database(path_, 0); }).error, EACCES);
}

TEST_F(SqliteTest, AFileThatCannotBeWrittenIsReadOnly)
{
    EXPECT_FALSE(database_.IsReadOnly());
    Insert(1, "one");
    ASSERT_EQ(::chmod(path_.c_str(), 0444), 0);
    const OrdinaryUser user;
    const Database database(path_, 0);
    EXPECT_TRUE(database.IsReadOnly());
    EXPECT_EQ(database.Number("SELECT count(*) FROM t"), 1);
    EXPECT_EQ(FailureOf([&] { database.Execute("DELETE FROM t"); }),
              (ThrownError{EROFS, "attempt to write a readonly database"}));
}

TEST_F(SqliteTest, ALockedDatabaseIsBusy)
{
    const Database other(path_, 0);
    other.Execute("BEGIN EXCLUSIVE");
    EXPECT_EQ(FailureOfExecute("INSERT INTO t VALUES (1, 'one')"), (ThrownError{EBUSY, "database is locked"}));
    other.Execute("COMMIT");
    EXPECT_EQ(FailureOfExecute("INSERT INTO t VALUES (1, 'one')"), ThrownError{});
}

TEST_F(SqliteTest, AValueThatBreaksARuleIsInvalid)
{
    EXPECT_EQ(FailureOfExecute("INSERT INTO t VALUES (10, '')").error, EINVAL);
    EXPECT_EQ(FailureOfExecute("INSERT INTO t VALUES ('x', '')").error, EINVAL);
}

TEST_F(SqliteTest, AFullDatabaseHasNoSpace)
{
    database_.Execute("PRAGMA max_page_count = 3");
    EXPECT_EQ(FailureOf([&] { Insert(1, std::string(100'000, 'x')); }),
              (ThrownError{ENOSPC, "database or disk is full"}));
}

TEST_F(SqliteTest, ATextOverTheLimitIsTooBig)
{
    sqlite3_limit(database_.Get(), SQLITE_LIMIT_LENGTH, 1000);
    EXPECT_EQ(FailureOf([&] { Insert(1, std::string(1001, 'x')); }).error, E2BIG);
}

TEST_F(SqliteTest, AReadOnlyConnectionRefusesWrites)
{
    database_.Execute("PRAGMA query_only = 1");
    EXPECT_EQ(FailureOfExecute("INSERT INTO t VALUES (1, 'one')").error, EROFS);
}

TEST_F(SqliteTest, AMissingRightIsAnAccessError)
{
    sqlite3_set_authorizer(
        database_.Get(),
        [](void *, int action, const char *, const char *, const char *, const char *) {
            return action == SQLITE_INSERT ? SQLITE_DENY : SQLITE_OK;
        },
        nullptr);
    EXPECT_EQ(FailureOfExecute("INSERT INTO t VALUES (1, 'one')").error, EACCES);
}

TEST_F(SqliteTest, AnythingElseIsAnInputOutputError)
{
    EXPECT_EQ(FailureOfExecute("nonsense"), (ThrownError{EIO, "near \"nonsense\": syntax error"}));
    EXPECT_EQ(FailureOf([&] { const Statement statement(database_.Get(), "nonsense"); }).error, EIO);
    const std::string text = directory_.Write("text", std::string(1000, 'x'));
    const Database database(text, 0);
    EXPECT_EQ(FailureOf([&] { (void)database.Number("PRAGMA user_version"); }),
              (ThrownError{EIO, "file is not a database"}));
}

} // namespace
} // namespace kavel::agent
