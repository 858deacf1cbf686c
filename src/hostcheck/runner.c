#include "runner.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "imports.h"
#include "lab.h"
#include "result.h"

enum { kDefaultTimeoutMs = 10000, kLineSize = 256 };

Settings g_settings;

static int s_report = STDOUT_FILENO;
static int s_written; /* results so far */

static const char *TextOr(const char *name, const char *otherwise)
{
    const char *text = getenv(name);
    return text != NULL && *text != '\0' ? text : otherwise;
}

void PrepareRunner(void)
{
    const char *vpn = TextOr("VQ_HOSTCHECK_VPN", NULL);
    const char *platform = TextOr("VQ_HOSTCHECK_PLATFORM", NULL);
    const char *timeout = TextOr("VQ_HOSTCHECK_TIMEOUT_MS", NULL);
    const char *netns = TextOr("VQ_HOSTCHECK_NETNS", NULL);
    g_settings.hasVpn = vpn != NULL;
    g_settings.vpnId = vpn != NULL ? (uint32_t)strtoul(vpn, NULL, 10) : 0;
    g_settings.hasPlatform = platform != NULL;
    g_settings.isPop = platform != NULL && strcmp(platform, "pop") == 0;
    g_settings.probe = TextOr("VQ_HOSTCHECK_PROBE", NULL);
    g_settings.only = TextOr("VQ_HOSTCHECK_ONLY", "");
    g_settings.timeoutMs = timeout != NULL ? atoi(timeout) : kDefaultTimeoutMs;
    g_settings.runsAtInit = strcmp(TextOr("VQ_HOSTCHECK_AT", "init"), "init") == 0;
    g_settings.report = TextOr("VQ_HOSTCHECK_REPORT", NULL);
    g_settings.boxNetns = netns != NULL ? strtoull(netns, NULL, 10) : 0;
    if (g_settings.report != NULL) {
        /* Without waiting, if it is a fifo that nobody reads. */
        const int report = open(g_settings.report, O_WRONLY | O_APPEND | O_NONBLOCK | O_CLOEXEC);
        s_report = report >= 0 ? report : STDOUT_FILENO;
        if (report >= 0) {
            fcntl(report, F_SETFL, O_APPEND);
        }
    }
}

/* One write per result: others write to the standard output, too. */
static void WriteAll(const char *text)
{
    size_t left = strlen(text);
    while (left > 0) {
        const ssize_t written = write(s_report, text, left);
        if (written < 0 && errno != EINTR) {
            return;
        }
        if (written > 0) {
            text += written;
            left -= (size_t)written;
        }
    }
}

void WriteComment(const char *format, ...)
{
    char line[kLineSize] = "# ";
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line + 2, sizeof(line) - 3, format, arguments);
    va_end(arguments);
    strcat(line, "\n");
    WriteAll(line);
}

void WriteResult(PromiseId promise, const Check *check)
{
    if (IsPromiseSelected(promise, g_settings.only)) {
        char text[kResultSize];
        FormatResult(text, ++s_written, promise, check);
        WriteAll(text);
    }
}

void EndReport(void)
{
    /* vq-hostcheck adds results of its own before it writes the plan. */
    if (g_settings.report == NULL) {
        char plan[32];
        snprintf(plan, sizeof(plan), "1..%d\n", s_written);
        WriteAll(plan);
    }
    WriteComment("hostcheck: checks ended");
}

/* Settings of the host that would disturb a check or the processes that it starts. */
static void BecomeChecker(void)
{
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGCHLD, SIG_DFL);
    signal(SIGPIPE, SIG_IGN);
}

/* Runs in the child. */
static void Judge(PromiseId promise, int results)
{
    Check check;
    memset(&check, 0, sizeof(check));
    setpgid(0, 0);
    kChecks[promise](&check);
    _exit(write(results, &check, sizeof(check)) == (ssize_t)sizeof(check) ? EXIT_SUCCESS : EXIT_FAILURE);
}

