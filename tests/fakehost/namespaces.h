// The network namespaces of the VPNs, and the content of /proc/net/tcp in each.
#ifndef FAKEHOST_NAMESPACES_H
#define FAKEHOST_NAMESPACES_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace fakehost {

class Host;

class Namespaces {
  public:
    explicit Namespaces(Host &Owner) : m_Host(Owner) {}

    // The shell prefix of a command; "ip netns exec vpn_<id> " if not set.
    void SetPrefix(const std::string &Prefix) { m_Prefix = Prefix; }
    // Makes a VPN unknown to the host.
    void Forget(uint32_t VpnId) { m_Unknown.insert(VpnId); }
    [[nodiscard]] bool Knows(uint32_t VpnId) const { return !m_Unknown.contains(VpnId); }
    // Sets the table of a namespace (0: that of the box). Without a table the file cannot be opened there.
    void PutTcpTable(uint32_t VpnId, const std::string &Text) { m_TcpTables[VpnId] = Text; }
    // Sets a table in which one socket has the port, and others do not.
    void PutListener(uint32_t VpnId, uint16_t Port);

    [[nodiscard]] uint32_t Current() const { return m_Current; }
    // The results are negated errno values, or the length of the prefix.
    int WritePrefix(uint32_t VpnId, char *Buffer, std::size_t Size);
    int Enter(uint32_t VpnId, int *SavedNs);
    int Leave(int *SavedNs, int Error);
    // Stores the table of the current namespace at the path that the module reads.
    void ShowTcpTable();
    void ReportLeaks();

  private:
    static constexpr int kFirstHandle = 900;

    Host &m_Host;
    std::string m_Prefix;
    std::set<uint32_t> m_Unknown;
    std::map<uint32_t, std::string> m_TcpTables;
    uint32_t m_Current = 0;
    int m_NextHandle = kFirstHandle;
    std::map<int, uint32_t> m_Handles;
};

} // namespace fakehost

#endif
