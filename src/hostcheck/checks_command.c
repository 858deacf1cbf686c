/* The promises of VQ_CmdExec. */
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "checks.h"
#include "lab.h"
#include "vqProcess.h"

enum { kCommandLength = 511, kShortMs = 300, kBackgroundMs = 3000, kAwaitMs = 5000, kPollMs = 5, kStatusSize = 8192 };

void CheckProcessCmdShell(Check *check)
{
    char text[32] = "";
    if (LabDirectory(check) == NULL) {
        return;
    }
    const int32_t result = Execute("a=b; echo \"$a\" c | cat > '%s' 2>/dev/null && test -e /", LabFile("out"));
    if (result < 0 || GetFile(LabFile("out"), text, sizeof(text)) <= 0 || strcmp(text, "b c\n") != 0) {
        Broken(check, "variables, a pipe and a redirection: result %d, and the output is \"%s\"", result, text);
    }
}

void CheckProcessCmdWhole(Check *check)
{
    if (LabDirectory(check) == NULL) {
        return;
    }
    char command[kCommandLength + 1];
    char text[32] = "";
    const int length = snprintf(command, sizeof(command), ": ");
    memset(command + length, 'x', sizeof(command) - 1 - (size_t)length);
    command[kCommandLength] = '\0';
    const char *path = LabFile("end");
    snprintf(command + kCommandLength - strlen(path) - 13, strlen(path) + 14, " ; echo end>%s ", path);
    const int32_t result = VQ_CmdExec(command);
    if (GetFile(path, text, sizeof(text)) <= 0 || strcmp(text, "end\n") != 0) {
        Broken(check, "of a command of %zu bytes, the end is not executed; the result is %d", strlen(command), result);
    }
}

void CheckProcessCmdWaits(Check *check)
{
    if (LabDirectory(check) != NULL) {
        Execute("sleep 0.%d; echo > %s", kShortMs, LabFile("ended"));
        if (!FileExists(LabFile("ended"))) {
            Broken(check, "the call returns while the shell still runs");
        }
    }
}

void CheckProcessCmdBackground(Check *check)
{
    const int64_t begin = NowInMs();
    Execute("sleep %d & :", kBackgroundMs / 1000 * 10);
    if (NowInMs() - begin >= kBackgroundMs) {
        Broken(check, "the call returns after %d ms", (int)(NowInMs() - begin));
    }
}

/* Starts a command in the background and waits until it runs; 0, with the reason recorded, if it does not. */
static pid_t StartBackground(Check *check)
{
    if (LabDirectory(check) == NULL) {
        return 0;
    }
    const int32_t result = Execute("sleep 600 & echo $! > %s", LabFile("pid"));
    const pid_t pid = AwaitPidIn(LabFile("pid"));
    char path[64];
    char name[32] = "";
    snprintf(path, sizeof(path), "/proc/%d/comm", (int)pid);
    for (const int64_t end = NowInMs() + kAwaitMs; NowInMs() < end && strcmp(name, "sleep\n") != 0; SleepMs(kPollMs)) {
        if (GetFile(path, name, sizeof(name)) < 0) {
            break;
        }
    }
    if (pid == 0 || strcmp(name, "sleep\n") != 0) {
        Broken(check, "a command in the background does not run after the call, whose result is %d", result);
        return 0;
    }
    return pid;
}

void CheckProcessCmdSurvives(Check *check)
{
    const pid_t pid = StartBackground(check);
    if (pid > 0) {
        SleepMs(kShortMs); /* for a host that ends it late */
        if (!IsRunning(pid)) {
            Broken(check, "a command in the background has ended %d ms after the call", kShortMs);
        }
    }
}

void CheckProcessCmdFailure(Check *check)
{
    const char *const commands[] = {"false", "exit 3", "exit 255", "no-such-command-here", "kill -KILL $$"};
    for (size_t i = 0; i < sizeof(commands) / sizeof(commands[0]); ++i) {
        const int32_t result = Execute("%s", commands[i]);
        if (result >= 0) {
            Broken(check, "\"%s\": result %d", commands[i], result);
        }
    }
    const int32_t result = Execute("true");
    if (result < 0) {
        Broken(check, "\"true\": result %d", result);
    }
}

static bool HaveSameFile(const char *first, const char *second)
{
    char one[kLabPathSize] = "";
    char two[kLabPathSize] = "";
    return readlink(first, one, sizeof(one) - 1) > 0 && readlink(second, two, sizeof(two) - 1) > 0 &&
           strcmp(one, two) == 0 && strcmp(one, "/dev/null") != 0;
}

