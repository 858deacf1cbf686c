// The DNS instances of the VPNs: their directories, pid files and processes.
#ifndef KAVEL_AGENT_INSTANCES_H
#define KAVEL_AGENT_INSTANCES_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "base/procfs.h"

namespace kavel::agent {

// Where the instance's files are; the box-wide directory for VPN 0. No slash at the end.
std::string InstanceDirectory(std::uint32_t vpnId);
// Pid files are here, by the names that the module gives them.
inline constexpr const char *kPidDirectory = "/var/run";
std::string PidFilePath(std::uint32_t vpnId);
// Nothing when it is no pid file's name.
std::optional<std::uint32_t> VpnOfPidFile(std::string_view name);

// Makes what is missing of the box-wide directory, which the module expects to find. 0 or a negated errno.
int WriteBoxDirectory();

// Removes what interrupted writes left in the instance directories.
void RemoveLeftoversOfInstances();

struct PidFile {
    bool exists = false;
    bool empty = true; // nothing could be read from it
    pid_t pid = 0;     // read the way the module reads it: text that is no number is 0
};

PidFile ReadPidFile(std::uint32_t vpnId);

// Whether the process runs dnsmasq, and whether it is the VPN's instance.
bool IsDnsmasq(const Process &process);
bool IsInstanceOf(const Process &process, std::uint32_t vpnId);

// The process in the pid file lives and is the VPN's instance.
bool IsRunning(std::uint32_t vpnId);

// Whether an instance of the VPN is meant to run, by the last message that was applied. It is kept as long as instances
// live: over a restart of the agent, not over one of the box.
bool MeantToRun(std::uint32_t vpnId);
void SetMeantToRun(std::uint32_t vpnId, bool meant);

// Why a reload would signal something else than the VPN's instance; nothing when it is safe.
std::optional<std::string> ReloadHazard(std::uint32_t vpnId);

// The VPNs whose instance has a process, also before that is dnsmasq: the shell and the namespace tool that lead to it
// have its command line. One look at all processes, however many VPNs there are.
std::set<std::uint32_t> VpnsWithProcesses();

} // namespace kavel::agent

#endif
