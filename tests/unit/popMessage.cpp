#include "popMessage.h"

#include <utility>

PopMessage::PopMessage(std::vector<uint32_t> Servers, uint32_t LocalIp, bool Enable) : m_Servers(std::move(Servers))
{
    pop_dnsmasq_conf__init(&m_Message);
    m_Message.enable = Enable ? 1 : 0;
    m_Message.localip = LocalIp;
    m_Message.n_dns = m_Servers.size();
    m_Message.dns = m_Servers.empty() ? nullptr : m_Servers.data();
}

void PopMessage::AskForPersistence(bool Flag)
{
    m_Message.has_persistentflag = 1;
    m_Message.persistentflag = Flag ? 1 : 0;
}

VQ_CTRL_DNSMASQ_CONFIG_PB PopMessage::Carrier()
{
    VQ_CTRL_DNSMASQ_CONFIG_PB Out{};
    Out.DnsmasqPbPOP = &m_Message;
    return Out;
}
