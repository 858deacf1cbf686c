// The list of stored records that the module gets.
#include "services/store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <utility>

#include "base/zeroed_pages.h"

#include "store_fixture.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;

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
    EXPECT_EQ(captured.Text(), "ERROR vpn 7: its stored record cannot be read, and is kept: Invalid argument\n"
                               "WARNING vpn 9: its stored record is not applied: the VPN is not configured\n");
    EXPECT_THAT(VpnsOf(TheStore().Read()), ElementsAre(0U, 7U, 8U, 9U));
}

TEST_F(StoreTest, AListHasTheRecordsOfItsTableAlone)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    TheStore().Put(8, "8", kPop);
    const ListPtr first(TheStore().List(kCpe));
    const ListPtr second(TheStore().List(kPop));
    EXPECT_THAT(VpnsOf(first), ElementsAre(7U));
    EXPECT_THAT(VpnsOf(second), ElementsAre(8U));
}

TEST_F(StoreTest, AnOfferedRecordIsTheNextListAlone)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    auto node = MapZeroed<VQ_DnsmasqConfNode>();
    node->Dnsmasq.VpnId = 8;
    TheStore().Offer(std::move(node));
    const ListPtr offered(TheStore().List(kCpe));
    EXPECT_THAT(VpnsOf(offered), ElementsAre(8U));
    const ListPtr stored(TheStore().List(kCpe));
    EXPECT_THAT(VpnsOf(stored), ElementsAre(7U));
}

TEST_F(StoreTest, AnOfferedRecordNeedsNoStore)
{
    directory_.Write("agent.db", std::string(5000, 'x'));
    Start();
    auto node = MapZeroed<VQ_DnsmasqConfNode>();
    node->Dnsmasq.VpnId = 9;
    TheStore().Offer(std::move(node));
    const CapturedStderr captured;
    const ListPtr offered(TheStore().List(kPop));
    ASSERT_TRUE(offered);
    EXPECT_THAT(VpnsOf(offered), ElementsAre(9U)) << "whether the VPN is configured is not asked";
    EXPECT_EQ(captured.Text(), "");
}

TEST_F(StoreTest, ARecordIsFilledFromAText)
{
    Start();
    const auto record = MapZeroed<VQ_DnsmasqConfNode>();
    EXPECT_EQ(TheStore().Fill(record->Dnsmasq, 7, "7 disabled"), std::nullopt);
    EXPECT_EQ(record->Dnsmasq.VpnId, 7U);
    EXPECT_EQ(record->Dnsmasq.Enable, FALSE);
    const auto other = MapZeroed<VQ_DnsmasqConfNode>();
    EXPECT_THAT(TheStore().Fill(other->Dnsmasq, 7, "8"), Optional(HasSubstr("8")));
    const auto bad = MapZeroed<VQ_DnsmasqConfNode>();
    EXPECT_THAT(TheStore().Fill(bad->Dnsmasq, 7, "7 silent"), Optional(Eq("Invalid argument")));
}

TEST_F(StoreTest, TellsWhetherAVpnHasARow)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    TheStore().Put(8, "8", kPop);
    EXPECT_TRUE(TheStore().Has(7));
    EXPECT_FALSE(TheStore().Has(8)) << "of the other platform";
    EXPECT_FALSE(TheStore().Has(0));
}

TEST_F(StoreTest, AnEmptyStoreGivesAnEmptyList)
{
    Start();
    const ListPtr list(TheStore().List(kCpe));
    ASSERT_TRUE(list);
    EXPECT_THAT(VpnsOf(list), IsEmpty());
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
    EXPECT_THAT(captured.Text(), HasSubstr("the stored records cannot be read"));
}

} // namespace
} // namespace kavel::agent
