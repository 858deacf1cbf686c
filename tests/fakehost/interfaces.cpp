#include "interfaces.h"

#include <cstring>

#include "host.h"

namespace fakehost {

Interfaces::OpenList &Interfaces::NewList()
{
    auto Opened = std::make_unique<OpenList>();
    OpenList &List = *Opened;
    CDS_INIT_LIST_HEAD(&List.Head);
    m_Lists.emplace(&List.Head, std::move(Opened));
    return List;
}

VQ_LIST_HEAD *Interfaces::MakeLanList(uint32_t *Count, uint32_t VpnId)
{
    const auto Found = m_Lans.find(VpnId);
    if (Found == m_Lans.end()) {
        *Count = m_NullCount;
        return nullptr;
    }
    OpenList &List = NewList();
    for (const std::string &Name : Found->second.Names) {
        auto Node = std::make_unique<VQ_RTCLanListNode>();
        std::strncpy(Node->LanConf.PhyIfName, Name.c_str(), sizeof(Node->LanConf.PhyIfName) - 1);
        cds_list_add_tail(&Node->list, &List.Head);
        List.Lans.push_back(std::move(Node));
    }
    *Count = Found->second.Count.value_or(static_cast<uint32_t>(Found->second.Names.size()));
    return &List.Head;
}

VQ_LIST_HEAD *Interfaces::MakeWanList(uint32_t *Count, uint32_t VpnId)
{
    const auto Found = m_Wans.find(VpnId);
    if (Found == m_Wans.end()) {
        *Count = m_NullCount;
        return nullptr;
    }
    OpenList &List = NewList();
    for (const bool SysRoute : Found->second.SysRoutes) {
        auto Node = std::make_unique<VQ_RTCWanListNode>();
        Node->WanConf.CommConf.SysRoute = SysRoute ? 1U : 0U;
        cds_list_add_tail(&Node->list, &List.Head);
        List.Wans.push_back(std::move(Node));
    }
    *Count = Found->second.Count.value_or(static_cast<uint32_t>(Found->second.SysRoutes.size()));
    return &List.Head;
}

void Interfaces::Release(VQ_LIST_HEAD *List)
{
    if (m_Lists.erase(List) == 0) {
        m_Host.Violation("an interface list released that is not the module's, or not any more");
    }
}

void Interfaces::ReportLeaks()
{
    if (!m_Lists.empty()) {
        m_Host.Violation("interface lists never released: " + std::to_string(m_Lists.size()));
    }
}

} // namespace fakehost

using fakehost::EntryKind;
using fakehost::ErrnoKept;
using fakehost::Fault;
using fakehost::Host;
using fakehost::Shortage;

namespace {

constexpr std::array kListsLack{Shortage::Empty, Shortage::Hollow};

VQ_LIST_HEAD *LackingList(Host &Here, Fault How, uint32_t *Count)
{
    if (How.Lack() == Shortage::None) {
        return nullptr;
    }
    *Count = How.Lack() == Shortage::Hollow ? 1 : 0;
    return Here.Netio.MakeEmptyList();
}

} // namespace

VQ_LIST_HEAD *VQ_RtcNetioWanGetAllByVpnId(uint32_t *Count, uint32_t VpnId)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    const std::optional<Fault> How = Here.EnterWith(kListsLack, EntryKind::World, "VQ_RtcNetioWanGetAllByVpnId", VpnId);
    return How.has_value() ? LackingList(Here, *How, Count) : Here.Netio.MakeWanList(Count, VpnId);
}

VQ_LIST_HEAD *VQ_RtcNetioLanGetAllByVpnId(uint32_t *Count, uint32_t VpnId)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    const std::optional<Fault> How = Here.EnterWith(kListsLack, EntryKind::World, "VQ_RtcNetioLanGetAllByVpnId", VpnId);
    return How.has_value() ? LackingList(Here, *How, Count) : Here.Netio.MakeLanList(Count, VpnId);
}

void VQ_RtcNetioNodeListRelease(VQ_LIST_HEAD *List)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    Here.Note(EntryKind::World, "VQ_RtcNetioNodeListRelease");
    Here.Netio.Release(List);
}
