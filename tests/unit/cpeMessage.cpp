#include "cpeMessage.h"

CpeMessage::CpeMessage()
{
    dnsmasq_conf__init(&m_Message);
}

CpeMessage::CpeMessage(uint32_t VpnId, bool Enable, uint32_t Operation) : CpeMessage()
{
    m_Message.enable = Enable ? 1 : 0;
    m_Message.operation = Operation;
    m_Message.has_vpnid = 1;
    m_Message.vpnid = VpnId;
}

char *CpeMessage::Keep(const Text &Value)
{
    return Value.has_value() ? m_Texts.emplace_back(*Value).data() : nullptr;
}

DnsHostItem &CpeMessage::AddHost(const Text &Domain, uint32_t Ip)
{
    DnsHostItem &Item = m_HostItems.emplace_back();
    dns_host_item__init(&Item);
    Item.domain = Keep(Domain);
    Item.ip = Ip;
    m_Hosts.push_back(&Item);
    return Item;
}

DnsMxHostItem &CpeMessage::AddMx(const Text &Target, const Text &Source, uint32_t Preference)
{
    DnsMxHostItem &Item = m_MxItems.emplace_back();
    dns_mx_host_item__init(&Item);
    Item.targetdomain = Keep(Target);
    Item.sourcedomain = Keep(Source);
    Item.preference = Preference;
    m_Mxs.push_back(&Item);
    return Item;
}

DnsServerItem &CpeMessage::AddServer(uint32_t Ip, const Text &Interface)
{
    DnsServerItem &Item = m_ServerItems.emplace_back();
    dns_server_item__init(&Item);
    Item.dnsserver = Ip;
    Item.ifname = Keep(Interface);
    m_Servers.push_back(&Item);
    return Item;
}

DnsProxyItemV2 &CpeMessage::AddProxy(const std::vector<Text> &Domains, const std::vector<uint32_t> &Ips)
{
    DnsProxyItemV2 &Item = m_ProxyItems.emplace_back();
    dns_proxy_item_v2__init(&Item);
    std::vector<char *> &Names = m_DomainLists.emplace_back();
    for (const Text &Each : Domains) {
        Names.push_back(Keep(Each));
    }
    std::vector<uint32_t> &Addresses = m_IpLists.emplace_back(Ips);
    Item.n_domains = Names.size();
    Item.domains = Names.empty() ? nullptr : Names.data();
    Item.n_serverips = Addresses.size();
    Item.serverips = Addresses.empty() ? nullptr : Addresses.data();
    m_Proxies.push_back(&Item);
    return Item;
}

DnsmasqConf &CpeMessage::Pb()
{
    m_Message.n_dnshosts = m_Hosts.size();
    m_Message.dnshosts = m_Hosts.data();
    m_Message.n_dnsmxhost = m_Mxs.size();
    m_Message.dnsmxhost = m_Mxs.data();
    m_Message.n_dnsservers = m_Servers.size();
    m_Message.dnsservers = m_Servers.data();
    m_Message.n_dnsproxies = m_Proxies.size();
    m_Message.dnsproxies = m_Proxies.data();
    return m_Message;
}

VQ_CTRL_DNSMASQ_CONFIG_PB CpeMessage::Carrier()
{
    VQ_CTRL_DNSMASQ_CONFIG_PB Out{};
    Out.DnsmasqPbCPE = &Pb();
    return Out;
}
