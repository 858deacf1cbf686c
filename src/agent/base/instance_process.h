// Names and processes of the DNS instances. An instance is the dnsmasq process whose command line has the pid file
// option of a VPN. Before dnsmasq runs, the shell and the namespace tool that start it have that option in their
// command line too.
#ifndef KAVEL_AGENT_INSTANCE_PROCESS_H
#define KAVEL_AGENT_INSTANCE_PROCESS_H

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "base/procfs.h"

namespace kavel::agent {

// The directory of the pid files, and a VPN's file in it, under the name that the module gives it.
inline constexpr const char *kPidDirectory = "/var/run";
[[nodiscard]] std::string PidFilePath(std::uint32_t vpnId);

// The VPN whose pid file is called `name`; nothing when the name is not one of a pid file.
[[nodiscard]] std::optional<std::uint32_t> VpnOfPidFile(std::string_view name);

// The VPN whose pid file option is in the command line; nothing when none is.
[[nodiscard]] std::optional<std::uint32_t> VpnOfCommandLine(std::string_view commandLine);

// Whether the process runs dnsmasq, and whether it is the VPN's instance.
[[nodiscard]] bool IsDnsmasq(const Process &process);
[[nodiscard]] bool IsInstanceOf(const Process &process, std::uint32_t vpnId);

// The VPNs that have an instance or a process that starts one. Reads every process once, however many VPNs there are.
[[nodiscard]] std::set<std::uint32_t> VpnsWithProcesses();

} // namespace kavel::agent

#endif
