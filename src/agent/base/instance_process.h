// Names and processes of the DNS instances. An instance is the dnsmasq process whose command line has the pid file
// option of a VPN. Before dnsmasq runs, the shell and the namespace tool that start it have that option in their
// command line too.
#ifndef KAVEL_AGENT_INSTANCE_PROCESS_H
#define KAVEL_AGENT_INSTANCE_PROCESS_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/procfs.h"

namespace kavel::agent {

// The directory of the pid files, and a VPN's file in it, under the name that the module gives it.
inline constexpr const char *kPidDirectory = "/var/run";
[[nodiscard]] std::string PidFilePath(std::uint32_t vpnId);

// The directory of what the agent keeps about instances as long as they live, and a VPN's file in it: "vpn_7.launch".
inline constexpr const char *kStateDirectory = "/run/kavel";
[[nodiscard]] std::string StateFileName(std::uint32_t vpnId, std::string_view kind);
// The VPN whose state file of this kind is called `name`; nothing for other names.
[[nodiscard]] std::optional<std::uint32_t> VpnOfStateFile(std::string_view name, std::string_view kind);

// The VPN whose pid file is called `name`; nothing when the name is not one of a pid file.
[[nodiscard]] std::optional<std::uint32_t> VpnOfPidFile(std::string_view name);

// The VPN whose pid file option is in the command line; nothing when none is.
[[nodiscard]] std::optional<std::uint32_t> VpnOfCommandLine(std::string_view commandLine);

// Which processes can be instances. Any user can write the right words into a command line.
struct InstanceIdentity {
    std::string program;                // file name of dnsmasq's executable, which belongs to root or the agent's user
    std::vector<std::string> launchers; // paths of what runs before dnsmasq does: the shell, the namespace tool
    std::vector<uid_t> users;           // whom dnsmasq can run as; the first one is the agent's own

    // Of this box. A wrapper may stand in dnsmasq's place and execute it from another directory.
    static InstanceIdentity OfBox();
};

// Whether the process runs dnsmasq, and whether it is the VPN's instance.
[[nodiscard]] bool IsDnsmasq(const Process &process, const InstanceIdentity &identity);
[[nodiscard]] bool IsInstanceOf(const Process &process, std::uint32_t vpnId, const InstanceIdentity &identity);

// The VPN whose instance the process is or is about to become; nothing for every other process.
[[nodiscard]] std::optional<std::uint32_t> VpnOfProcess(const Process &process, const InstanceIdentity &identity);

// The VPNs that have an instance or a process that starts one. Reads every process once, however many VPNs there are.
[[nodiscard]] std::set<std::uint32_t> VpnsWithProcesses(const InstanceIdentity &identity);

} // namespace kavel::agent

#endif
