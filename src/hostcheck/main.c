/* vq-hostcheck: runs an agent with a library in place of the module, which holds it to the promises of the host. */
#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "apply.h"
#include "host.h"
#include "module.h"
#include "options.h"
#include "report.h"
#include "system.h"

enum {
    kExitBroken = 1,
    kExitNeverCalled = 2,
    kRelayMs = 100,
    kFirstMessageMs = 3000,
    kMessageMs = 10000,
    kLateCallsMs = 1000
};

static void SetEnvironment(const Options *options, const char *report)
{
    char number[32];
    setenv("VQ_HOSTCHECK_REPORT", report, 1);
    setenv("VQ_HOSTCHECK_ONLY", options->only, 1);
    setenv("VQ_HOSTCHECK_AT", options->at, 1);
    if (options->vpn != NULL) {
        setenv("VQ_HOSTCHECK_VPN", options->vpn, 1);
    }
    if (options->platform != NULL) {
        setenv("VQ_HOSTCHECK_PLATFORM", options->platform, 1);
    }
    if (options->probe != NULL) {
        setenv("VQ_HOSTCHECK_PROBE", options->probe, 1);
    }
    snprintf(number, sizeof(number), "%d", options->timeoutMs);
    setenv("VQ_HOSTCHECK_TIMEOUT_MS", number, 1);
    snprintf(number, sizeof(number), "%llu", (unsigned long long)OwnNetns());
    setenv("VQ_HOSTCHECK_NETNS", number, 1);
}

/* Until the checks have ended, the host has, or nothing has come in time. A host that calls only when it gets a message
 * gets one, over and over, since it may not be ready for the first. */
static void AwaitChecks(const Options *options, const char *directory, Host *host, Report *report)
{
    const MessagePlan plan = DisablingMessage(options);
    const int64_t begin = NowInMs();
    while (!report->isEnded && IsHostRunning(host)) {
        RelayLines(report, kRelayMs);
        const int64_t waited = NowInMs() - begin;
        if (!report->isBegun && waited >= options->startMs) {
            return;
        }
        if (!report->isBegun && options->apply != NULL && waited >= kFirstMessageMs) {
            ApplyMessage(options, directory, &plan);
        }
    }
    RelayLines(report, 0);
}

/* Applies a message to the host with the library, which judges its fields. */
static void CheckMessage(const Options *options, const char *directory, Host *host, Report *report)
{
    const MessagePlan plan = DisablingMessage(options);
    Check check;
    memset(&check, 0, sizeof(check));
    if (report->hasMessage) {
        return;
    }
    if (options->apply == NULL) {
        Skipped(&check, "needs --apply");
        AddResult(report, kCallMessage, &check);
        return;
    }
    /* It may not be ready for the first. */
    bool isApplied = false;
    for (const int64_t end = NowInMs() + kMessageMs; !report->hasMessage && NowInMs() < end && IsHostRunning(host);) {
        isApplied = isApplied || ApplyMessage(options, directory, &plan);
        RelayLines(report, kRelayMs);
    }
    if (!report->hasMessage) {
        Broken(&check, "the command of --apply %s, and no message reaches the module",
               isApplied ? "succeeds" : "fails");
        AddResult(report, kCallMessage, &check);
    }
}

/* Promises about calls are judged with each call, also after the checks have ended. */
static bool IsAnyCallSelected(const Report *report)
{
    bool isAny = false;
    for (PromiseId promise = 0; promise < kPromiseCount; ++promise) {
        const char *id = kPromises[promise].id;
        const bool isOfCall = strncmp(id, "call.", 5) == 0 || strncmp(id, "thread.", 7) == 0;
        isAny = isAny || (isOfCall && IsPromiseSelected(promise, report->only));
    }
    return isAny;
}

/* Waits for calls that come right after that which ran the checks, such as the recovery of stored records. */
static void AwaitLateCalls(Report *report)
{
    Check check;
    memset(&check, 0, sizeof(check));
    for (const int64_t end = NowInMs() + kLateCallsMs; NowInMs() < end;) {
        RelayLines(report, kRelayMs);
    }
    if (!report->hasRecovery) {
        Skipped(&check, "the host has recovered no stored records");
        AddResult(report, kCallRecoverLate, &check);
    }
}

/* The host with the library. False if it never called. */
static bool RunFirstPhase(const Options *options, const char *directory, Report *report)
{
    Host host = {.words = options->host, .directory = directory};
    if (!StartHost(&host, options->library)) {
        return false;
    }
    AwaitChecks(options, directory, &host, report);
    if (report->isEnded && IsAnyCallSelected(report)) {
        AwaitLateCalls(report);
    }
    if (report->isEnded && IsPromiseSelected(kCallMessage, report->only)) {
        CheckMessage(options, directory, &host, report);
    }
    const bool hasEnded = !IsHostRunning(&host);
    if (!report->isBegun) {
        fprintf(stderr, "vq-hostcheck: the agent %s without calling the library; %s\n",
                hasEnded ? DescribeHostEnd(&host) : "runs", "does it load the file that replaces %m?");
    } else if (!report->isEnded) {
        printf("Bail out! The agent %s during the checks\n", hasEnded ? DescribeHostEnd(&host) : "runs");
    }
    StopHost(&host);
    return report->isBegun;
}

static void RemoveDirectory(const char *path)
{
    DIR *directory = opendir(path);
    for (struct dirent *entry = directory != NULL ? readdir(directory) : NULL; entry != NULL;
         entry = readdir(directory)) {
        char below[600];
        snprintf(below, sizeof(below), "%s/%s", path, entry->d_name);
        unlink(below);
    }
    if (directory != NULL) {
        closedir(directory);
    }
    rmdir(path);
}

int main(int argc, char **argv)
{
    Options options;
    Report report;
    char directory[] = "/tmp/vq-hostcheck.XXXXXX";
    ParseOptions(argc, argv, &options);
    memset(&report, 0, sizeof(report));
    report.only = options.only;
    signal(SIGPIPE, SIG_IGN);
    if (mkdtemp(directory) == NULL || !OpenReport(&report, directory)) {
        perror("vq-hostcheck: temporary files");
        return kExitNeverCalled;
    }
    SetEnvironment(&options, report.path);
    puts("TAP version 14");
    fflush(stdout);
    const bool isCalled = RunFirstPhase(&options, directory, &report);
    JudgeModule(&report, options.module);
    if (isCalled && report.isEnded && options.apply != NULL) {
        RunSecondPhase(&options, directory, &report);
    } else if (isCalled && report.isEnded) {
        SkipSecondPhase(&report, "needs --apply");
    }
    CloseReport(&report);
    RemoveDirectory(directory);
    if (!isCalled) {
        return kExitNeverCalled;
    }
    return report.broken > 0 || !report.isEnded ? kExitBroken : EXIT_SUCCESS;
}