/* Ends what a check has left behind: it was adopted by this process. */
static void EndLeftovers(pid_t child)
{
    kill(-child, SIGKILL);
    char path[64];
    snprintf(path, sizeof(path), "/proc/self/task/%d/children", (int)getpid());
    for (;;) {
        FILE *file = fopen(path, "re");
        int pid = 0;
        const bool isAny = file != NULL && fscanf(file, "%d", &pid) == 1 && pid > 0;
        if (file != NULL) {
            fclose(file);
        }
        if (!isAny) {
            return;
        }
        kill(pid, SIGKILL);
        waitpid(pid, NULL, 0);
    }
}

static void DescribeEnd(Check *check, pid_t child)
{
    int status = 0;
    if (waitpid(child, &status, 0) != child) {
        Broken(check, "the process of the check ended without a result");
    } else if (WIFSIGNALED(status)) {
        Broken(check, "the call ends the process with signal %d (%s)", WTERMSIG(status), strsignal(WTERMSIG(status)));
    } else {
        Broken(check, "the call ends the process with status %d", WEXITSTATUS(status));
    }
}

/* Takes what the child wrote; what is missing says how it ended. */
static void AwaitResult(Check *check, pid_t child, int results)
{
    const int64_t end = NowInMs() + g_settings.timeoutMs;
    struct pollfd watched = {results, POLLIN, 0};
    int ready = 0;
    do {
        const int64_t left = end - NowInMs();
        ready = poll(&watched, 1, left > 0 ? (int)left : 0);
    } while (ready < 0 && errno == EINTR);
    memset(check, 0, sizeof(*check));
    if (ready == 0) {
        Broken(check, "the call has not returned after %d ms", g_settings.timeoutMs);
    } else if (read(results, check, sizeof(*check)) != (ssize_t)sizeof(*check)) {
        memset(check, 0, sizeof(*check));
        DescribeEnd(check, child);
    }
}

/* Whether the process lacks the function that the promise is about. */
static bool IsMissing(const char *name)
{
    for (size_t i = 0; i < kImportCount; ++i) {
        if (strcmp(kImports[i].name, name) == 0) {
            return kImports[i].address == NULL;
        }
    }
    return false;
}

static void RunCheck(PromiseId promise, Check *check)
{
    int ends[2];
    memset(check, 0, sizeof(*check));
    if (promise != kPlatformNames && IsMissing(kPromises[promise].declaration)) {
        Broken(check, "the process lacks %s", kPromises[promise].declaration);
        return;
    }
    if (pipe2(ends, O_CLOEXEC) != 0) {
        Skipped(check, "no pipe: %s", strerror(errno));
        return;
    }
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        Judge(promise, ends[1]);
    }
    close(ends[1]);
    if (child < 0) {
        Skipped(check, "no process for the check: %s", strerror(errno));
    } else {
        AwaitResult(check, child, ends[0]);
        EndLeftovers(child);
    }
    close(ends[0]);
}

/* Runs in a child of the host, so that neither the host's own children nor those of the checks disturb the other. */
static void RunAll(void)
{
    BecomeChecker();
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    OpenLab();
    for (PromiseId promise = 0; promise < kPromiseCount; ++promise) {
        if (kChecks[promise] != NULL && IsPromiseSelected(promise, g_settings.only)) {
            Check check;
            RunCheck(promise, &check);
            WriteResult(promise, &check);
        }
    }
    CloseLab();
}

void RunChecks(void)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        WriteComment("hostcheck: no pipe: %s", strerror(errno));
        return;
    }
    const pid_t checker = fork();
    if (checker == 0) {
        close(ends[0]);
        RunAll();
        _exit(write(ends[1], &s_written, sizeof(s_written)) > 0 ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    close(ends[1]);
    ssize_t count = 0;
    while ((count = read(ends[0], &s_written, sizeof(s_written))) < 0 && errno == EINTR) {
    }
    close(ends[0]);
    if (count != (ssize_t)sizeof(s_written)) {
        WriteComment("hostcheck: the checks ended early: the host cannot be forked");
    }
    /* The host may have waited for it already. */
    while (checker > 0 && waitpid(checker, NULL, 0) < 0 && errno == EINTR) {
    }
}
