// The interface lists of the VPNs.
#ifndef FAKEHOST_INTERFACES_H
#define FAKEHOST_INTERFACES_H

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vqNetio.h"

namespace fakehost {

class Host;

struct LanList {
    std::vector<std::string> Names;
    // The count that the host reports, if it is not the true one.
    std::optional<uint32_t> Count = std::nullopt;
};

struct WanList {
    std::vector<bool> SysRoutes;
    std::optional<uint32_t> Count = std::nullopt;
};

class Interfaces {
  public:
    explicit Interfaces(Host &Owner) : m_Host(Owner) {}

    // If a VPN has no list, the result is null. A list without members is returned as a list.
    void SetLans(uint32_t VpnId, LanList Lans) { m_Lans[VpnId] = std::move(Lans); }
    void SetWans(uint32_t VpnId, WanList Wans) { m_Wans[VpnId] = std::move(Wans); }
    // The count that is reported with a null list.
    void SetNullCount(uint32_t Count) { m_NullCount = Count; }

    VQ_LIST_HEAD *MakeLanList(uint32_t *Count, uint32_t VpnId);
    VQ_LIST_HEAD *MakeWanList(uint32_t *Count, uint32_t VpnId);
    // A list without members, whatever the VPN has.
    VQ_LIST_HEAD *MakeEmptyList() { return &NewList().Head; }
    void Release(VQ_LIST_HEAD *List);
    [[nodiscard]] std::size_t ListsInUse() const { return m_Lists.size(); }
    void ReportLeaks();

  private:
    static constexpr std::array<unsigned char, sizeof(VQ_RTCLanListNode)> kNoNode{'n', 'o', ' ', 'n', 'o', 'd', 'e'};

    struct OpenList {
        VQ_LIST_HEAD Head{};
        // The content that a reader sees if it takes the head for a node.
        std::array<unsigned char, sizeof(VQ_RTCLanListNode)> NoNode = kNoNode;
        std::vector<std::unique_ptr<VQ_RTCLanListNode>> Lans;
        std::vector<std::unique_ptr<VQ_RTCWanListNode>> Wans;
    };

    OpenList &NewList();

    Host &m_Host;
    std::map<uint32_t, LanList> m_Lans;
    std::map<uint32_t, WanList> m_Wans;
    uint32_t m_NullCount = 0;
    std::map<VQ_LIST_HEAD *, std::unique_ptr<OpenList>> m_Lists;
};

} // namespace fakehost

#endif
