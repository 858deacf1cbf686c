// Runs shell commands, and ends the processes of DNS instances.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "base/instance_process.h"
#include "base/procfs.h"
#include "base/spawn.h"
#include "failure.h"
#include "log.h"
#include "services/host.h"
#include "services/launch_mark.h"
#include "services/process_end.h"
#include "vqProcess.h"

namespace kavel::agent {
namespace {

// What an instance has between SIGTERM and SIGKILL, and what the kernel has after SIGKILL.
constexpr std::chrono::milliseconds kTermTimeout{250};
constexpr std::chrono::milliseconds kKillTimeout{2000};

int AwaitShell(pid_t shell)
{
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(shell), &info, WEXITED) != 0) {
        if (errno != EINTR) {
            ThrowLastErrno("wait");
        }
    }
    return info.si_code == CLD_EXITED && info.si_status == 0 ? 0 : -EIO;
}

// What a launch of an instance writes to its standard error is kept: why it cannot start. A launch goes on without.
std::optional<int> ErrorsOf(const char *command)
{
    Host *host = Host::CurrentOrNull();
    const auto vpnId = VpnOfCommandLine(command);
    if (host == nullptr || !vpnId) {
        return std::nullopt;
    }
    try {
        host->ownQuestions.BeginLaunch(*vpnId);
        return host->launchOutputs.Begin(*vpnId);
    } catch (const std::system_error &failure) {
        host->launchOutputs.End(*vpnId); // that of the launch before says nothing about this one
        Log(LogLevel::kWarning, "vpn %u: what dnsmasq writes is not kept: %s", *vpnId, failure.what());
        return std::nullopt;
    }
}

// The mark of a launch, left before anything of it runs. Nothing for other commands. A launch goes on without.
UniqueFd MarkOf(const char *command)
{
    const auto vpnId = VpnOfCommandLine(command);
    try {
        return vpnId ? LeaveLaunchMark(std::string(kStateDirectory) + "/" + StateFileName(*vpnId, kLaunchMark))
                     : UniqueFd();
    } catch (const std::system_error &failure) {
        Log(LogLevel::kWarning, "vpn %u: its launch leaves no mark: %s", *vpnId, failure.what());
        return {};
    }
}

int RunShell(const char *command)
{
    const UniqueFd mark = MarkOf(command);
    const int errors = ErrorsOf(command).value_or(kNowhere);
    const pid_t shell = SpawnDetached("/bin/sh", {"sh", "-c", command}, {.errors = errors, .kept = mark.Get()});
    return AwaitShell(shell);
}

// A pid file may outlive its process, the pid may have been given to another process since, and the user that dnsmasq
// runs as can write any pid into the file. Only processes of the VPN that the module works for may be ended.
std::optional<std::uint32_t> EndableVpn(const Host &host, const Process &process, pid_t pid)
{
    if (!process.alive) {
        return std::nullopt;
    }
    const auto vpnId = VpnOfProcess(process, host.identity);
    if (!vpnId) {
        const std::string subject = host.currentVpn ? "vpn " + std::to_string(*host.currentVpn) + ": " : "";
        Log(LogLevel::kWarning, "%sprocess %d (%s) is not a DNS instance and is not ended", subject.c_str(), pid,
            process.name.c_str());
    } else if (host.currentVpn && host.currentVpn != vpnId) {
        Log(LogLevel::kDebug, "vpn %u: process %d belongs to vpn %u and is not ended", *host.currentVpn, pid, *vpnId);
        return std::nullopt;
    }
    return vpnId;
}

bool IsNamedByPidFile(std::uint32_t vpnId, pid_t pid)
{
    pid_t named = 0;
    std::ifstream(PidFilePath(vpnId)) >> named;
    return named == pid;
}

// The children of the instance, one per TCP connection: they ignore SIGTERM while a client keeps its connection open.
std::vector<ProcessHandle> OpenChildren(const Host &host, std::uint32_t vpnId, pid_t pid)
{
    std::vector<ProcessHandle> children;
    for (const pid_t child : ChildrenOf(pid)) {
        auto handle = ProcessHandle::Open(child);
        const Process process = InspectProcess(child);
        if (handle && process.parent == pid && IsInstanceOf(process, vpnId, host.identity)) {
            children.push_back(*std::move(handle));
        }
    }
    return children;
}

bool IsKilled(const ProcessHandle &process)
{
    process.Signal(SIGKILL);
    return process.EndsWithin(kKillTimeout);
}

bool IsEnded(std::uint32_t vpnId, const ProcessHandle &process)
{
    process.Signal(SIGTERM);
    if (process.EndsWithin(kTermTimeout)) {
        return true;
    }
    Log(LogLevel::kWarning, "vpn %u: process %d ignored SIGTERM and is killed", vpnId, process.Pid());
    return IsKilled(process);
}

// The children keep the port of the instance.
bool IsEndedWithChildren(const Host &host, std::uint32_t vpnId, const ProcessHandle &instance)
{
    const std::vector<ProcessHandle> children = OpenChildren(host, vpnId, instance.Pid());
    bool isEnded = IsEnded(vpnId, instance);
    for (const ProcessHandle &child : children) {
        child.Signal(SIGKILL);
    }
    for (const ProcessHandle &child : children) {
        isEnded = child.EndsWithin(kKillTimeout) && isEnded;
    }
    return isEnded;
}

int EndProcess(Host &host, pid_t pid)
{
    // The handle is opened first: the process that is inspected then is the one that will be ended.
    const auto handle = ProcessHandle::Open(pid);
    if (!handle) {
        return -ESRCH;
    }
    const Process process = InspectProcess(pid);
    const auto vpnId = EndableVpn(host, process, pid);
    if (!vpnId) {
        return -ESRCH;
    }
    if (IsNamedByPidFile(*vpnId, pid)) {
        return IsEndedWithChildren(host, *vpnId, *handle) ? 0 : -ETIMEDOUT;
    }
    host.endedProcesses.push_back("process " + std::to_string(pid) + " (" + process.name + ")");
    return IsKilled(*handle) ? 0 : -ETIMEDOUT;
}

} // namespace
} // namespace kavel::agent

using namespace kavel;
using namespace kavel::agent;

extern "C" {

int32_t VQ_CmdExec(char *command)
{
    return command == nullptr ? -EINVAL : ResultOf([&] { return RunShell(command); });
}

VQ_ERR_T VQ_KillPid(const pid_t pid)
{
    return pid <= 0 ? -EINVAL : ResultOf([&] { return EndProcess(Host::Current(), pid); });
}
}
