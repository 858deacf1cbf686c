// What launched instances write to their standard error until they run: why they cannot start.
#ifndef KAVEL_AGENT_LAUNCH_OUTPUT_H
#define KAVEL_AGENT_LAUNCH_OUTPUT_H

#include <cstdint>
#include <map>
#include <string>

#include "unique_fd.h"

namespace kavel::agent {

// The output is a file in memory of at most 16 KiB, which the instance keeps open for its life. It needs no reader, so
// an instance never waits for the agent, and outlives it.
class LaunchOutputs {
  public:
    // Begins the output of a new launch of the VPN. Returns the descriptor for its standard error, which belongs to
    // this object. Throws std::system_error.
    int Begin(std::uint32_t vpnId);

    // What the last launch has written so far, without leading and trailing line feeds. Empty when nothing is known.
    [[nodiscard]] std::string Text(std::uint32_t vpnId) const;

    // dnsmasq's reason, on one line: "dnsmasq: bad MX preference at line 1 of ...". Without one the last line of the
    // output, such as that of the namespace tool. Empty without output.
    [[nodiscard]] std::string Reason(std::uint32_t vpnId) const;

    // Whether dnsmasq has written why it ends. While it starts it writes nothing else.
    [[nodiscard]] bool HasFailed(std::uint32_t vpnId) const;

    void End(std::uint32_t vpnId) { outputs_.erase(vpnId); }

    // Whether a launch was begun and its output is kept.
    [[nodiscard]] bool IsBegun(std::uint32_t vpnId) const { return outputs_.contains(vpnId); }

  private:
    std::map<std::uint32_t, UniqueFd> outputs_;
};

} // namespace kavel::agent

#endif
