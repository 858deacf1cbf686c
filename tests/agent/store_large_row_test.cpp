// Stored texts that are too long to be read.
#include "services/store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "base/sqlite.h"
#include "store_fixture.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::Optional;

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
    EXPECT_EQ(TheStore().Ids().size(), 3U);
    EXPECT_FALSE(TheStore().Equals(7, ""));
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

} // namespace
} // namespace kavel::agent
