// The wrappers around the host's store.
#include <cstring>

#include "moduleTest.h"
#include "vqMemory.h"

namespace {

using fakehost::EntryKind;
using testing::ElementsAre;
using testing::IsEmpty;

using Add = VQ_ERR_T (*)(const VQ_CTRL_DNSMASQ_CONF *Dnsmasq, VQ_SQL_CONF_TBL Table);

// A conversion whose text differs from that of the module.
char *ToText(const VQ_DNSMASQ_CONF *Dnsmasq)
{
    fakehost::Host::Current().Note(EntryKind::World, "DnsmasqConfToStr", Dnsmasq->VpnId);
    constexpr const char *Text = "a text";
    const std::size_t Size = std::strlen(Text) + 1;
    auto *Copy = static_cast<char *>(VQ_AgentMemAlloc(Size));
    return Copy == nullptr ? nullptr : static_cast<char *>(std::memcpy(Copy, Text, Size));
}

void FreeText(char *Text)
{
    fakehost::Host::Current().Note(EntryKind::World, "DataTransJsonStrFree");
    VQ_AgentMemFree(Text);
}

class StoreWrappers : public ModuleTest {
  protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        Host.Rows.Conversions.DnsmasqConfToStr = ToText;
        Host.Rows.Conversions.DataTransJsonStrFree = FreeText;
    }

    void TearDown() override
    {
        EXPECT_THAT(Host.Log.Steps(), IsEmpty());
        ModuleTest::TearDown();
    }

    Record Conf = NewRecord(7);
};

class StoreAdds : public StoreWrappers, public testing::WithParamInterface<Add> {};

TEST_P(StoreAdds, TheTextIsStoredAndReleased)
{
    EXPECT_EQ(GetParam()(Conf.get(), VQ_SQL_CONF_CPE_DNSMASQ), 0);
    EXPECT_EQ(GetParam()(Conf.get(), VQ_SQL_CONF_POP_DNSMASQ), 0);
    EXPECT_THAT(World(), ElementsAre("VQ_GetDbDataTransOp()", "DnsmasqConfToStr(7)",
                                     "VQ_SqliteDnsMasqConfOp(7, \"a text\", 1, 10)", "DataTransJsonStrFree()",
                                     "VQ_GetDbDataTransOp()", "DnsmasqConfToStr(7)",
                                     "VQ_SqliteDnsMasqConfOp(7, \"a text\", 1, 14)", "DataTransJsonStrFree()"));
}

TEST_P(StoreAdds, AHostWithoutAConversionStoresNothing)
{
    Host.Rows.Conversions.DnsmasqConfToStr = nullptr;
    EXPECT_EQ(GetParam()(Conf.get(), VQ_SQL_CONF_CPE_DNSMASQ), 0);
    EXPECT_THAT(World(), ElementsAre("VQ_GetDbDataTransOp()"));
}

TEST_P(StoreAdds, WithoutATextNothingIsStoredOrReleased)
{
    Host.Failures.Fail("VQ_AgentMemAlloc", -5);
    EXPECT_EQ(GetParam()(Conf.get(), VQ_SQL_CONF_CPE_DNSMASQ), -12);
    EXPECT_THAT(World(), ElementsAre("VQ_GetDbDataTransOp()", "DnsmasqConfToStr(7)"));
}

TEST_P(StoreAdds, WithoutAReleaseFunctionTheTextIsNotReleased)
{
    static char Kept[] = "the host's own";
    Host.Rows.Conversions.DnsmasqConfToStr = [](const VQ_DNSMASQ_CONF *) -> char * { return Kept; };
    Host.Rows.Conversions.DataTransJsonStrFree = nullptr;
    EXPECT_EQ(GetParam()(Conf.get(), VQ_SQL_CONF_CPE_DNSMASQ), 0);
    EXPECT_THAT(World(), ElementsAre("VQ_GetDbDataTransOp()", "VQ_SqliteDnsMasqConfOp(7, \"the host's own\", 1, 10)"));
}

TEST_P(StoreAdds, TheCodeOfTheStoreIsReturnedAndTheTextReleased)
{
    Host.Failures.Fail("VQ_SqliteDnsMasqConfOp", -28);
    EXPECT_EQ(GetParam()(Conf.get(), VQ_SQL_CONF_CPE_DNSMASQ), -28);
    EXPECT_EQ(World().back(), "DataTransJsonStrFree()");
}

TEST_P(StoreAdds, APositiveResultIsReturned)
{
    Host.SuccessResults["VQ_SqliteDnsMasqConfOp"] = 4;
    EXPECT_EQ(GetParam()(Conf.get(), VQ_SQL_CONF_CPE_DNSMASQ), 4);
}

