/* The promises of vqNetns.h and vqNetio.h. */
#include <net/if.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "checks.h"
#include "lab.h"
#include "vqNetio.h"
#include "vqNetns.h"

enum {
    kCommandRoom = 512,  /* the module's command */
    kLaunchLength = 165, /* its part behind the prefix, with a VPN of ten digits */
    kSwitches = 50,
    kLists = 20000,
    kGrowthKiB = 256, /* a list has 48 bytes at least */
    kNodesMax = 100000
};

/* True if the checks have no VPN with a namespace of its own. */
static bool HasNoVpn(Check *check)
{
    if (g_settings.vpnId == 0) {
        Skipped(check, "VPN 0 is the box; name a VPN with --vpn");
    }
    return g_settings.vpnId == 0;
}

/* The prefix of the VPN, or null if the host does not give one that can be used. */
static const char *Prefix(Check *check)
{
    static char prefix[kCommandRoom];
    const VQ_ERR_T result = VQ_RtcGetNetNsExecCmdPrefix(g_settings.vpnId, prefix, sizeof(prefix));
    if (result < 0 || memchr(prefix, '\0', sizeof(prefix)) == NULL) {
        Broken(check, "result %d for VPN %u", result, g_settings.vpnId);
        return NULL;
    }
    return prefix;
}

void CheckNetnsPrefixLength(Check *check)
{
    const char *prefix = HasNoVpn(check) ? NULL : Prefix(check);
    if (prefix != NULL) {
        char again[kCommandRoom];
        const VQ_ERR_T result = VQ_RtcGetNetNsExecCmdPrefix(g_settings.vpnId, again, sizeof(again));
        if (result != (VQ_ERR_T)strlen(prefix)) {
            Broken(check, "\"%s\" has %zu characters, and the result is %d", prefix, strlen(prefix), result);
        }
    }
}

void CheckNetnsPrefixBlank(Check *check)
{
    const char *prefix = HasNoVpn(check) ? NULL : Prefix(check);
    if (prefix != NULL && (*prefix == '\0' || prefix[strlen(prefix) - 1] != ' ')) {
        Broken(check, "\"%s\"", prefix);
    }
}

void CheckNetnsPrefixShort(Check *check)
{
    const char *prefix = HasNoVpn(check) ? NULL : Prefix(check);
    for (size_t size = 0; prefix != NULL && size <= strlen(prefix); ++size) {
        char buffer[kCommandRoom];
        memset(buffer, '#', sizeof(buffer));
        const VQ_ERR_T result = VQ_RtcGetNetNsExecCmdPrefix(g_settings.vpnId, buffer, size);
        if (result >= 0 && (size_t)result < size) {
            Broken(check, "%zu characters into %zu bytes: result %d", strlen(prefix), size, result);
        }
        for (size_t i = size; i < sizeof(buffer); ++i) {
            if (buffer[i] != '#') {
                Broken(check, "%zu characters into %zu bytes: byte %zu is written", strlen(prefix), size, i);
            }
        }
    }
}

void CheckNetnsPrefixFits(Check *check)
{
    const char *prefix = HasNoVpn(check) ? NULL : Prefix(check);
    if (prefix != NULL && strlen(prefix) + kLaunchLength >= kCommandRoom) {
        Broken(check, "the prefix has %zu characters, %d are left for it", strlen(prefix),
               kCommandRoom - kLaunchLength - 1);
    }
}

/* Reads where a command behind the prefix runs: link is a path below /proc/self. Empty if it does not run. */
static const char *LinkBehindPrefix(Check *check, const char *link)
{
    static char text[kLabPathSize];
    const char *prefix = LabDirectory(check) != NULL ? Prefix(check) : NULL;
    text[0] = '\0';
    if (prefix != NULL) {
        const int32_t result = Execute("%s/bin/sh -c 'readlink /proc/self/%s > %s'", prefix, link, LabFile("link"));
        if (GetFile(LabFile("link"), text, sizeof(text)) <= 0) {
            Broken(check, "a command behind the prefix \"%s\" writes nothing; its result is %d", prefix, result);
        }
        text[strcspn(text, "\n")] = '\0';
    }
    return text;
}

void CheckNetnsPrefixEnters(Check *check)
{
    if (HasNoVpn(check)) {
        return;
    }
    const char *behind = LinkBehindPrefix(check, "ns/net");
    int saved = -1;
    char entered[kLabPathSize] = "";
    const VQ_ERR_T result = VQ_RtcNetNsSaveAndSwitch(g_settings.vpnId, &saved);
    const ssize_t length = readlink("/proc/thread-self/ns/net", entered, sizeof(entered) - 1);
    entered[length > 0 ? length : 0] = '\0';
    if (result < 0) {
        Broken(check, "the switch to VPN %u fails with %d", g_settings.vpnId, result);
    } else if (strcmp(behind, entered) != 0) {
        Broken(check, "the command runs in %s, the switch leads to %s", behind, entered);
    }
}

