/* The promises of VQ_KillPid. What is ended looks like an instance of the VPN: a host may refuse to end anything else.
 */
#include <errno.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "checks.h"
#include "lab.h"
#include "vqProcess.h"

enum { kSlowEndMs = 150, kAwaitMs = 5000, kPollMs = 2 };

static const char *const kDnsmasq = "/usr/sbin/dnsmasq";

/* Becomes an instance: dnsmasq with the options of the module, but without a port; a shell if there is no dnsmasq. */
static void BecomeInstance(void)
{
    char option[96];
    snprintf(option, sizeof(option), "--pid-file=/var/run/kvl_dns_vpn_%u.pid", g_settings.vpnId);
    const int nowhere = open("/dev/null", O_RDWR);
    for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor) {
        dup2(nowhere, descriptor);
    }
    setsid();
    signal(SIGTERM, SIG_DFL);
    signal(SIGHUP, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, NULL);
    execl(kDnsmasq, kDnsmasq, "-C", "/dev/null", "--port=0", "--dns-forward-max=1000", "--no-hosts", option, "-k",
          (char *)NULL);
    execl("/bin/sh", "sh", "-c", "while :; do sleep 600; done", kDnsmasq, "--dns-forward-max=1000", option, "-k",
          (char *)NULL);
    _exit(127);
}

/* Lets every process that ends wait a little before it is gone, as a busy one does, and reaps it. Never returns. */
static void Nurse(pid_t instance)
{
    int status = 0;
    while (waitpid(instance, &status, __WALL) == instance && WIFSTOPPED(status)) {
        int signal = WSTOPSIG(status);
        if (status >> 8 == (SIGTRAP | PTRACE_EVENT_EXIT << 8)) {
            SleepMs(kSlowEndMs);
            signal = 0;
        }
        ptrace(PTRACE_CONT, instance, NULL, (void *)(long)(signal == SIGTRAP ? 0 : signal));
    }
    _exit(0);
}

/* Starts an instance that ends slowly, and whose parent, which is not the caller, reaps it. 0 if that fails. */
static pid_t StartInstance(Check *check)
{
    int ends[2];
    pid_t instance = 0;
    if (pipe2(ends, O_CLOEXEC) == 0 && fork() == 0) {
        instance = fork();
        if (instance == 0) {
            ptrace(PTRACE_TRACEME, 0, NULL, NULL);
            BecomeInstance();
        }
        int status = 0;
        /* Stopped by its exec. */
        waitpid(instance, &status, __WALL);
        ptrace((int)PTRACE_SETOPTIONS, instance, NULL, (void *)(PTRACE_O_TRACEEXIT | PTRACE_O_EXITKILL));
        ptrace(PTRACE_CONT, instance, NULL, NULL);
        if (write(ends[1], &instance, sizeof(instance)) != (ssize_t)sizeof(instance)) {
            _exit(1);
        }
        Nurse(instance);
    }
    close(ends[1]);
    if (read(ends[0], &instance, sizeof(instance)) != (ssize_t)sizeof(instance) || !IsRunning(instance)) {
        Skipped(check, "no process that looks like an instance can be started");
        return 0;
    }
    return instance;
}

static void CheckGone(Check *check, pid_t instance)
{
    const VQ_ERR_T result = VQ_KillPid(instance);
    /* A zombie has released all that it had. */
    const bool runs = IsRunning(instance);
    if (result < 0 || runs) {
        Broken(check, "result %d, and the process %s", result, runs ? "still exists when the call returns" : "is gone");
    }
}

void CheckProcessKillWaits(Check *check)
{
    const pid_t instance = StartInstance(check);
    if (instance > 0) {
        CheckGone(check, instance);
    }
}

/* Starts an instance that is stopped, and so does not handle SIGTERM. Tells its id when it is. Never returns. */
static void NurseStopped(int told)
{
    int started[2];
    int status = 0;
    char letter = '\0';
    const bool hasPipe = pipe2(started, O_CLOEXEC) == 0;
    const pid_t instance = hasPipe ? fork() : -1;
    if (instance == 0) {
        BecomeInstance();
    }
    close(started[1]);
    /* Closed by its exec. */
    const bool isStarted = instance > 0 && read(started[0], &letter, 1) == 0;
    if (isStarted && kill(instance, SIGSTOP) == 0 && waitpid(instance, &status, WUNTRACED) == instance &&
        WIFSTOPPED(status) && write(told, &instance, sizeof(instance)) == (ssize_t)sizeof(instance)) {
        waitpid(instance, &status, 0);
    }
    _exit(0);
}

void CheckProcessKillStubborn(Check *check)
{
    int ends[2];
    pid_t instance = 0;
    if (pipe2(ends, O_CLOEXEC) == 0 && fork() == 0) {
        NurseStopped(ends[1]);
    }
    close(ends[1]);
    if (read(ends[0], &instance, sizeof(instance)) != (ssize_t)sizeof(instance)) {
        Skipped(check, "no process that looks like an instance can be started");
        return;
    }
    CheckGone(check, instance);
}

void CheckProcessKillOnly(Check *check)
{
    const pid_t first = StartInstance(check);
    const pid_t second = first > 0 ? StartInstance(check) : 0;
    if (second > 0) {
        VQ_KillPid(first);
        SleepMs(kSlowEndMs * 2); /* it ends slowly, too */
        if (!IsRunning(second)) {
            Broken(check, "another instance was ended, too");
        }
    }
}

void CheckProcessKillMissing(Check *check)
{
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    waitpid(pid, NULL, 0);
    const VQ_ERR_T result = VQ_KillPid(pid);
    if (result != -ESRCH) {
        Broken(check, "result %d for a process that has ended", result);
    }
}

/* Lets kill() fail for groups and for all processes: a careless host would end everything. */
static bool ForbidGroupKill(void)
{
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    const uint32_t low = offsetof(struct seccomp_data, args);
#else
    const uint32_t low = offsetof(struct seccomp_data, args) + 4;
#endif
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_kill, 0, 4),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, low),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, 0x80000000U, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const struct sock_fprog program = {sizeof(filter) / sizeof(filter[0]), filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0 &&
           kill(0, 0) != 0 && kill(getpid(), 0) == 0;
}

void CheckProcessKillInvalid(Check *check)
{
    const pid_t pids[] = {0, -1, -2, (pid_t)0x80000000U};
    if (!ForbidGroupKill()) {
        Skipped(check, "the system does not let a system call be forbidden, and without that the check is dangerous");
        return;
    }
    for (size_t i = 0; i < sizeof(pids) / sizeof(pids[0]); ++i) {
        const VQ_ERR_T result = VQ_KillPid(pids[i]);
        if (result != -EINVAL) {
            Broken(check, "result %d for pid %d", result, (int)pids[i]);
        }
    }
}

/* Whatever the result is, the call returns; the runner says if it does not. */
void CheckProcessKillZombie(Check *check)
{
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    siginfo_t info;
    waitid(P_PID, (id_t)pid, &info, WEXITED | WNOWAIT);
    const VQ_ERR_T result = VQ_KillPid(pid);
    if (result < 0 && result != -ESRCH) {
        Broken(check, "result %d", result);
    }
}
