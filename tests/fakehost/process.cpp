#include <algorithm>
#include <csignal>

#include "host.h"
#include "vqProcess.h"

namespace fakehost {

void Processes::Add(pid_t Pid, const std::string &CommandLine)
{
    const std::string Name = std::to_string(Pid);
    m_Alive.insert(Pid);
    AddName(Name);
    m_Host.Files.Put("/proc/" + Name + "/cmdline", CommandLine);
}

void Processes::AddInstance(pid_t Pid, uint32_t VpnId)
{
    std::string CommandLine = "/usr/sbin/dnsmasq -C x --dns-forward-max=1000 --no-hosts --pid-file=" + PidFile(VpnId);
    std::replace(CommandLine.begin(), CommandLine.end(), ' ', '\0');
    Add(Pid, CommandLine + '\0' + "-k" + '\0');
}

std::string Processes::PidFile(uint32_t VpnId)
{
    return "/var/run/kvl_dns_vpn_" + std::to_string(VpnId) + ".pid";
}

void Processes::PutPidFile(uint32_t VpnId, const std::string &Content)
{
    m_Host.Files.Put(PidFile(VpnId), Content);
}

bool Processes::End(pid_t Pid)
{
    m_Host.Files.Drop("/proc/" + std::to_string(Pid) + "/cmdline");
    std::erase(m_Names, std::to_string(Pid));
    return m_Alive.erase(Pid) == 1;
}

std::vector<std::string> Processes::Names() const
{
    std::vector<std::string> Out{".", ".."};
    Out.insert(Out.end(), m_Names.begin(), m_Names.end());
    return Out;
}

} // namespace fakehost

using fakehost::EntryKind;
using fakehost::ErrnoKept;
using fakehost::Host;
using fakehost::Quoted;

// NOLINTNEXTLINE(readability-non-const-parameter): the host interface fixes it.
int32_t VQ_CmdExec(char *Command)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    const std::optional<int> Error = Here.Enter(EntryKind::World, "VQ_CmdExec", Quoted{Command});
    return Error.value_or(Here.Success("VQ_CmdExec"));
}

VQ_ERR_T VQ_KillPid(const pid_t Pid)
{
    Host &Here = Host::Current();
    // errno is not restored here: a hook sets the errno that a real kill would leave.
    const std::optional<int> Error = Here.Enter(EntryKind::World, "VQ_KillPid", Pid);
    if (Error.has_value()) {
        return *Error;
    }
    if (Pid <= 0) {
        return -EINVAL;
    }
    return Here.Proc.End(Pid) ? Here.Success("VQ_KillPid") : -ESRCH;
}

extern "C" int __wrap_kill(pid_t Pid, int Signal);

// Never calls the real kill: a pid file may have 0 or -1, which would signal the process group or every process.
extern "C" int __wrap_kill(pid_t Pid, int Signal)
{
    Host &Here = Host::Current();
    const std::optional<int> Error = Here.Enter(EntryKind::World, "kill", Pid, Signal);
    if (Error.has_value()) {
        errno = -*Error;
        return -1;
    }
    if (Pid > 0 && !Here.Proc.IsAlive(Pid)) {
        errno = ESRCH;
        return -1;
    }
    return 0;
}
