// The list of stored records that the module gets.
#include "services/store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

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

} // namespace
} // namespace kavel::agent
