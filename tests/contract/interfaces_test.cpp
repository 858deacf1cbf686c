#include <string>
#include <vector>

#include "contract_test.h"
#include "vqNetio.h"

namespace kavel::contract {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t kUnset = 77;

using GetList = VQ_LIST_HEAD *(*)(std::uint32_t *, std::uint32_t);

// The results of `take` for each node; the list is released.
template <typename Node, typename Take>
auto Members(GetList get, std::uint32_t vpn, Take take)
{
    std::uint32_t count = kUnset;
    VQ_LIST_HEAD *const list = get(&count, vpn);
    std::vector<decltype(take(std::declval<const Node &>()))> members;
    if (list != nullptr) {
        for (const VQ_LIST_HEAD *link = list->next; link != list; link = link->next) {
            EXPECT_EQ(link->next->prev, link);
            members.push_back(take(*reinterpret_cast<const Node *>(link)));
        }
        VQ_RtcNetioNodeListRelease(list);
    }
    EXPECT_EQ(count, members.size());
    return members;
}

std::vector<std::string> Lans(std::uint32_t vpn)
{
    return Members<VQ_RTCLanListNode>(VQ_RtcNetioLanGetAllByVpnId, vpn, [](const VQ_RTCLanListNode &node) {
        return std::string(node.LanConf.PhyIfName);
    });
}

std::vector<unsigned> Wans(std::uint32_t vpn)
{
    return Members<VQ_RTCWanListNode>(VQ_RtcNetioWanGetAllByVpnId, vpn, [](const VQ_RTCWanListNode &node) {
        return unsigned{node.WanConf.CommConf.SysRoute};
    });
}

class InterfaceLists : public ContractTest {};

TEST_F(InterfaceLists, AreInConfiguredOrder)
{
    PROMISE(kNetioCount);
    PROMISE(kNetioLinks);
    PROMISE(kNetioLanNames);
    EXPECT_THAT(Lans(kVpn), ElementsAre("lan0", "lan1"));
    EXPECT_THAT(Lans(kOtherVpn), ElementsAre("lan0"));
    EXPECT_THAT(Lans(kLastVpn), ElementsAre("lan0"));
}

TEST_F(InterfaceLists, ReportWhichWanCarriesSystemRoutes)
{
    PROMISE(kNetioWans);
    EXPECT_THAT(Wans(kVpn), ElementsAre(0U, 1U));
}

TEST_F(InterfaceLists, AreEmptyForAVpnWithoutInterfaces)
{
    PROMISE(kNetioUnknown);
    EXPECT_THAT(Wans(kOtherVpn), IsEmpty());
    EXPECT_THAT(Wans(kUnknownVpn), IsEmpty());
    EXPECT_THAT(Lans(kUnknownVpn), IsEmpty());
}

TEST_F(InterfaceLists, AreIndependentOfEachOther)
{
    PROMISE(kNetioIndependent);
    PROMISE(kNetioRelease);
    std::uint32_t count = 0;
    VQ_LIST_HEAD *const first = VQ_RtcNetioLanGetAllByVpnId(&count, kVpn);
    VQ_LIST_HEAD *const second = VQ_RtcNetioLanGetAllByVpnId(&count, kVpn);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    VQ_RtcNetioNodeListRelease(first);
    EXPECT_STREQ(reinterpret_cast<const VQ_RTCLanListNode *>(second->next)->LanConf.PhyIfName, "lan0");
    VQ_RtcNetioNodeListRelease(second);
}

} // namespace
} // namespace kavel::contract
