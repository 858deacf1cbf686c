// What a CPE's message must come to, worked out from the message alone.
#ifndef FUZZ_CPE_MODEL_H
#define FUZZ_CPE_MODEL_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "advanced_dns.pb-c.h"

namespace fuzz {

// A conditional forward: the name and the server's address.
using Forward = std::pair<std::string, uint32_t>;

class CpeModel {
  public:
    explicit CpeModel(const DnsmasqConf &Message);

    // Of the translation: 0, -22 or -75.
    [[nodiscard]] int Result() const { return m_Result; }
    // Of putting it into force, once it is translated: 0, or -22 for an operation that there is not.
    [[nodiscard]] int ApplyResult() const;

    [[nodiscard]] uint32_t VpnId() const { return m_Message.has_vpnid != 0 ? m_Message.vpnid : 0; }
    // The five files by path, in the order in which they are written: what each holds, line by line.
    [[nodiscard]] const std::vector<std::pair<std::string, std::vector<std::string>>> &Files() const { return m_Files; }
    // The routes, as the fake host tells them.
    [[nodiscard]] std::vector<std::string> Routes(const std::string &Interface) const;
    // What dnsmasq refuses although the module has to accept it; empty when it must take the files.
    [[nodiscard]] std::string RefusedByDnsmasq() const;
    // An interface name with a line feed in it makes lines of its own: the controller's names are trusted.
    [[nodiscard]] bool HasLineFeedInInterface() const;

  private:
    [[nodiscard]] int CheckHosts() const;
    [[nodiscard]] int CheckMxs() const;
    [[nodiscard]] int CheckServers() const;
    int TakeForwards();
    void MakeFiles();
    [[nodiscard]] std::vector<std::string> Names() const;

    const DnsmasqConf &m_Message;
    std::vector<Forward> m_Forwards;
    std::vector<std::pair<std::string, std::vector<std::string>>> m_Files;
    int m_Result = 0;
};

// Dotted.
std::string AddressText(uint32_t Address);

} // namespace fuzz

#endif
