#include "apply.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "instances.h"
#include "system.h"

enum { kPathSize = 256, kPollMs = 100, kLateMs = 500, kLatePollMs = 5, kBufferSize = 65536 };

typedef struct {
    const Options *options;
    const char *directory;
    Host host;
    MessagePlan plan; /* that disables the VPN */
} Phase;

static const char *const kDnsmasq = "/usr/sbin/dnsmasq";

bool ApplyMessage(const Options *options, const char *directory, const MessagePlan *plan)
{
    char path[kPathSize];
    uint8_t bytes[kMessageSize];
    const size_t length = EncodeMessage(plan, bytes);
    snprintf(path, sizeof(path), "%s/message.pb", directory);
    return PutFile(path, bytes, length) && RunCommand(options->apply, path) == 0;
}

MessagePlan DisablingMessage(const Options *options)
{
    const bool isPop = options->platform != NULL && strcmp(options->platform, "pop") == 0;
    return (MessagePlan){.isPop = isPop, .vpnId = isPop ? 0 : options->vpnId};
}

static bool Disable(const Phase *phase)
{
    return ApplyMessage(phase->options, phase->directory, &phase->plan);
}

static bool Enable(const Phase *phase, bool isStored)
{
    MessagePlan plan = phase->plan;
    plan.enables = true;
    plan.isStored = isStored;
    return ApplyMessage(phase->options, phase->directory, &plan);
}

/* Starts the host with the module, and waits until it applies messages. */
static bool Start(Phase *phase)
{
    const int64_t end = NowInMs() + phase->options->startMs;
    if (!StartHost(&phase->host, phase->options->module)) {
        return false;
    }
    while (NowInMs() < end && IsHostRunning(&phase->host)) {
        if (Disable(phase)) {
            return true;
        }
        SleepMs(kPollMs);
    }
    return false;
}

/* What every scenario begins with: the host runs, and the VPN has no instance. */
static bool Begin(Phase *phase, Check *check)
{
    Instances seen;
    if (!IsHostRunning(&phase->host) && !Start(phase)) {
        Broken(check, "the host does not apply a message with the module: %s",
               phase->host.pid > 0 ? "the command of --apply fails" : DescribeHostEnd(&phase->host));
        return false;
    }
    if (!Disable(phase)) {
        Broken(check, "the command of --apply fails for a message that disables the VPN");
        return false;
    }
    if (!AwaitNone(phase->plan.vpnId, &seen)) {
        KillInstances(phase->plan.vpnId);
        RemovePidFile(phase->plan.vpnId);
    }
    return true;
}

static void TellInstances(Check *check, const Instances *seen)
{
    Broken(check, "%d processes of dnsmasq, %d of a launch; the pid file names %d, the last dnsmasq is %d",
           seen->dnsmasqs, seen->launchers, (int)seen->named, (int)seen->pid);
}

static void ExpectNone(const Phase *phase, Check *check)
{
    Instances seen;
    if (!AwaitNone(phase->plan.vpnId, &seen)) {
        TellInstances(check, &seen);
    }
}

static void ExpectOne(const Phase *phase, Check *check)
{
    Instances seen;
    if (!AwaitOne(phase->plan.vpnId, &seen)) {
        TellInstances(check, &seen);
    }
}

static void CheckEnableThenDisable(Phase *phase, Check *check)
{
    if (!Enable(phase, false)) {
        Broken(check, "the command of --apply fails for a message that enables the VPN");
    }
    Disable(phase);
    ExpectNone(phase, check);
}

static void CheckTwoRestarts(Phase *phase, Check *check)
{
    if (!Enable(phase, false) || !Enable(phase, false)) {
        Broken(check, "the command of --apply fails for a message that enables the VPN");
    }
    ExpectOne(phase, check);
}

static void CheckLostPidFile(Phase *phase, Check *check)
{
    Instances seen;
    if (!Enable(phase, false) || !AwaitOne(phase->plan.vpnId, &seen)) {
        Skipped(check, "no instance comes up");
        return;
    }
    RemovePidFile(phase->plan.vpnId);
    Enable(phase, false);
    ExpectOne(phase, check);
}

static bool CopyProgram(const char *from, const char *to)
{
    char buffer[kBufferSize];
    const int source = open(from, O_RDONLY | O_CLOEXEC);
    const int target = open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755);
    ssize_t count = source >= 0 && target >= 0 ? 1 : -1;
    while (count > 0) {
        count = read(source, buffer, sizeof(buffer));
        if (count > 0 && write(target, buffer, (size_t)count) != count) {
            count = -1;
        }
    }
    close(source);
    close(target);
    return count == 0;
}

static bool PutMark(const Phase *phase, const char *name)
{
    char path[kPathSize];
    snprintf(path, sizeof(path), "%s/%s", phase->directory, name);
    return PutFile(path, "", 0);
}

