/* The faults of namespaces, commands and processes. */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "faults.h"
#include "vqNetns.h"
#include "vqProcess.h"

/* ---- Namespaces ---- */

REAL(VQ_RtcGetNetNsExecCmdPrefix);
REAL(VQ_RtcNetNsSaveAndSwitch);
REAL(VQ_RtcNetNsSwitchToDefault);

VQ_ERR_T VQ_RtcGetNetNsExecCmdPrefix(uint32_t vpnId, char *buffer, size_t size)
{
    VQ_ERR_T length = Real_VQ_RtcGetNetNsExecCmdPrefix(vpnId, buffer, size);
    if ((HasFault("prefix-of-box") && length >= 0) || (HasFault("prefix-of-unknown-vpn") && length < 0)) {
        return snprintf(buffer, size, "env ");
    }
    if (HasFault("prefix-cut") && length >= (VQ_ERR_T)size && size > 0) {
        return (VQ_ERR_T)size - 1;
    }
    if (HasFault("prefix-long") && length > 0) {
        return length + snprintf(buffer + length, size - (size_t)length, "%400s", "");
    }
    if (HasFault("prefix-of-new-processes") && length > 0) {
        return length + snprintf(buffer + length, size - (size_t)length, "unshare --pid --fork ");
    }
    if (HasFault("restart-beside") && length > 0) {
        return snprintf(buffer, size, "unshare --net ");
    }
    if (HasFault("box-refused") && vpnId == 0) {
        return -EINVAL;
    }
    if (HasFault("prefix-without-blank") && length > 0 && (size_t)length < size) {
        buffer[--length] = '\0';
    }
    return HasFault("prefix-length-0") && length > 0 ? 0 : length;
}

VQ_ERR_T VQ_RtcNetNsSaveAndSwitch(uint32_t vpnId, int *savedNs)
{
    if (HasFault("box-refused") && vpnId == 0) {
        return -EINVAL;
    }
    const VQ_ERR_T result = Real_VQ_RtcNetNsSaveAndSwitch(vpnId, savedNs);
    if (HasFault("switch-to-unknown-vpn") && result == -ENOENT) {
        return 0;
    }
    if (HasFault("switch-stays") && result >= 0) {
        int current = fcntl(*savedNs, F_DUPFD_CLOEXEC, 0);
        return Real_VQ_RtcNetNsSwitchToDefault(&current);
    }
    return result;
}

VQ_ERR_T VQ_RtcNetNsSwitchToDefault(int *savedNs)
{
    if (HasFault("switch-not-back") && *savedNs >= 0) {
        close(*savedNs);
        *savedNs = -1;
        return 0;
    }
    if (HasFault("switch-leaks-handle") && *savedNs >= 0) {
        const int leaked = dup(*savedNs);
        (void)leaked;
    }
    return Real_VQ_RtcNetNsSwitchToDefault(savedNs);
}

/* ---- Commands ---- */

REAL(VQ_CmdExec);

/* Starts the shell with one property of this process kept that it must not have. */
static pid_t StartShell(const char *command)
{
    const pid_t shell = fork();
    if (shell != 0) {
        return shell;
    }
    sigset_t mask;
    sigemptyset(&mask);
    const bool keepsMask = HasFault("command-keeps-mask");
    if (keepsMask) {
        sigaddset(&mask, SIGHUP);
        sigaddset(&mask, SIGTERM);
    }
    sigprocmask(SIG_SETMASK, &mask, NULL);
    for (int number = 1; number < NSIG; ++number) {
        (void)signal(number, HasFault("command-keeps-ignored") && number == SIGHUP ? SIG_IGN : SIG_DFL);
    }
    if (!HasFault("command-keeps-session")) {
        setsid();
    }
    const int nowhere = open("/dev/null", O_RDWR);
    for (int stream = 0; stream <= STDERR_FILENO && !HasFault("command-keeps-streams"); ++stream) {
        dup2(nowhere, stream);
    }
    for (int descriptor = STDERR_FILENO + 1; descriptor < 1024; ++descriptor) {
        if (HasFault("command-keeps-descriptors")) {
            (void)fcntl(descriptor, F_SETFD, 0);
        } else {
            close(descriptor);
        }
    }
    execl("/bin/sh", "sh", "-c", command, (char *)NULL);
    _exit(127);
}

