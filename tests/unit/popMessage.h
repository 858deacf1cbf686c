// Builds POP messages, including messages that no controller should send.
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

    // The message with the current servers. This object keeps ownership. A test may change the message.
    PopDnsmasqConf &Pb() { return m_Message; }
    VQ_CTRL_DNSMASQ_CONFIG_PB Carrier();

  private:
    std::vector<uint32_t> m_Servers;
    PopDnsmasqConf m_Message{};
};

#endif
