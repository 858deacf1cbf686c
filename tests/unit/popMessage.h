// Builds a controller's POP message, also one that no controller should send.
#ifndef POP_MESSAGE_H
#define POP_MESSAGE_H

#include <cstdint>
#include <vector>

#include "advanced_dns.pb-c.h"
#include "vqCtrlAdvancedDns.h"

class PopMessage {
  public:
    explicit PopMessage(std::vector<uint32_t> Servers = {}, uint32_t LocalIp = 0, bool Enable = true);

    void AskForPersistence(bool Flag);

    // The message with its servers as they are now. It stays this object's; a test may spoil it.
    PopDnsmasqConf &Pb() { return m_Message; }
    VQ_CTRL_DNSMASQ_CONFIG_PB Carrier();

  private:
    std::vector<uint32_t> m_Servers;
    PopDnsmasqConf m_Message{};
};

#endif