/* A descriptor of this process that a careless host does not close, since it does not know of it. */
void CheckProcessCmdDescriptors(Check *check)
{
    int ends[2];
    if (pipe2(ends, 0) != 0) {
        Skipped(check, "no pipe");
        return;
    }
    const int high = fcntl(ends[1], F_DUPFD, 200);
    const pid_t pid = StartBackground(check);
    const int descriptors[] = {ends[0], ends[1], high};
    for (int i = 0; pid > 0 && i < 3; ++i) {
        char own[64];
        char other[64];
        snprintf(own, sizeof(own), "/proc/self/fd/%d", descriptors[i]);
        snprintf(other, sizeof(other), "/proc/%d/fd/%d", (int)pid, descriptors[i]);
        if (HaveSameFile(own, other)) {
            Broken(check, "a command in the background has descriptor %d of the host, which is not close-on-exec",
                   descriptors[i]);
        }
    }
}

/* Files of the check become the standard streams of this process. */
void CheckProcessCmdStreams(Check *check)
{
    if (LabDirectory(check) == NULL) {
        return;
    }
    char directory[kLabPathSize];
    snprintf(directory, sizeof(directory), "%s", LabFile(""));
    const int stream = open(LabFile("stream"), O_RDWR | O_CREAT, 0600);
    for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor) {
        dup2(stream, descriptor);
    }
    const pid_t pid = StartBackground(check);
    for (int descriptor = 0; pid > 0 && descriptor <= STDERR_FILENO; ++descriptor) {
        char own[64];
        char other[64];
        snprintf(own, sizeof(own), "/proc/self/fd/%d", descriptor);
        snprintf(other, sizeof(other), "/proc/%d/fd/%d", (int)pid, descriptor);
        if (HaveSameFile(own, other)) {
            Broken(check, "a command in the background has the standard stream %d of the host", descriptor);
        }
    }
}

/* A set of signals from /proc/PID/status, without those that C libraries keep for themselves. */
static unsigned long long SignalSet(pid_t pid, const char *name)
{
    char path[64];
    static char text[kStatusSize];
    unsigned long long set = 0;
    snprintf(path, sizeof(path), "/proc/%d/status", (int)pid);
    const char *line = GetFile(path, text, sizeof(text)) > 0 ? strstr(text, name) : NULL;
    if (line != NULL) {
        sscanf(line + strlen(name), "%llx", &set);
    }
    return set & 0x7FFFFFFFULL;
}

static void NameSignals(unsigned long long set, char *text, size_t size)
{
    const struct {
        int number;
        const char *name;
    } names[] = {{SIGHUP, "SIGHUP"},   {SIGINT, "SIGINT"},   {SIGQUIT, "SIGQUIT"},
                 {SIGUSR1, "SIGUSR1"}, {SIGUSR2, "SIGUSR2"}, {SIGPIPE, "SIGPIPE"},
                 {SIGALRM, "SIGALRM"}, {SIGTERM, "SIGTERM"}, {SIGCHLD, "SIGCHLD"}};
    size_t length = 0;
    text[0] = '\0';
    for (size_t i = 0; i < sizeof(names) / sizeof(names[0]) && length < size; ++i) {
        if ((set >> (names[i].number - 1) & 1U) != 0) {
            length += (size_t)snprintf(text + length, size - length, " %s", names[i].name);
        }
    }
    if (length == 0) {
        snprintf(text, size, " signals %#llx", set);
    }
}

/* An agent blocks what it reads from a signalfd; the mask is inherited if nobody resets it. */
void CheckProcessCmdSignals(Check *check)
{
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGHUP);
    sigaddset(&blocked, SIGTERM);
    sigaddset(&blocked, SIGINT);
    sigaddset(&blocked, SIGCHLD);
    sigprocmask(SIG_BLOCK, &blocked, NULL);
    const pid_t pid = StartBackground(check);
    const unsigned long long set = pid > 0 ? SignalSet(pid, "SigBlk:") : 0;
    if (set != 0) {
        char names[128];
        NameSignals(set, names, sizeof(names));
        Broken(check, "a command in the background has blocked:%s", names);
    }
}

/* A shell makes a command in the background ignore SIGINT and SIGQUIT by itself. */
void CheckProcessCmdIgnored(Check *check)
{
    signal(SIGHUP, SIG_IGN);
    signal(SIGTERM, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    const pid_t pid = StartBackground(check);
    const unsigned long long shells = 1ULL << (SIGINT - 1) | 1ULL << (SIGQUIT - 1);
    const unsigned long long set = pid > 0 ? SignalSet(pid, "SigIgn:") & ~shells : 0;
    if (set != 0) {
        char names[128];
        NameSignals(set, names, sizeof(names));
        Broken(check, "a command in the background ignores:%s", names);
    }
}

void CheckProcessCmdSession(Check *check)
{
    const pid_t pid = StartBackground(check);
    if (pid > 0 && getsid(pid) == getsid(0)) {
        Broken(check, "a command in the background is in session %d, as the host is", (int)getsid(0));
    }
}

void CheckProcessCmdZombies(Check *check)
{
    for (int round = 0; round < 5; ++round) {
        Execute("true");
    }
    siginfo_t info;
    memset(&info, 0, sizeof(info));
    if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0) {
        Broken(check, "process %d has exited and is not reaped", (int)info.si_pid);
    }
}
