#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>

#include "host.h"
#include "vqNetns.h"

namespace fakehost {

namespace {

constexpr const char *kTcpHeader =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode"
    "                                                     \n";

// One line in the format of the kernel.
std::string TcpLine(unsigned Slot, uint16_t Port)
{
    char Line[256];
    static_cast<void>(std::snprintf(Line, sizeof(Line),
                                    "%4u: 0100007F:%04X 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0"
                                    "        0 21845 1 0000000000000000 100 0 0 10 0                     \n",
                                    Slot, Port));
    return Line;
}

} // namespace

void Namespaces::PutListener(uint32_t VpnId, uint16_t Port)
{
    constexpr uint16_t Ssh = 22;
    constexpr uint16_t Https = 443;
    PutTcpTable(VpnId, kTcpHeader + TcpLine(0, Ssh) + TcpLine(1, Port) + TcpLine(2, Https));
}

int Namespaces::WritePrefix(uint32_t VpnId, char *Buffer, std::size_t Size)
{
    if (!Knows(VpnId)) {
        return -ENOENT;
    }
    const std::string Prefix = m_Prefix.empty() ? "ip netns exec vpn_" + std::to_string(VpnId) + ' ' : m_Prefix;
    static_cast<void>(std::snprintf(Buffer, Size, "%s", Prefix.c_str()));
    return static_cast<int>(Prefix.size());
}

int Namespaces::Enter(uint32_t VpnId, int *SavedNs)
{
    if (*SavedNs != -1) {
        m_Host.Violation("a namespace handle that does not start at -1");
    }
    if (!Knows(VpnId)) {
        return -ENOENT;
    }
    *SavedNs = m_NextHandle++;
    m_Handles.emplace(*SavedNs, m_Current);
    m_Current = VpnId;
    return 0;
}

int Namespaces::Leave(int *SavedNs, int Error)
{
    const auto Found = m_Handles.find(*SavedNs);
    if (Found == m_Handles.end()) {
        m_Host.Violation("a namespace left through a handle that is not open");
        return -EBADF;
    }
    m_Current = Found->second;
    m_Handles.erase(Found);
    if (Error == 0) {
        *SavedNs = -1;
    }
    return Error;
}

void Namespaces::ShowTcpTable()
{
    const auto Found = m_TcpTables.find(m_Current);
    if (Found == m_TcpTables.end()) {
        m_Host.Files.Drop("/proc/net/tcp");
    } else {
        m_Host.Files.Put("/proc/net/tcp", Found->second);
    }
}

void Namespaces::ReportLeaks()
{
    if (!m_Handles.empty() || m_Current != 0) {
        m_Host.Violation("the namespace of VPN " + std::to_string(m_Current) + " was never left");
    }
}

} // namespace fakehost

using fakehost::EntryKind;
using fakehost::ErrnoKept;
using fakehost::Fault;
using fakehost::Host;
using fakehost::Shortage;

namespace {

// A prefix with a length near the size of its buffer.
int WriteLongPrefix(Shortage Lack, char *Buffer, std::size_t Size)
{
    const std::size_t Below = Lack == Shortage::OneBelowSize ? 1 : 0;
    const std::size_t Above = Lack == Shortage::OneAboveSize ? 1 : 0;
    const std::string Prefix = std::string(Size + Above - Below - 1, 'p') + ' ';
    static_cast<void>(std::snprintf(Buffer, Size, "%s", Prefix.c_str()));
    return static_cast<int>(Prefix.size());
}

} // namespace

VQ_ERR_T VQ_RtcGetNetNsExecCmdPrefix(uint32_t VpnId, char *Buffer, size_t Size)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    static constexpr std::array Known{Shortage::OneBelowSize, Shortage::AtSize, Shortage::OneAboveSize};
    const std::optional<Fault> How =
        Here.EnterWith(Known, EntryKind::World, "VQ_RtcGetNetNsExecCmdPrefix", VpnId, Size);
    if (!How.has_value()) {
        return Here.Netns.WritePrefix(VpnId, Buffer, Size);
    }
    return How->Lack() == Shortage::None ? How->Error() : WriteLongPrefix(How->Lack(), Buffer, Size);
}

VQ_ERR_T VQ_RtcNetNsSaveAndSwitch(uint32_t VpnId, int *SavedNs)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    const std::optional<int> Error = Here.Enter(EntryKind::World, "VQ_RtcNetNsSaveAndSwitch", VpnId);
    return Error.has_value() ? *Error : Here.Netns.Enter(VpnId, SavedNs);
}

VQ_ERR_T VQ_RtcNetNsSwitchToDefault(int *SavedNs)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    const std::optional<int> Error = Here.Enter(EntryKind::World, "VQ_RtcNetNsSwitchToDefault");
    // The module tries to switch back only once, so the handle counts as released even if the switch fails.
    return Here.Netns.Leave(SavedNs, Error.value_or(0));
}