void CheckNetnsPrefixUnknown(Check *check)
{
    char prefix[kCommandRoom] = "";
    const VQ_ERR_T result = VQ_RtcGetNetNsExecCmdPrefix(kUnknownVpn, prefix, sizeof(prefix));
    if (result >= 0) {
        Broken(check, "result %d and \"%.200s\" for VPN %u", result, prefix, kUnknownVpn);
    }
}

static void CompareLink(Check *check, const char *link)
{
    char path[kLabPathSize];
    char own[kLabPathSize] = "";
    snprintf(path, sizeof(path), "/proc/self/%s", link);
    const ssize_t length = readlink(path, own, sizeof(own) - 1);
    const char *behind = LinkBehindPrefix(check, link);
    if (length > 0 && *behind != '\0' && strcmp(own, behind) != 0) {
        Broken(check, "a command behind the prefix has %s, the host has %s", behind, own);
    }
}

/* A mount namespace may differ, as long as the files do not. */
void CheckNetnsPrefixPid(Check *check)
{
    if (HasNoVpn(check)) {
        return;
    }
    CompareLink(check, "ns/pid");
    CompareLink(check, "root");
    const char *prefix = Prefix(check);
    if (prefix != NULL && PutFile(LabFile("here"), "x", 1) &&
        Execute("%s/bin/sh -c 'test -e %s'", prefix, LabFile("here")) < 0) {
        Broken(check, "a command behind the prefix does not find the file %s of the host", LabFile("here"));
    }
}

void CheckNetnsSwitch(Check *check)
{
    if (HasNoVpn(check)) {
        return;
    }
    const uint64_t before = OwnNetns();
    int saved = -1;
    const VQ_ERR_T result = VQ_RtcNetNsSaveAndSwitch(g_settings.vpnId, &saved);
    if (result < 0 || saved < 0) {
        Broken(check, "result %d and handle %d for VPN %u", result, saved, g_settings.vpnId);
    } else if (OwnNetns() == before) {
        Broken(check, "result %d, and the thread is in the namespace of the box", result);
    }
}

void CheckNetnsSwitchBack(Check *check)
{
    if (HasNoVpn(check)) {
        return;
    }
    const uint64_t before = OwnNetns();
    int saved = -1;
    if (VQ_RtcNetNsSaveAndSwitch(g_settings.vpnId, &saved) < 0) {
        Broken(check, "the switch to VPN %u fails", g_settings.vpnId);
        return;
    }
    const VQ_ERR_T result = VQ_RtcNetNsSwitchToDefault(&saved);
    if (result < 0 || OwnNetns() != before || saved != -1) {
        Broken(check, "result %d, handle %d, and the thread is %s", result, saved,
               OwnNetns() == before ? "back" : "not back");
    }
}

void CheckNetnsSwitchHandles(Check *check)
{
    int before = 0;
    for (int round = 0; !HasNoVpn(check) && round < kSwitches; ++round) {
        int saved = -1;
        if (VQ_RtcNetNsSaveAndSwitch(g_settings.vpnId, &saved) < 0 || VQ_RtcNetNsSwitchToDefault(&saved) < 0) {
            Broken(check, "switch or way back fails");
            return;
        }
        /* What is kept from the first time on is not lost. */
        before = round == 0 ? CountDescriptors() : before;
    }
    if (CountDescriptors() > before && g_settings.vpnId != 0) {
        Broken(check, "%d more descriptors after %d switches", CountDescriptors() - before, kSwitches - 1);
    }
}

void CheckNetnsSwitchUnknown(Check *check)
{
    const uint64_t before = OwnNetns();
    int saved = -77;
    const VQ_ERR_T result = VQ_RtcNetNsSaveAndSwitch(kUnknownVpn, &saved);
    if (result >= 0) {
        Broken(check, "result %d for VPN %u", result, kUnknownVpn);
    } else if (saved != -77) {
        Broken(check, "result %d, and the handle became %d", result, saved);
    } else if (OwnNetns() != before) {
        Broken(check, "result %d, and the thread is in another namespace", result);
    }
}

void CheckNetnsBox(Check *check)
{
    const uint64_t before = OwnNetns();
    int saved = -1;
    const VQ_ERR_T result = VQ_RtcNetNsSaveAndSwitch(0, &saved);
    if (result < 0 || OwnNetns() != before) {
        Broken(check, "result %d for VPN 0, and the thread is in %s namespace", result,
               OwnNetns() == before ? "the same" : "another");
    } else if (saved >= 0 && (VQ_RtcNetNsSwitchToDefault(&saved) < 0 || OwnNetns() != before)) {
        Broken(check, "the way back from VPN 0 fails");
    }
}

typedef VQ_LIST_HEAD *(*GetList)(uint32_t *count, uint32_t vpnId);

