// The box that handles a message: a fake host with one configured VPN, and old files that are to be replaced.
#ifndef FUZZ_BOX_H
#define FUZZ_BOX_H

#include <string>
#include <vector>

#include "fuzz.h"
#include "host.h"

namespace fuzz {

class Box {
  public:
    // An instance of the VPN is running, its DNS-table rule and the box's DNAT rule are in force, persistence is
    // enabled.
    explicit Box(uint32_t VpnId);

    // The content of each file before the message.
    static constexpr const char *kOld = "as it was\n";
    static constexpr const char *kInterface = "lan0";

    void PutOld(const std::string &Path) { Host.Files.Put(Path, kOld); }
    [[nodiscard]] std::vector<std::string> LinesOf(const std::string &Path) const;
    [[nodiscard]] std::vector<std::string> Routes() const { return Host.Routes.Of(m_VpnId, kTable); }
    // Whether the DNS-table rule of a VPN is in force.
    [[nodiscard]] bool IsSteered(uint32_t VpnId) const;
    // Aborts the process if the module violated a rule of the host while it handled `Data`.
    void RequireNoViolations(Bytes Data);

    fakehost::Host Host;

  private:
    static constexpr uint32_t kTable = 199;
    static constexpr pid_t kPid = 1234;

    uint32_t m_VpnId;
};

} // namespace fuzz

#endif
