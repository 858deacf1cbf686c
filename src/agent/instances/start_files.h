// The files that dnsmasq reads when it starts and never again, as they were at the start of an instance.
#ifndef KAVEL_AGENT_START_FILES_H
#define KAVEL_AGENT_START_FILES_H

#include <cstdint>
#include <string>
#include <vector>

#include "instances/instances.h"

namespace kavel::agent {

// Keeps digests of the VPN's files as long as its instance lives. Call it when an instance was launched. A failure is
// logged: nothing is known then.
void RememberStartFiles(const Instances &instances, std::uint32_t vpnId);

// Forgets them.
void ForgetStartFiles(const Instances &instances, std::uint32_t vpnId);

// The names of the files whose content is not what it was at the start of the instance, files that were added or
// removed included: "DnsProxy.conf". Empty when nothing is known about the start.
[[nodiscard]] std::vector<std::string> ChangedSinceStart(const Instances &instances, std::uint32_t vpnId);

} // namespace kavel::agent

#endif
