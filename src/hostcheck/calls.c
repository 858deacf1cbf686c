#include "calls.h"

#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "advanced_dns.pb-c.h"
#include "lab.h"
#include "message.h"
#include "runner.h"

enum { kInitsMax = 4096 };

static atomic_int s_running; /* calls that have not returned */

/* The verdicts as the calls come. */
typedef struct {
    PromiseId promise;
    Check check;
    bool isWritten; /* as it is now */
} CallVerdict;

static CallVerdict s_platformFirst = {.promise = kCallPlatformFirst};
static CallVerdict s_platform = {.promise = kCallPlatform};
static CallVerdict s_initFirst = {.promise = kCallInitFirst};
static CallVerdict s_recoverLate = {.promise = kCallRecoverLate};
static CallVerdict s_boxNamespace = {.promise = kCallBoxNamespace};
static CallVerdict s_mainThread = {.promise = kThreadMain};
static CallVerdict s_oneAtATime = {.promise = kThreadOne};
static CallVerdict *const kVerdicts[] = {&s_platformFirst, &s_platform,   &s_initFirst, &s_recoverLate,
                                         &s_boxNamespace,  &s_mainThread, &s_oneAtATime};
enum { kVerdictCount = sizeof(kVerdicts) / sizeof(kVerdicts[0]) };

static bool s_isJudged; /* JudgeCalls was called */
static bool s_hasPlatform;
static bool s_hasMessage;
static bool s_hasRecovery;
static uint32_t s_inits[kInitsMax];
static int s_initCount;

/* Records a promise that a call breaks; the first time counts. */
static void Breaks(CallVerdict *verdict, const char *format, ...) VQ_PRINTF_LIKE(2, 3);
static void Breaks(CallVerdict *verdict, const char *format, ...)
{
    char seen[kSeenSize];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(seen, sizeof(seen), format, arguments);
    va_end(arguments);
    if (verdict->check.verdict == kVerdictKept) {
        Broken(&verdict->check, "%s", seen);
        verdict->isWritten = false;
    }
}

/* Writes what has changed since the last time. */
static void WriteVerdicts(void)
{
    for (int i = 0; i < kVerdictCount; ++i) {
        CallVerdict *verdict = kVerdicts[i];
        if (!verdict->isWritten && (verdict != &s_recoverLate || s_hasRecovery)) {
            verdict->isWritten = true;
            WriteResult(verdict->promise, &verdict->check);
        }
    }
}

static bool IsInitialised(uint32_t vpnId)
{
    for (int i = 0; i < s_initCount; ++i) {
        if (s_inits[i] == vpnId) {
            return true;
        }
    }
    return vpnId == 0;
}

static void JudgePlace(void)
{
    static uint64_t first;
    const uint64_t netns = OwnNetns();
    const long thread = syscall(SYS_gettid);
    first = first != 0 ? first : g_settings.boxNetns != 0 ? g_settings.boxNetns : netns;
    if (netns != first) {
        Breaks(&s_boxNamespace, "a call in network namespace %llu instead of %llu", (unsigned long long)netns,
               (unsigned long long)first);
    }
    if (thread != (long)getpid()) {
        Breaks(&s_mainThread, "a call on thread %ld of process %ld", thread, (long)getpid());
    }
}

static void JudgePlatform(CallRole role)
{
    if (!g_settings.hasPlatform && role != kRoleOtherPlatform) {
        g_settings.isPop = role == kRolePop;
    }
    const bool isRight = role == (g_settings.isPop ? kRolePop : kRoleCpe);
    if (!isRight && role != kRoleOtherPlatform) {
        Breaks(&s_platform, "the entry of a %s is called on a %s", role == kRolePop ? "POP" : "CPE",
               g_settings.isPop ? "POP" : "CPE");
    }
    s_hasPlatform |= role != kRoleOtherPlatform;
}

static void JudgeOrder(CallRole role, uint32_t vpnId)
{
    if (role == kRoleInit && s_initCount < kInitsMax) {
        s_inits[s_initCount++] = vpnId;
    } else if (role == kRoleMessage) {
        s_hasMessage = true;
        if (!IsInitialised(vpnId)) {
            Breaks(&s_initFirst, "a message for VPN %u, which is not initialised", vpnId);
        }
    } else if (role == kRoleRecover) {
        s_hasRecovery = true;
        if (!s_hasPlatform || !IsInitialised(g_settings.vpnId)) {
            Breaks(&s_recoverLate, "the recovery comes before %s",
                   s_hasPlatform ? "a VPN is initialised" : "the platform is set");
        }
    }
}

