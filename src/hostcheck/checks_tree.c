/* The removal of directories, and the box itself: what has to be there before the module can work. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "checks.h"
#include "imports.h"
#include "lab.h"
#include "vqFile.h"

enum { kNeededStack = 128 * 1024, kPageStep = 1024 };

static const char *const kBoxDirectory = "/etc/kavel/dnsmasq";

static void MakeDirectory(const char *name)
{
    mkdir(LabFile(name), 0755);
}

/* A directory with files in three floors, and beside it one with a similar name and one that a link leads to. */
static bool MakeTree(Check *check)
{
    if (LabDirectory(check) == NULL) {
        return false;
    }
    MakeDirectory("vpn_7");
    MakeDirectory("vpn_7/dnsmasq.d");
    MakeDirectory("vpn_7/dnsmasq.d/deep");
    MakeDirectory("vpn_77");
    MakeDirectory("outside");
    return PutFile(LabFile("vpn_7/hosts"), "x", 1) && PutFile(LabFile("vpn_7/dnsmasq.d/a.conf"), "x", 1) &&
           PutFile(LabFile("vpn_7/dnsmasq.d/deep/.hidden"), "x", 1) && PutFile(LabFile("vpn_77/hosts"), "x", 1) &&
           PutFile(LabFile("outside/kept"), "x", 1) && symlink(LabFile("outside"), LabFile("vpn_7/link")) == 0;
}

static VQ_ERR_T RemoveTree(void)
{
    char path[kLabPathSize];
    snprintf(path, sizeof(path), "%s", LabFile("vpn_7"));
    return VQ_RemoveDirRecursion(path);
}

void CheckFileRemove(Check *check)
{
    if (MakeTree(check)) {
        const VQ_ERR_T result = RemoveTree();
        if (result < 0 || FileExists(LabFile("vpn_7"))) {
            Broken(check, "result %d, and the directory %s", result,
                   FileExists(LabFile("vpn_7")) ? "exists" : "is gone");
        }
    }
}

void CheckFileRemoveOnly(Check *check)
{
    if (MakeTree(check)) {
        RemoveTree();
        if (!FileExists(LabFile("vpn_77/hosts"))) {
            Broken(check, "vpn_7 was removed, and vpn_77 with it");
        } else if (!FileExists(LabFile("outside/kept"))) {
            Broken(check, "what a link leads to was removed");
        }
    }
}

void CheckFileRemoveMissing(Check *check)
{
    if (LabDirectory(check) != NULL) {
        const VQ_ERR_T result = RemoveTree();
        if (result != -ENOENT) {
            Broken(check, "result %d", result);
        }
    }
}

void CheckPlatformNames(Check *check)
{
    char missing[kSeenSize] = "";
    for (size_t i = 0; i < kImportCount; ++i) {
        if (kImports[i].address == NULL) {
            const size_t length = strlen(missing);
            snprintf(missing + length, sizeof(missing) - length, " %s", kImports[i].name);
        }
    }
    if (*missing != '\0') {
        Broken(check, "the process lacks%s", missing);
    }
}

void CheckPlatformDnsmasq(Check *check)
{
    if (access("/usr/sbin/dnsmasq", X_OK) != 0) {
        Broken(check, "%s", strerror(errno));
    }
}

void CheckPlatformRunDirectory(Check *check)
{
    char path[] = "/var/run/hostcheck.XXXXXX";
    const int file = mkstemp(path);
    if (file < 0) {
        Broken(check, "a file in /var/run: %s", strerror(errno));
    } else {
        unlink(path);
    }
}

static bool IsDirectory(const char *path)
{
    struct stat info;
    return stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

void CheckPlatformBoxDirectory(Check *check)
{
    if (!IsDirectory(kBoxDirectory)) {
        Broken(check, "there is no %s", kBoxDirectory);
    } else if (!IsDirectory("/etc/kavel/dnsmasq/dnsmasq.d")) {
        Broken(check, "there is no %s/dnsmasq.d", kBoxDirectory);
    } else if (g_settings.isPop && !FileExists("/etc/kavel/dnsmasq/dnsmasq.conf")) {
        Broken(check, "there is no %s/dnsmasq.conf", kBoxDirectory);
    }
}

void CheckPlatformBoxReadable(Check *check)
{
    const char *const paths[] = {"/etc", "/etc/kavel", kBoxDirectory, "/etc/kavel/dnsmasq/dnsmasq.d"};
    for (size_t i = 0; i < sizeof(paths) / sizeof(paths[0]); ++i) {
        struct stat info;
        if (stat(paths[i], &info) == 0 && (info.st_mode & S_IXOTH) == 0) {
            Broken(check, "%s has mode %04o", paths[i], info.st_mode & 07777U);
        }
    }
}

/* A stack that is too small ends the process: the runner says so. */
void CheckPlatformStack(Check *check)
{
    volatile char bytes[kNeededStack];
    for (size_t i = sizeof(bytes); i >= kPageStep; i -= kPageStep) {
        bytes[i - 1] = 1;
    }
    (void)check;
}
