// Runs shell commands, and ends the processes of DNS instances.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

// Older C libraries forgot to say that these are C functions.
extern "C" {
#include <sys/pidfd.h>
}

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>
#include <string_view>
#include <vector>

#include "base/failure.h"
#include "base/instance_process.h"
#include "base/log.h"
#include "base/procfs.h"
#include "deadline.h"
#include "unique_fd.h"
#include "vqProcess.h"

namespace kavel::agent {
namespace {

constexpr std::chrono::milliseconds kEndTimeout{2000};

void Check(int error, const char *what)
{
    if (error != 0) {
        ThrowErrno(error, what);
    }
}

class SpawnActions {
  public:
    SpawnActions() { Check(posix_spawn_file_actions_init(&actions_), "spawn actions"); }
    SpawnActions(const SpawnActions &) = delete;
    SpawnActions &operator=(const SpawnActions &) = delete;
    ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }

    // A background process of the command outlives the agent: it must not keep the agent's directory, streams and
    // descriptors.
    void Detach()
    {
        Check(posix_spawn_file_actions_addchdir_np(&actions_, "/"), "spawn directory");
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            Check(posix_spawn_file_actions_addopen(&actions_, stream, "/dev/null", O_RDWR, 0), "spawn streams");
        }
        Check(posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1), "spawn descriptors");
    }
    [[nodiscard]] const posix_spawn_file_actions_t *Get() const { return &actions_; }

  private:
    posix_spawn_file_actions_t actions_{};
};

class SpawnAttributes {
  public:
    SpawnAttributes() { Check(posix_spawnattr_init(&attributes_), "spawn attributes"); }
    SpawnAttributes(const SpawnAttributes &) = delete;
    SpawnAttributes &operator=(const SpawnAttributes &) = delete;
    ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }

    // The default signal mask and dispositions, and a session of its own, so that a terminal's signals do not reach it.
    void ResetSignalsAndSession()
    {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        Check(posix_spawnattr_setsigmask(&attributes_, &none), "spawn signals");
        Check(posix_spawnattr_setsigdefault(&attributes_, &all), "spawn signals");
        constexpr auto kFlags = static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
        Check(posix_spawnattr_setflags(&attributes_, kFlags), "spawn flags");
    }
    [[nodiscard]] const posix_spawnattr_t *Get() const { return &attributes_; }

  private:
    posix_spawnattr_t attributes_{};
};

// Variables that a service manager sets for this process alone: a child that used them would speak for the agent.
constexpr std::array<std::string_view, 7> kOwnVariables{
    "NOTIFY_SOCKET=", "WATCHDOG_PID=",   "WATCHDOG_USEC=", "LISTEN_PID=",
    "LISTEN_FDS=",    "LISTEN_FDNAMES=", "JOURNAL_STREAM="};

std::vector<char *> EnvironmentOfChild()
{
    std::vector<char *> variables;
    for (char **variable = environ; *variable != nullptr; ++variable) {
        const std::string_view text = *variable;
        if (std::ranges::none_of(kOwnVariables, [&](std::string_view own) { return text.starts_with(own); })) {
            variables.push_back(*variable);
        }
    }
    variables.push_back(nullptr);
    return variables;
}

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

// NOLINTNEXTLINE(readability-non-const-parameter): an argument vector is not const
int RunShell(char *command)
{
    SpawnActions actions;
    actions.Detach();
    SpawnAttributes attributes;
    attributes.ResetSignalsAndSession();

    std::string name = "sh";
    std::string option = "-c";
    const std::array<char *, 4> arguments{name.data(), option.data(), command, nullptr};
    pid_t shell = 0;
    Check(
        posix_spawn(&shell, "/bin/sh", actions.Get(), attributes.Get(), arguments.data(), EnvironmentOfChild().data()),
        "/bin/sh");
    return AwaitShell(shell);
}

bool EndsWithin(const UniqueFd &process, std::chrono::milliseconds timeout)
{
    const Deadline deadline(timeout);
    for (;;) {
        pollfd watched{process.Get(), POLLIN, 0};
        const int ready = ::poll(&watched, 1, deadline.PollTimeout());
        if (ready < 0 && errno != EINTR) {
            ThrowLastErrno("pidfd");
        }
        if (ready >= 0) {
            return ready > 0;
        }
    }
}

// A pid file may outlive its process, and the pid may have been given to another process since.
bool IsOrBecomesInstance(pid_t pid)
{
    const Process process = InspectProcess(pid);
    if (!process.alive) {
        return false;
    }
    if (!VpnOfCommandLine(process.commandLine)) {
        Log(LogLevel::kWarning, "process %d (%s) is not a DNS instance and is not ended", pid, process.name.c_str());
        return false;
    }
    return true;
}

bool EndsBy(const UniqueFd &process, int signal)
{
    if (::pidfd_send_signal(process.Get(), signal, nullptr, 0) != 0 && errno != ESRCH) {
        ThrowLastErrno("signal");
    }
    return EndsWithin(process, kEndTimeout);
}

int EndProcess(pid_t pid)
{
    // The pidfd is opened first: the process that is inspected then is the one that will be ended.
    const UniqueFd process(::pidfd_open(pid, 0));
    if (!process) {
        // EINVAL: the id of a thread.
        return errno == EINVAL || errno == ENOENT ? -ESRCH : -errno;
    }
    if (EndsWithin(process, std::chrono::milliseconds(0)) || !IsOrBecomesInstance(pid)) {
        return -ESRCH;
    }
    if (EndsBy(process, SIGTERM)) {
        return 0;
    }
    Log(LogLevel::kWarning, "process %d ignored SIGTERM and is killed", pid);
    return EndsBy(process, SIGKILL) ? 0 : -ETIMEDOUT;
}

} // namespace
} // namespace kavel::agent

using namespace kavel::agent;

extern "C" {

int32_t VQ_CmdExec(char *command)
{
    return command == nullptr ? -EINVAL : ResultOf([&] { return RunShell(command); });
}

VQ_ERR_T VQ_KillPid(const pid_t pid)
{
    return pid <= 0 ? -EINVAL : ResultOf([&] { return EndProcess(pid); });
}
}
