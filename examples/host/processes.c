/* Commands, and the processes of instances. */
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "host.h"

/* What outlives this program has nothing of it: no streams, descriptors, session, blocked or ignored signals. */
static void ExecuteShell(const char *command)
{
    for (int number = 1; number < NSIG; ++number) {
        signal(number, SIG_DFL);
    }
    sigprocmask(SIG_SETMASK, &(sigset_t){0}, NULL);
    setsid();
    const int nowhere = open("/dev/null", O_RDWR);
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        dup2(nowhere, stream);
    }
    syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, 0);
    execl("/bin/sh", "sh", "-c", command, (char *)NULL);
    _exit(127);
}

/* A status other than 0 is taken for an error number: this host's own commands can say what failed. */
int32_t VQ_CmdExec(char *command)
{
    int status = 0;
    const pid_t shell = fork();
    if (shell == 0) {
        ExecuteShell(command);
    }
    const bool hasEnded = shell > 0 && waitpid(shell, &status, 0) == shell;
    return !hasEnded ? -errno : WIFEXITED(status) ? -WEXITSTATUS(status) : -EIO;
}

VQ_ERR_T RunInVpn(uint32_t vpnId, const char *format, ...)
{
    char code[kTextSize];
    char line[2 * kTextSize];
    const VQ_ERR_T length = VQ_RtcGetNetNsExecCmdPrefix(vpnId, line, kTextSize);
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(code, sizeof(code), format, arguments);
    va_end(arguments);
    if (length < 0) {
        return length;
    }
    VQ_SNPrintf(line + length, kTextSize, "sh <<'CODE'\n%s\nCODE\n", code);
    return VQ_CmdExec(line);
}

static bool IsGoneAfter(int process, int signal, int milliseconds)
{
    struct pollfd watched = {.fd = process, .events = POLLIN};
    syscall(SYS_pidfd_send_signal, process, signal, NULL, 0);
    return poll(&watched, 1, milliseconds) > 0;
}

/* A zombie is gone. Children of an instance that serve a TCP connection ignore SIGTERM. */
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

/* The processes that serve a TCP connection have the command line of their instance, and are younger. */
void RepairPidFile(uint32_t vpnId)
{
    RunInVpn(0,
             "file=/var/run/kvl_dns_vpn_%u.pid\ngrep -q -e $file /proc/$(cat $file)/cmdline ||\n"
             "pgrep -o -f \"^/usr/sbin/dnsmasq .*$file\" >$file || rm -f $file",
             vpnId);
}

bool AwaitPidFile(uint32_t vpnId)
{
    static const char kCode[] = "file=/var/run/kvl_dns_vpn_%u.pid\nfor look in $(seq 500); do test -s $file && exit\n"
                                "pgrep -f \"pid-file=$file\" || exit 1; sleep 0.02; done; exit 1";
    return RunInVpn(0, kCode, vpnId) == 0;
}
