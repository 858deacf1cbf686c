/* Commands, and the processes of instances. */
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "host.h"

/* dnsmasq outlives this program, so it has nothing of it: no streams, descriptors, session, blocked or ignored signals.
 */
static void ExecuteShell(const char *command)
{
    sigset_t none;
    for (int number = 1; number < NSIG; ++number) {
        signal(number, SIG_DFL);
    }
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, NULL);
    setsid();
    const int nowhere = open("/dev/null", O_RDWR);
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        dup2(nowhere, stream);
    }
    syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, 0);
    execl("/bin/sh", "sh", "-c", command, (char *)NULL);
    _exit(127);
}

int32_t VQ_CmdExec(char *command)
{
    int status = 0;
    const pid_t shell = fork();
    if (shell == 0) {
        ExecuteShell(command);
    }
    const bool hasEnded = shell > 0 && waitpid(shell, &status, 0) == shell;
    return !hasEnded ? -errno : WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -EIO;
}

VQ_ERR_T RunInVpn(uint32_t vpnId, const char *command)
{
    char line[2 * kTextSize];
    const VQ_ERR_T length = VQ_RtcGetNetNsExecCmdPrefix(vpnId, line, sizeof(line));
    if (length >= 0) {
        VQ_SafeStrCopy(line + length, sizeof(line) - (size_t)length, command);
    }
    return length >= 0 ? VQ_CmdExec(line) : length;
}

/* `timeout` is in milliseconds. */
static bool IsGoneAfter(int process, int signal, int timeout)
{
    struct pollfd watched = {.fd = process, .events = POLLIN};
    syscall(SYS_pidfd_send_signal, process, signal, NULL, 0);
    return poll(&watched, 1, timeout) > 0;
}

/* Returns when the process is gone: the module launches the next instance at once, and that one needs the port. A
 * zombie is gone. Children that serve a TCP connection ignore SIGTERM. */
VQ_ERR_T VQ_KillPid(const pid_t pid)
{
    const int process = pid > 0 ? (int)syscall(SYS_pidfd_open, pid, 0) : -1;
    VQ_ERR_T result = pid > 0 ? -ESRCH : -EINVAL;
    if (process >= 0 && !IsGoneAfter(process, 0, 0)) {
        result = IsGoneAfter(process, SIGTERM, 500) || IsGoneAfter(process, SIGKILL, 5000) ? 0 : -ETIMEDOUT;
    }
    close(process);
    return result;
}

/* The module finds an instance by its pid file alone, and signals whatever that names. The processes that serve a TCP
 * connection are younger than their instance. */
void RepairPidFile(uint32_t vpnId)
{
    char command[kTextSize];
    VQ_SNPrintf(command, sizeof(command),
                "file=/var/run/kvl_dns_vpn_%u.pid; grep -q -e \"$file\" \"/proc/$(cat $file)/cmdline\" || "
                "pgrep -o -f \"^/usr/sbin/dnsmasq .*$file\" >$file || rm -f $file",
                vpnId);
    VQ_CmdExec(command);
}

bool AwaitPidFile(uint32_t vpnId)
{
    char path[kNameSize];
    struct stat info = {0};
    VQ_SNPrintf(path, sizeof(path), "/var/run/kvl_dns_vpn_%u.pid", vpnId);
    for (int look = 0; look < 500 && (stat(path, &info) != 0 || info.st_size == 0); ++look) {
        poll(NULL, 0, 20);
    }
    return info.st_size > 0;
}