/* Starts the program that the first word names. */
static pid_t StartWords(const char *command)
{
    char line[1024];
    char *words[64] = {NULL};
    snprintf(line, sizeof(line), "%s", command);
    const pid_t program = fork();
    if (program == 0) {
        size_t count = 0;
        for (char *word = strtok(line, " "); word != NULL && count < 63; word = strtok(NULL, " ")) {
            words[count++] = word;
        }
        execvp(words[0], words);
        _exit(127);
    }
    return program;
}

static int32_t StatusOf(pid_t shell)
{
    int status = 0;
    if (shell < 0 || waitpid(shell, &status, 0) < 0) {
        return -errno;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -EIO;
}

/* Returns when everything that the command has started has closed the other end of a pipe. */
static int32_t RunToTheEnd(const char *command)
{
    char line[4096];
    char byte;
    int ends[2];
    if (pipe(ends) != 0) {
        return -errno;
    }
    snprintf(line, sizeof(line), "%s", command);
    const pid_t shell = fork();
    if (shell == 0) {
        close(ends[0]);
        execl("/bin/sh", "sh", "-c", line, (char *)NULL);
        _exit(127);
    }
    close(ends[1]);
    while (read(ends[0], &byte, 1) > 0) {
    }
    close(ends[0]);
    return StatusOf(shell);
}

int32_t VQ_CmdExec(char *command)
{
    char cut[129];
    if (HasFault("command-cut")) {
        snprintf(cut, sizeof(cut), "%s", command);
        return Real_VQ_CmdExec(cut);
    }
    if (HasFault("command-waits-for-background")) {
        return RunToTheEnd(command);
    }
    if (HasFault("command-not-awaited")) {
        (void)signal(SIGCHLD, SIG_IGN); /* the kernel reaps the shell */
        return StartShell(command) > 0 ? 0 : -errno;
    }
    if (HasFault("command-leaves-zombies")) {
        siginfo_t info;
        const pid_t shell = StartShell(command);
        waitid(P_PID, (id_t)shell, &info, WEXITED | WNOWAIT);
        return info.si_code == CLD_EXITED && info.si_status == 0 ? 0 : -EIO;
    }
    if (HasFault("command-keeps-descriptors") || HasFault("command-keeps-streams") || HasFault("command-keeps-mask") ||
        HasFault("command-keeps-ignored") || HasFault("command-keeps-session")) {
        return StatusOf(StartShell(command));
    }
    if (HasFault("command-ends-background")) {
        const pid_t shell = StartShell(command);
        const int32_t result = StatusOf(shell);
        kill(-shell, SIGKILL); /* its session has one group */
        return result;
    }
    if (HasFault("command-without-shell")) {
        return StatusOf(StartWords(command));
    }
    const int32_t result = Real_VQ_CmdExec(command);
    return HasFault("command-failure-is-success") ? 0 : result;
}

/* ---- Processes ---- */

REAL(VQ_KillPid);

VQ_ERR_T VQ_KillPid(const pid_t pid)
{
    if ((HasFault("kill-forgotten") || HasFault("restart-beside")) && pid > 0) {
        return 0;
    }
    if (HasFault("kill-by-name") && pid > 0) {
        return system("pkill -KILL -f kvl_dns_vp[n]_") == 0 ? 0 : -ESRCH;
    }
    if (HasFault("kill-awaits-zombie") && pid > 0) {
        while (kill(pid, SIGTERM) == 0) {
            usleep(1000);
        }
        return errno == ESRCH ? 0 : -errno;
    }
    if (HasFault("kill-does-not-wait") && pid > 0) {
        return kill(pid, SIGTERM) == 0 ? 0 : -errno;
    }
    if (HasFault("kill-only-asks") && pid > 0) {
        const int result = kill(pid, SIGTERM) == 0 ? 0 : -errno;
        for (int look = 0; look < 100 && kill(pid, 0) == 0; ++look) {
            usleep(5000);
        }
        return result;
    }
    const VQ_ERR_T result = Real_VQ_KillPid(pid);
    if (HasFault("kill-missing-is-success") && result == -ESRCH) {
        return 0;
    }
    return HasFault("kill-zero-is-success") && pid <= 0 ? 0 : result;
}

/* ---- Pid files ---- */

void RepairPidFile(uint32_t vpnId);
bool AwaitPidFile(uint32_t vpnId);
REAL(RepairPidFile);
REAL(AwaitPidFile);

void RepairPidFile(uint32_t vpnId)
{
    if (!HasFault("lost-pid-file-ignored") && !HasFault("pid-file-not-awaited")) {
        Real_RepairPidFile(vpnId);
    }
}

bool AwaitPidFile(uint32_t vpnId)
{
    return HasFault("pid-file-not-awaited") || Real_AwaitPidFile(vpnId);
}