static bool HasMark(const Phase *phase, const char *name)
{
    char path[kPathSize];
    snprintf(path, sizeof(path), "%s/%s", phase->directory, name);
    return FileExists(path);
}

/* Puts a program in the place of dnsmasq that waits for the mark "go", for two seconds at most. It is seen by this
 * program and what it starts. */
static bool DelayDnsmasq(const char *directory)
{
    char real[kPathSize];
    char slow[kPathSize];
    char script[kPathSize * 4];
    snprintf(real, sizeof(real), "%s/dnsmasq", directory);
    snprintf(slow, sizeof(slow), "%s/slow", directory);
    snprintf(script, sizeof(script),
             "#!/bin/sh\n: >%s/started\nfor look in $(seq 200); do test -e %s/go && break; sleep 0.01; done\n"
             "exec %s \"$@\"\n",
             directory, directory, real);
    return CopyProgram(kDnsmasq, real) && PutFile(slow, script, strlen(script)) && chmod(slow, 0755) == 0 &&
           chmod(directory, 0755) == 0 && mount(slow, kDnsmasq, NULL, MS_BIND, NULL) == 0;
}

/* Lets the instance come up half a second after its launch. If the host has answered before, it does not wait, and the
 * instance comes up later, however slow the box is. */
static bool EnableLate(const Phase *phase)
{
    int64_t launched = 0;
    int status = 0;
    const pid_t enabling = fork();
    if (enabling == 0) {
        _exit(Enable(phase, false) ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    while (enabling > 0 && waitpid(enabling, &status, WNOHANG) == 0) {
        launched = launched == 0 && HasMark(phase, "started") ? NowInMs() : launched;
        if (launched != 0 && NowInMs() - launched >= kLateMs) {
            PutMark(phase, "go");
        }
        SleepMs(kLatePollMs);
    }
    return enabling > 0 && WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS;
}

static void CheckLateStart(Phase *phase, Check *check)
{
    if (!DelayDnsmasq(phase->directory)) {
        Skipped(check, "no other program can be put in the place of dnsmasq: %s", strerror(errno));
        return;
    }
    if (!EnableLate(phase)) {
        Broken(check, "the command of --apply fails for a message that enables the VPN");
    }
    Disable(phase);
    PutMark(phase, "go");
    ExpectNone(phase, check);
    umount2(kDnsmasq, MNT_DETACH);
}

static void CheckRestored(Phase *phase, Check *check)
{
    Instances seen;
    if (!Enable(phase, true) || !AwaitOne(phase->plan.vpnId, &seen)) {
        Skipped(check, "no instance comes up");
        return;
    }
    StopHost(&phase->host);
    KillInstances(phase->plan.vpnId);
    RemovePidFile(phase->plan.vpnId);
    if (!AwaitNone(phase->plan.vpnId, &seen) || !StartHost(&phase->host, phase->options->module)) {
        Skipped(check, "the instance cannot be ended, or the host not be started");
        return;
    }
    ExpectOne(phase, check);
}

typedef void (*Scenario)(Phase *phase, Check *check);

static void RunScenario(Phase *phase, Report *report, PromiseId promise, Scenario scenario)
{
    Check check;
    memset(&check, 0, sizeof(check));
    if (!IsPromiseSelected(promise, report->only)) {
        return;
    }
    if (promise == kCallRestored && !report->keepsConfiguration) {
        Skipped(&check, "the host keeps no configuration");
    } else if (Begin(phase, &check)) {
        scenario(phase, &check);
    }
    AddResult(report, promise, &check);
}

void RunSecondPhase(const Options *options, const char *directory, Report *report)
{
    Phase phase = {.options = options, .directory = directory, .plan = DisablingMessage(options)};
    phase.host.words = options->host;
    phase.host.directory = directory;
    /* For the scenario that puts another program in the place of dnsmasq. */
    if (unshare(CLONE_NEWNS) == 0) {
        mount(NULL, "/", NULL, MS_SLAVE | MS_REC, NULL);
    }
    RunScenario(&phase, report, kCallPidFileAwaited, CheckEnableThenDisable);
    RunScenario(&phase, report, kCallRestarts, CheckTwoRestarts);
    RunScenario(&phase, report, kCallLostPidFile, CheckLostPidFile);
    RunScenario(&phase, report, kCallLateStart, CheckLateStart);
    RunScenario(&phase, report, kCallRestored, CheckRestored);
    Disable(&phase);
    StopHost(&phase.host);
    KillInstances(phase.plan.vpnId);
}

void SkipSecondPhase(Report *report, const char *reason)
{
    const PromiseId promises[] = {kCallPidFileAwaited, kCallRestarts, kCallLostPidFile, kCallLateStart, kCallRestored};
    for (size_t i = 0; i < sizeof(promises) / sizeof(promises[0]); ++i) {
        Check check;
        memset(&check, 0, sizeof(check));
        Skipped(&check, "%s", reason);
        AddResult(report, promises[i], &check);
    }
}