void BeginCall(CallRole role, uint32_t vpnId)
{
    if (atomic_fetch_add(&s_running, 1) > 0) {
        Breaks(&s_oneAtATime, "a call begins while another one has not returned");
    }
    JudgePlace();
    if (role <= kRoleOtherPlatform) {
        JudgePlatform(role);
    } else if (!s_hasPlatform) {
        Breaks(&s_platformFirst, "a call %s before the platform is set",
               role == kRoleInit ? "that initialises a VPN" : "of another kind");
    }
    JudgeOrder(role, vpnId);
    if (s_isJudged) {
        WriteVerdicts();
    }
}

void EndCall(void)
{
    atomic_fetch_sub(&s_running, 1);
}

void JudgeCalls(void)
{
    if (!s_hasPlatform) {
        Breaks(&s_platform, "no entry of a CPE or a POP is called");
    }
    if (!s_hasMessage && !IsInitialised(g_settings.vpnId)) {
        Breaks(&s_initFirst, "VPN %u is not initialised", g_settings.vpnId);
    }
    s_isJudged = true;
    WriteVerdicts();
}

uint32_t VpnOfMessage(const VQ_CTRL_DNSMASQ_CONFIG_PB *message, bool isPop)
{
    return isPop || !message->DnsmasqPbCPE->has_vpnid ? 0 : message->DnsmasqPbCPE->vpnid;
}

bool IsMessageOfKit(const VQ_CTRL_DNSMASQ_CONFIG_PB *message, bool isPop)
{
    if (isPop) {
        return message->DnsmasqPbPOP->n_dns > 0 && message->DnsmasqPbPOP->dns[0] == kMessageServer;
    }
    const DnsmasqConf *conf = message->DnsmasqPbCPE;
    return conf->n_dnshosts > 0 && conf->dnshosts[0]->domain != NULL &&
           strcmp(conf->dnshosts[0]->domain, kMessageHost) == 0;
}

static bool IsText(const char *text, const char *expected)
{
    return text != NULL && strcmp(text, expected) == 0;
}

static void JudgeCpeMessage(Check *check, const DnsmasqConf *conf)
{
    if (conf->enable || conf->operation != 1) {
        Broken(check, "enable is %d and operation is %u instead of 0 and 1", conf->enable, conf->operation);
    }
    if (conf->n_dnshosts != 1 || conf->dnshosts[0]->ip != kMessageAddress) {
        Broken(check, "%zu hosts, or another address than 192.0.2.1", conf->n_dnshosts);
    }
    if (conf->n_dnsservers != 1 || conf->dnsservers[0]->dnsserver != kMessageServer) {
        Broken(check, "%zu servers, or another address than 192.0.2.53", conf->n_dnsservers);
    }
    if (conf->n_dnsmxhost != 1 || !IsText(conf->dnsmxhost[0]->targetdomain, kMessageTarget) ||
        !IsText(conf->dnsmxhost[0]->sourcedomain, kMessageSource) ||
        conf->dnsmxhost[0]->preference != kMessagePreference) {
        Broken(check, "%zu mail exchangers, or another one", conf->n_dnsmxhost);
    }
    if (conf->n_dnsproxies != 1 || conf->dnsproxies[0]->n_domains != 1 || conf->dnsproxies[0]->n_serverips != 2 ||
        !IsText(conf->dnsproxies[0]->domains[0], kMessageDomain) ||
        conf->dnsproxies[0]->serverips[1] != kMessageOtherServer) {
        Broken(check, "%zu conditional forwards, or another one", conf->n_dnsproxies);
    }
    if (!conf->has_persistentflag || conf->persistentflag || !conf->has_vpnid || conf->has_historypersistent) {
        Broken(check, "of the optional fields, persistentflag is %s and vpnid is %s",
               conf->has_persistentflag ? "there" : "missing", conf->has_vpnid ? "there" : "missing");
    }
}

static void JudgePopMessage(Check *check, const PopDnsmasqConf *conf)
{
    if (conf->enable || conf->localip != kMessageLocal) {
        Broken(check, "enable is %d and localip is %#010x instead of 0 and %#010x", conf->enable, conf->localip,
               kMessageLocal);
    }
    if (conf->n_dns != 2 || conf->dns[1] != kMessageOtherServer) {
        Broken(check, "%zu servers, or others than 192.0.2.53 and 192.0.2.54", conf->n_dns);
    }
    if (!conf->has_persistentflag || conf->persistentflag || conf->has_historypersistent) {
        Broken(check, "persistentflag is %s", conf->has_persistentflag ? "set" : "missing");
    }
}

void JudgeMessage(Check *check, const VQ_CTRL_DNSMASQ_CONFIG_PB *message, bool isPop)
{
    if (isPop) {
        JudgePopMessage(check, message->DnsmasqPbPOP);
    } else {
        JudgeCpeMessage(check, message->DnsmasqPbCPE);
    }
}
