// The expected effect of a CPE message, computed from the message alone.
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

    // The expected result of the translation: 0, -22 or -75.
    [[nodiscard]] int Result() const { return m_Result; }
    // The expected result of applying the translated message: 0, or -22 for an unknown operation.
    [[nodiscard]] int ApplyResult() const;

    [[nodiscard]] uint32_t VpnId() const { return m_Message.has_vpnid != 0 ? m_Message.vpnid : 0; }
    // The five files in the order in which they are written: path and expected lines.
    [[nodiscard]] const std::vector<std::pair<std::string, std::vector<std::string>>> &Files() const { return m_Files; }
    // The expected routes, in the fake host's notation.
    [[nodiscard]] std::vector<std::string> Routes(const std::string &Interface) const;
    // The reason why dnsmasq refuses the files although the module has to accept the message; empty if it must accept
    // them.
    [[nodiscard]] std::string RefusedByDnsmasq() const;
    // A line feed in an interface name adds lines to a file: the module does not check interface names.
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

// In dotted notation.
std::string AddressText(uint32_t Address);

} // namespace fuzz

#endif