TEST_P(StoreAdds, TheRowKeyIsTheWholeVpnId)
{
    for (const uint32_t VpnId : {0U, 1U, 2U, 2147483648U, 4294967295U}) {
        Conf->VpnId = VpnId;
        EXPECT_EQ(GetParam()(Conf.get(), VQ_SQL_CONF_CPE_DNSMASQ), 0);
        EXPECT_TRUE(Host.Rows.Rows.contains({10, VpnId})) << VpnId;
    }
    EXPECT_EQ(Host.Rows.Rows.size(), 5U);
}

TEST_P(StoreAdds, ARowIsReplaced)
{
    Host.Rows.Rows[{10, 7}] = "an older text";
    EXPECT_EQ(GetParam()(Conf.get(), VQ_SQL_CONF_CPE_DNSMASQ), 0);
    EXPECT_EQ(Host.Rows.Rows, (std::map<fakehost::Store::Key, std::string>{{{10, 7}, "a text"}}));
}

INSTANTIATE_TEST_SUITE_P(Functions, StoreAdds,
                         testing::Values(VQCtrl_AdvancedDnsmasqAddPersistentConf,
                                         VQCtrl_AdvancedDnsmasqUpdatePersistentConf),
                         [](const auto &Info) { return std::string(Info.index == 0 ? "Add" : "Update"); });

TEST_F(StoreWrappers, ADeleteHasNoText)
{
    Host.Rows.Rows = {{{10, 7}, "x"}, {{10, 8}, "x"}, {{14, 7}, "x"}};
    EXPECT_EQ(VQCtrl_AdvancedDnsmasqDelPersistentconf(Conf.get(), VQ_SQL_CONF_CPE_DNSMASQ), 0);
    EXPECT_THAT(World(), ElementsAre("VQ_SqliteDnsMasqConfOp(7, null, 2, 10)"));
    EXPECT_EQ(Host.Rows.Rows.size(), 2U);
    EXPECT_EQ(VQCtrl_AdvancedDnsmasqDelPersistentconf(Conf.get(), VQ_SQL_CONF_POP_DNSMASQ), 0);
    EXPECT_EQ(World().back(), "VQ_SqliteDnsMasqConfOp(7, null, 2, 14)");
}

TEST_F(StoreWrappers, ADeleteReturnsTheResultOfTheStore)
{
    EXPECT_EQ(VQCtrl_AdvancedDnsmasqDelPersistentconf(Conf.get(), VQ_SQL_CONF_CPE_DNSMASQ), -2);
    Host.Failures.Fail("VQ_SqliteDnsMasqConfOp", -28);
    EXPECT_EQ(VQCtrl_AdvancedDnsmasqDelPersistentconf(Conf.get(), VQ_SQL_CONF_CPE_DNSMASQ), -28);
}

TEST_F(StoreWrappers, TheRowKeyOfADeleteIsTheWholeVpnId)
{
    Conf->VpnId = 4294967295;
    Host.Rows.Rows[{10, 4294967295}] = "x";
    Host.SuccessResults["VQ_SqliteDnsMasqConfOp"] = 4;
    EXPECT_EQ(VQCtrl_AdvancedDnsmasqDelPersistentconf(Conf.get(), VQ_SQL_CONF_CPE_DNSMASQ), 4);
    EXPECT_THAT(Host.Rows.Rows, IsEmpty());
}

// A conversion that logs nothing, unlike that of the module.
VQ_ERR_T ToConf(VQ_DNSMASQ_CONF *Dnsmasq, const char *Text)
{
    Dnsmasq->VpnId = static_cast<uint32_t>(std::strlen(Text));
    return 0;
}

TEST_F(StoreWrappers, AllRecordsAreTheListOfTheHost)
{
    Host.Rows.Conversions.DnsmasqStrToConf = ToConf;
    Host.Rows.Rows = {{{10, 1}, "12345"}, {{10, 2}, "123"}, {{14, 3}, "1"}};
    VQ_PersistentConfList *List = VQCtrl_AdvancedDnsmasqGetAllPersistentconf(VQ_SQL_CONF_CPE_DNSMASQ);
    ASSERT_NE(List, nullptr);
    EXPECT_EQ(List->Count, 2);
    EXPECT_EQ(cds_list_entry(List->Head.next, VQ_DnsmasqConfNode, List)->Dnsmasq.VpnId, 5U);
    EXPECT_EQ(cds_list_entry(List->Head.prev, VQ_DnsmasqConfNode, List)->Dnsmasq.VpnId, 3U);
    EXPECT_THAT(World(), ElementsAre("VQ_SqliteGetDnsMasqConf(10)"));
    VQ_SqliteConfListRelease(List);
}

TEST_F(StoreWrappers, ANullListIsReturned)
{
    Host.Failures.Fail("VQ_SqliteGetDnsMasqConf", -5);
    EXPECT_EQ(VQCtrl_AdvancedDnsmasqGetAllPersistentconf(VQ_SQL_CONF_POP_DNSMASQ), nullptr);
    EXPECT_THAT(World(), ElementsAre("VQ_SqliteGetDnsMasqConf(14)"));
}

} // namespace
