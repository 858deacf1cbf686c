// Removals that are delayed to the end of a change, and what the module asks for.
#include "services/store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <string>

#include "store_fixture.h"

namespace kavel::agent {
namespace {

using testing::Eq;
using testing::IsEmpty;
using testing::Optional;

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

TEST_F(StoreTest, AChangeThatIsLeftOutChangesNothing)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    {
        StoreChange change(TheStore(), RowChange::kLeftOut);
        EXPECT_FALSE(change.IsBegun());
        TheStore().Remove(7, kCpe);
        EXPECT_TRUE(change.IsBegun());
        TheStore().Put(7, "7 again", kCpe);
        EXPECT_TRUE(change.Finish());
        EXPECT_THAT(TheStore().ReadText(7), Optional(Eq("7")));
    }
    StoreChange change(TheStore(), RowChange::kLeftOut);
    TheStore().Remove(7, kCpe);
    EXPECT_TRUE(change.Finish());
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
