#include <cerrno>
#include <charconv>
#include <string>
#include <string_view>
#include <vector>

#include "contract_test.h"
#include "vqStore.h"

namespace kavel::contract {
namespace {

using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

// Texts are "vpn <id> host <address>". One that begins with '!' can be read only if this is set.
bool s_readsMarkedTexts = false;

VQ_ERR_T ReadText(VQ_DNSMASQ_CONF *record, const char *text)
{
    std::string_view left = text;
    if (left.starts_with('!')) {
        if (!s_readsMarkedTexts) {
            return -EINVAL;
        }
        left.remove_prefix(1);
    }
    constexpr std::string_view kVpnWord = "vpn ";
    constexpr std::string_view kHostWord = " host ";
    const std::size_t second = left.find(kHostWord);
    if (!left.starts_with(kVpnWord) || second == std::string_view::npos) {
        return -EINVAL;
    }
    std::from_chars(left.data() + kVpnWord.size(), left.data() + second, record->VpnId);
    std::from_chars(left.data() + second + kHostWord.size(), left.data() + left.size(), record->DnsHost[0].Ip);
    record->DnsHostNum = 1;
    return 0;
}

std::string TextOf(std::uint32_t vpn, std::uint32_t address)
{
    return "vpn " + std::to_string(vpn) + " host " + std::to_string(address);
}

VQ_ERR_T Add(std::uint32_t vpn, std::string text, VQ_SQL_CONF_TBL table = VQ_SQL_CONF_CPE_DNSMASQ)
{
    return VQ_SqliteDnsMasqConfOp(static_cast<BOOL>(vpn), text.data(), VQ_SQL_CONF_OP_ADD, table);
}

VQ_ERR_T Delete(std::uint32_t vpn, VQ_SQL_CONF_TBL table = VQ_SQL_CONF_CPE_DNSMASQ)
{
    return VQ_SqliteDnsMasqConfOp(static_cast<BOOL>(vpn), nullptr, VQ_SQL_CONF_OP_DEL, table);
}

using Row = std::pair<std::uint32_t, std::uint32_t>; // VPN, address

std::vector<Row> Rows(VQ_SQL_CONF_TBL table = VQ_SQL_CONF_CPE_DNSMASQ)
{
    VQ_PersistentConfList *const list = VQ_SqliteGetDnsMasqConf(table);
    std::vector<Row> rows;
    if (list == nullptr) {
        return rows;
    }
    for (const VQ_LIST_HEAD *link = list->Head.next; link != &list->Head; link = link->next) {
        EXPECT_EQ(link->next->prev, link);
        const auto &record = reinterpret_cast<const VQ_DnsmasqConfNode *>(link)->Dnsmasq;
        EXPECT_EQ(record.DnsHostNum, 1U);
        EXPECT_EQ(record.DnsHost[1].Ip, 0U);
        EXPECT_EQ(record.DnsProxy[VQ_DNS_PROXY_MAX - 1].ServerIp, 0U);
        rows.emplace_back(record.VpnId, record.DnsHost[0].Ip);
    }
    EXPECT_EQ(list->Count, static_cast<std::int32_t>(rows.size()));
    VQ_SqliteConfListRelease(list);
    return rows;
}

class Store : public ContractTest {
  protected:
    void SetUp() override
    {
        s_readsMarkedTexts = false;
        VQ_GetDbDataTransOp()->DnsmasqStrToConf = ReadText;
    }
    void TearDown() override
    {
        VQ_GetDbDataTransOp()->DnsmasqStrToConf = nullptr;
        ContractTest::TearDown();
    }
};

TEST_F(Store, IsEnabled)
{
    PROMISE(kStoreEnabled);
    EXPECT_EQ(VQ_IsPersistentConfEnable(), TRUE);
}

TEST_F(Store, HasOneTableOfConversions)
{
    PROMISE(kStoreConversions);
    EXPECT_NE(VQ_GetDbDataTransOp(), nullptr);
    EXPECT_EQ(VQ_GetDbDataTransOp(), VQ_GetDbDataTransOp());
}

TEST_F(Store, IsEmptyAtFirst)
{
    PROMISE(kStoreListEmpty);
    EXPECT_THAT(Rows(), IsEmpty());
    EXPECT_THAT(Rows(VQ_SQL_CONF_POP_DNSMASQ), IsEmpty());
}

TEST_F(Store, ReturnsTheStoredRows)
{
    PROMISE(kStoreAdd);
    PROMISE(kStoreList);
    PROMISE(kStoreListZeroed);
    EXPECT_GE(Add(kVpn, TextOf(kVpn, 1)), 0);
    EXPECT_GE(Add(kOtherVpn, TextOf(kOtherVpn, 2)), 0);
    EXPECT_THAT(Rows(), UnorderedElementsAre(Pair(kVpn, 1), Pair(kOtherVpn, 2)));
    EXPECT_THAT(Rows(), UnorderedElementsAre(Pair(kVpn, 1), Pair(kOtherVpn, 2)));
}

TEST_F(Store, CopiesTheText)
{
    std::string text = TextOf(kVpn, 1);
    EXPECT_GE(VQ_SqliteDnsMasqConfOp(static_cast<BOOL>(kVpn), text.data(), VQ_SQL_CONF_OP_ADD, VQ_SQL_CONF_CPE_DNSMASQ),
              0);
    EXPECT_EQ(text, TextOf(kVpn, 1));
    text.assign(text.size(), 'x');
    EXPECT_THAT(Rows(), UnorderedElementsAre(Pair(kVpn, 1)));
}

TEST_F(Store, ReplacesARow)
{
    PROMISE(kStoreAddReplaces);
    EXPECT_GE(Add(kVpn, TextOf(kVpn, 1)), 0);
    EXPECT_GE(Add(kVpn, TextOf(kVpn, 2)), 0);
    EXPECT_THAT(Rows(), UnorderedElementsAre(Pair(kVpn, 2)));
    EXPECT_GE(Delete(kVpn), 0);
    EXPECT_THAT(Rows(), IsEmpty());
}

TEST_F(Store, DeletesOneRow)
{
    PROMISE(kStoreDelete);
    EXPECT_GE(Add(kVpn, TextOf(kVpn, 1)), 0);
    EXPECT_GE(Add(kOtherVpn, TextOf(kOtherVpn, 2)), 0);
    EXPECT_GE(Delete(kVpn), 0);
    EXPECT_THAT(Rows(), UnorderedElementsAre(Pair(kOtherVpn, 2)));
}

TEST_F(Store, DeletingAMissingRowIsNotFound)
{
    PROMISE(kStoreDeleteMissing);
    EXPECT_EQ(Delete(kVpn), -ENOENT);
    EXPECT_GE(Add(kVpn, TextOf(kVpn, 1)), 0);
    EXPECT_EQ(Delete(kOtherVpn), -ENOENT);
    EXPECT_GE(Delete(kVpn), 0);
    EXPECT_EQ(Delete(kVpn), -ENOENT);
}

// The key is declared BOOL, but it is a VPN id: values must not be reduced to 0 and 1.
TEST_F(Store, AcceptsAnyVpnIdAsKey)
{
    PROMISE(kStoreKey);
    for (const std::uint32_t vpn : {0U, kVpn, kLastVpn}) {
        EXPECT_GE(Add(vpn, TextOf(vpn, vpn)), 0);
    }
    EXPECT_THAT(Rows(), UnorderedElementsAre(Pair(0U, 0U), Pair(kVpn, kVpn), Pair(kLastVpn, kLastVpn)));
    EXPECT_GE(Delete(kLastVpn), 0);
    EXPECT_THAT(Rows(), UnorderedElementsAre(Pair(0U, 0U), Pair(kVpn, kVpn)));
    EXPECT_GE(Delete(0), 0);
    EXPECT_THAT(Rows(), UnorderedElementsAre(Pair(kVpn, kVpn)));
    EXPECT_EQ(Delete(1), -ENOENT);
}

TEST_F(Store, TablesAreSeparate)
{
    PROMISE(kStoreTables);
    EXPECT_GE(Add(kVpn, TextOf(kVpn, 1), VQ_SQL_CONF_CPE_DNSMASQ), 0);
    EXPECT_EQ(Delete(kVpn, VQ_SQL_CONF_POP_DNSMASQ), -ENOENT);
    EXPECT_GE(Add(kVpn, TextOf(kVpn, 2), VQ_SQL_CONF_POP_DNSMASQ), 0);
    EXPECT_THAT(Rows(VQ_SQL_CONF_CPE_DNSMASQ), UnorderedElementsAre(Pair(kVpn, 1)));
    EXPECT_THAT(Rows(VQ_SQL_CONF_POP_DNSMASQ), UnorderedElementsAre(Pair(kVpn, 2)));
    EXPECT_GE(Delete(kVpn, VQ_SQL_CONF_CPE_DNSMASQ), 0);
    EXPECT_THAT(Rows(VQ_SQL_CONF_POP_DNSMASQ), UnorderedElementsAre(Pair(kVpn, 2)));
}

TEST_F(Store, AddingWithoutATextIsRefused)
{
    world().AllowUnusualUse();
    EXPECT_GE(Add(kVpn, TextOf(kVpn, 1)), 0);
    for (const VQ_SQL_CONF_OP op : {VQ_SQL_CONF_OP_ADD, VQ_SQL_CONF_OP_USPEC, VQ_SQL_CONF_OP_MAX}) {
        EXPECT_LT(VQ_SqliteDnsMasqConfOp(static_cast<BOOL>(kVpn), nullptr, op, VQ_SQL_CONF_CPE_DNSMASQ), 0);
    }
    EXPECT_THAT(Rows(), UnorderedElementsAre(Pair(kVpn, 1)));
}

// A row that cannot be converted does not affect the others, and is kept.
TEST_F(Store, SkipsRowsThatCannotBeConverted)
{
    PROMISE(kStoreListBadRow);
    EXPECT_GE(Add(0, TextOf(0, 1)), 0);
    EXPECT_GE(Add(kVpn, "!" + TextOf(kVpn, 2)), 0);
    EXPECT_GE(Add(kOtherVpn, TextOf(kOtherVpn, 3)), 0);
    EXPECT_GE(Add(kLastVpn, "not a record at all"), 0);
    EXPECT_THAT(Rows(), UnorderedElementsAre(Pair(0U, 1), Pair(kOtherVpn, 3)));
    s_readsMarkedTexts = true;
    EXPECT_THAT(Rows(), UnorderedElementsAre(Pair(0U, 1), Pair(kVpn, 2), Pair(kOtherVpn, 3)));
}

TEST_F(Store, ReturnsNoRowsWithoutAConversion)
{
    EXPECT_GE(Add(kVpn, TextOf(kVpn, 1)), 0);
    VQ_GetDbDataTransOp()->DnsmasqStrToConf = nullptr;
    EXPECT_THAT(Rows(), IsEmpty());
    VQ_GetDbDataTransOp()->DnsmasqStrToConf = ReadText;
    EXPECT_THAT(Rows(), UnorderedElementsAre(Pair(kVpn, 1)));
}

TEST_F(Store, StoresLongTextsWithSpecialCharacters)
{
    PROMISE(kStoreAddLarge);
    EXPECT_GE(Add(kVpn, TextOf(kVpn, 1) + " '\";--\\\n\t\xc3\xa9" + std::string(2000000, 'x')), 0);
    EXPECT_THAT(Rows(), UnorderedElementsAre(Pair(kVpn, 1)));
}

TEST_F(Store, ListsAreIndependentOfEachOther)
{
    PROMISE(kStoreRelease);
    EXPECT_GE(Add(kVpn, TextOf(kVpn, 1)), 0);
    VQ_PersistentConfList *const first = VQ_SqliteGetDnsMasqConf(VQ_SQL_CONF_CPE_DNSMASQ);
    EXPECT_GE(Add(kVpn, TextOf(kVpn, 2)), 0);
    VQ_PersistentConfList *const second = VQ_SqliteGetDnsMasqConf(VQ_SQL_CONF_CPE_DNSMASQ);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    VQ_SqliteConfListRelease(first);
    EXPECT_EQ(reinterpret_cast<VQ_DnsmasqConfNode *>(second->Head.next)->Dnsmasq.DnsHost[0].Ip, 2U);
    VQ_SqliteConfListRelease(second);
}

} // namespace
} // namespace kavel::contract
