#include "instances.h"

#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "system.h"

enum { kSteadyMs = 1000, kAwaitMs = 20000, kPollMs = 20, kCommandLineSize = 4096, kPathSize = 300 };

static const char *PidFile(uint32_t vpnId)
{
    static char path[64];
    snprintf(path, sizeof(path), "/var/run/kvl_dns_vpn_%u.pid", vpnId);
    return path;
}

/* Whether the process has the option of the VPN's instances in its command line. */
static bool IsOfVpn(const char *pid, uint32_t vpnId)
{
    char path[kPathSize];
    char words[kCommandLineSize];
    char option[96];
    snprintf(path, sizeof(path), "/proc/%s/cmdline", pid);
    const ssize_t length = GetFile(path, words, sizeof(words));
    for (ssize_t i = 0; i < length; ++i) {
        words[i] = words[i] == '\0' ? ' ' : words[i];
    }
    snprintf(option, sizeof(option), "--pid-file=/var/run/kvl_dns_vpn_%u.pid", vpnId);
    const char *found = length > 0 ? strstr(words, option) : NULL;
    const char after = found != NULL ? found[strlen(option)] : 'x';
    return (after == ' ' || after == '\0') && strstr(words, "dnsmasq") != NULL && IsRunning((pid_t)atoi(pid));
}

static bool RunsDnsmasq(const char *pid)
{
    char path[kPathSize];
    char program[kPathSize] = "";
    snprintf(path, sizeof(path), "/proc/%s/exe", pid);
    const ssize_t length = readlink(path, program, sizeof(program) - 1);
    program[length > 0 ? length : 0] = '\0';
    const char *name = strrchr(program, '/');
    return name != NULL && strncmp(name, "/dnsmasq", strlen("/dnsmasq")) == 0;
}

/* A process that dnsmasq has forked for a client is no instance of its own. */
static bool IsChildOfDnsmasq(const char *pid)
{
    char path[kPathSize];
    char text[512];
    char parent[16];
    int number = 0;
    snprintf(path, sizeof(path), "/proc/%s/stat", pid);
    const char *end = GetFile(path, text, sizeof(text)) > 0 ? strrchr(text, ')') : NULL;
    if (end == NULL || sscanf(end + 1, " %*c %d", &number) != 1) {
        return false;
    }
    snprintf(parent, sizeof(parent), "%d", number);
    return RunsDnsmasq(parent);
}

typedef void (*TakeProcess)(const char *pid, void *argument);

static void ForEachProcess(uint32_t vpnId, TakeProcess take, void *argument)
{
    DIR *processes = opendir("/proc");
    for (struct dirent *entry = processes != NULL ? readdir(processes) : NULL; entry != NULL;
         entry = readdir(processes)) {
        if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9' && atoi(entry->d_name) != getpid() &&
            IsOfVpn(entry->d_name, vpnId)) {
            take(entry->d_name, argument);
        }
    }
    if (processes != NULL) {
        closedir(processes);
    }
}

static void CountProcess(const char *pid, void *argument)
{
    Instances *instances = argument;
    if (!RunsDnsmasq(pid)) {
        ++instances->launchers;
    } else if (!IsChildOfDnsmasq(pid)) {
        ++instances->dnsmasqs;
        instances->pid = (pid_t)atoi(pid);
    }
}

Instances FindInstances(uint32_t vpnId)
{
    Instances instances = {0, 0, 0, 0};
    char text[32];
    ForEachProcess(vpnId, CountProcess, &instances);
    if (GetFile(PidFile(vpnId), text, sizeof(text)) > 0) {
        instances.named = (pid_t)atoi(text);
    }
    return instances;
}

static bool IsNone(const Instances *instances)
{
    return instances->dnsmasqs == 0 && instances->launchers == 0;
}

static bool IsOne(const Instances *instances)
{
    return instances->dnsmasqs == 1 && instances->launchers == 0 && instances->named == instances->pid;
}

static bool Await(uint32_t vpnId, Instances *seen, bool (*isWanted)(const Instances *))
{
    const int64_t end = NowInMs() + kAwaitMs;
    int64_t since = -1;
    do {
        *seen = FindInstances(vpnId);
        const int64_t now = NowInMs();
        since = !isWanted(seen) ? -1 : since < 0 ? now : since;
        if (since >= 0 && now - since >= kSteadyMs) {
            return true;
        }
        SleepMs(kPollMs);
    } while (NowInMs() < end);
    return false;
}

bool AwaitNone(uint32_t vpnId, Instances *seen)
{
    return Await(vpnId, seen, IsNone);
}

bool AwaitOne(uint32_t vpnId, Instances *seen)
{
    return Await(vpnId, seen, IsOne);
}

static void KillProcess(const char *pid, void *argument)
{
    (void)argument;
    kill((pid_t)atoi(pid), SIGKILL);
}

void KillInstances(uint32_t vpnId)
{
    ForEachProcess(vpnId, KillProcess, NULL);
}

void RemovePidFile(uint32_t vpnId)
{
    unlink(PidFile(vpnId));
}
