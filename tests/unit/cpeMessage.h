// Builds CPE messages, including messages that no controller should send.
#ifndef CPE_MESSAGE_H
#define CPE_MESSAGE_H

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "advanced_dns.pb-c.h"
#include "vqCtrlAdvancedDns.h"

class CpeMessage {
  public:
    // Disabled, reload, no lists, no VPN id.
    CpeMessage();
    explicit CpeMessage(uint32_t VpnId, bool Enable = true, uint32_t Operation = VQ_CTRL_DNSMASQ_OP_REBOOT);

    // A null text leaves the field out.
    using Text = std::optional<std::string>;

    DnsHostItem &AddHost(const Text &Domain, uint32_t Ip);
    DnsMxHostItem &AddMx(const Text &Target, const Text &Source, uint32_t Preference);
    DnsServerItem &AddServer(uint32_t Ip, const Text &Interface);
    DnsProxyItemV2 &AddProxy(const std::vector<Text> &Domains, const std::vector<uint32_t> &Ips);
    void AddNullHost() { m_Hosts.push_back(nullptr); }
    void AddNullMx() { m_Mxs.push_back(nullptr); }
    void AddNullServer() { m_Servers.push_back(nullptr); }
    void AddNullProxy() { m_Proxies.push_back(nullptr); }

    // The message with the current lists. This object keeps ownership. A test may change the message.
    DnsmasqConf &Pb();
    VQ_CTRL_DNSMASQ_CONFIG_PB Carrier();

  private:
    char *Keep(const Text &Value);

    DnsmasqConf m_Message{};
    std::deque<std::string> m_Texts;
    std::deque<DnsHostItem> m_HostItems;
    std::deque<DnsMxHostItem> m_MxItems;
    std::deque<DnsServerItem> m_ServerItems;
    std::deque<DnsProxyItemV2> m_ProxyItems;
    std::deque<std::vector<char *>> m_DomainLists;
    std::deque<std::vector<uint32_t>> m_IpLists;
    std::vector<DnsHostItem *> m_Hosts;
    std::vector<DnsMxHostItem *> m_Mxs;
    std::vector<DnsServerItem *> m_Servers;
    std::vector<DnsProxyItemV2 *> m_Proxies;
};

#endif