/* The number of the nodes; -1, with the reason recorded, if the list cannot be walked. */
static int WalkList(Check *check, const VQ_LIST_HEAD *list)
{
    int count = 0;
    for (const VQ_LIST_HEAD *link = list->next; link != list; link = link->next) {
        if (link == NULL || link->prev == NULL || link->prev->next != link || ++count > kNodesMax) {
            Broken(check, "node %d is not linked both ways, or the list has no end", count);
            return -1;
        }
    }
    if (list->prev == NULL || list->prev->next != list) {
        Broken(check, "the head does not lead to the last node");
        return -1;
    }
    return count;
}

static void CheckList(Check *check, GetList get, bool comparesCount)
{
    uint32_t count = 77777;
    VQ_LIST_HEAD *list = get(&count, g_settings.vpnId);
    if (count == 77777) {
        Broken(check, "the count is not stored");
    } else if (list == NULL && count != 0) {
        Broken(check, "the list is null, and the count is %u", count);
    } else if (list != NULL) {
        const int nodes = WalkList(check, list);
        if (comparesCount && nodes >= 0 && (uint32_t)nodes != count) {
            Broken(check, "%d nodes, and the count is %u", nodes, count);
        }
        VQ_RtcNetioNodeListRelease(list);
    }
}

void CheckNetioCount(Check *check)
{
    CheckList(check, VQ_RtcNetioLanGetAllByVpnId, true);
}

void CheckNetioLinks(Check *check)
{
    CheckList(check, VQ_RtcNetioLanGetAllByVpnId, false);
}

void CheckNetioWans(Check *check)
{
    CheckList(check, VQ_RtcNetioWanGetAllByVpnId, true);
}

static void CheckLanName(Check *check, const char *name)
{
    if (memchr(name, '\0', VQ_IF_NAME_SIZE) == NULL || *name == '\0') {
        Broken(check, "a name of %s", *name == '\0' ? "0 characters" : "16 characters without a terminator");
    } else if (if_nametoindex(name) == 0) {
        Broken(check, "VPN %u has no interface %s", g_settings.vpnId, name);
    }
}

void CheckNetioLanNames(Check *check)
{
    uint32_t count = 0;
    const VQ_LIST_HEAD *list = VQ_RtcNetioLanGetAllByVpnId(&count, g_settings.vpnId);
    if (list == NULL || count == 0) {
        Skipped(check, "VPN %u has no LAN interface", g_settings.vpnId);
        return;
    }
    int saved = -1;
    if (g_settings.vpnId != 0 && VQ_RtcNetNsSaveAndSwitch(g_settings.vpnId, &saved) < 0) {
        Broken(check, "the switch to VPN %u fails", g_settings.vpnId);
        return;
    }
    for (const VQ_LIST_HEAD *link = list->next; WalkList(check, list) >= 0 && link != list; link = link->next) {
        CheckLanName(check, ((const VQ_RTCLanListNode *)(const void *)link)->LanConf.PhyIfName);
    }
}

static void CheckUnknown(Check *check, GetList get, const char *kind)
{
    uint32_t count = 0;
    VQ_LIST_HEAD *list = get(&count, kUnknownVpn);
    if (list != NULL && count != 0) {
        Broken(check, "%u %s interfaces for VPN %u", count, kind, kUnknownVpn);
    }
    if (list != NULL) {
        VQ_RtcNetioNodeListRelease(list);
    }
}

void CheckNetioUnknown(Check *check)
{
    CheckUnknown(check, VQ_RtcNetioLanGetAllByVpnId, "LAN");
    CheckUnknown(check, VQ_RtcNetioWanGetAllByVpnId, "WAN");
}

void CheckNetioIndependent(Check *check)
{
    uint32_t count = 0;
    VQ_LIST_HEAD *first = VQ_RtcNetioLanGetAllByVpnId(&count, g_settings.vpnId);
    VQ_LIST_HEAD *second = VQ_RtcNetioLanGetAllByVpnId(&count, g_settings.vpnId);
    if (first == NULL || second == NULL || count == 0) {
        Skipped(check, "VPN %u has no LAN interface", g_settings.vpnId);
        return;
    }
    char before[VQ_IF_NAME_SIZE];
    const char *name = ((const VQ_RTCLanListNode *)(const void *)second->next)->LanConf.PhyIfName;
    memcpy(before, name, sizeof(before));
    VQ_RtcNetioNodeListRelease(first);
    if (first == second || memcmp(before, name, sizeof(before)) != 0 || WalkList(check, second) != (int)count) {
        Broken(check, "the second list changed when the first one was released");
    }
}

void CheckNetioRelease(Check *check)
{
    long before = 0;
    for (int round = 0; round < kLists; ++round) {
        uint32_t count = 0;
        VQ_LIST_HEAD *list = VQ_RtcNetioLanGetAllByVpnId(&count, g_settings.vpnId);
        if (list == NULL) {
            Skipped(check, "VPN %u has no LAN interface", g_settings.vpnId);
            return;
        }
        VQ_RtcNetioNodeListRelease(list);
        before = round == kLists / 2 ? WrittenKiB() : before;
    }
    if (WrittenKiB() - before >= kGrowthKiB) {
        Broken(check, "%ld KiB more after %d lists", WrittenKiB() - before, kLists / 2);
    }
}
