#include "lab.h"

#include <dirent.h>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vqProcess.h"

enum { kPaths = 4, kAwaitMs = 5000, kPollMs = 5, kCommandSize = 512 };

static char s_base[64];
static char s_directory[128];

static void RemoveTree(const char *path)
{
    DIR *directory = opendir(path);
    if (directory != NULL) {
        for (struct dirent *entry = readdir(directory); entry != NULL; entry = readdir(directory)) {
            char below[kLabPathSize * 2];
            snprintf(below, sizeof(below), "%s/%s", path, entry->d_name);
            struct stat info;
            if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0 || lstat(below, &info) != 0) {
                continue;
            }
            if (S_ISDIR(info.st_mode)) {
                RemoveTree(below);
            } else {
                unlink(below);
            }
        }
        closedir(directory);
    }
    rmdir(path);
}

void OpenLab(void)
{
    const char *const places[] = {"/etc/kavel/dnsmasq/hostcheck.XXXXXX", "/tmp/hostcheck.XXXXXX"};
    for (size_t i = 0; i < sizeof(places) / sizeof(places[0]) && s_base[0] == '\0'; ++i) {
        strcpy(s_base, places[i]);
        if (mkdtemp(s_base) == NULL) {
            s_base[0] = '\0';
        }
    }
    chmod(s_base, 0755);
}

void CloseLab(void)
{
    if (s_base[0] != '\0') {
        RemoveTree(s_base);
    }
}

const char *LabDirectory(Check *check)
{
    snprintf(s_directory, sizeof(s_directory), "%s/check.XXXXXX", s_base);
    if (s_base[0] == '\0' || mkdtemp(s_directory) == NULL) {
        Skipped(check, "no directory for files can be made: %s", strerror(errno));
        return NULL;
    }
    chmod(s_directory, 0755);
    return s_directory;
}

const char *LabFile(const char *name)
{
    static char paths[kPaths][kLabPathSize];
    static int next;
    char *path = paths[next];
    next = (next + 1) % kPaths;
    snprintf(path, kLabPathSize, "%s/%s", s_directory, name);
    return path;
}

int CountDescriptors(void)
{
    DIR *directory = opendir("/proc/self/fd");
    int count = 0;
    while (directory != NULL && readdir(directory) != NULL) {
        ++count;
    }
    if (directory != NULL) {
        closedir(directory);
    }
    return count;
}

int32_t Execute(const char *format, ...)
{
    char command[kCommandSize];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(command, sizeof(command), format, arguments);
    va_end(arguments);
    return VQ_CmdExec(command);
}

pid_t AwaitPidIn(const char *path)
{
    const int64_t end = NowInMs() + kAwaitMs;
    do {
        char text[32];
        const ssize_t length = GetFile(path, text, sizeof(text));
        if (length > 1 && text[length - 1] == '\n') {
            return (pid_t)atoi(text);
        }
        SleepMs(kPollMs);
    } while (NowInMs() < end);
    return 0;
}

long MappedKiB(void)
{
    char text[128];
    long pages = 0;
    return GetFile("/proc/self/statm", text, sizeof(text)) > 0 && sscanf(text, "%ld", &pages) == 1
               ? pages * (sysconf(_SC_PAGESIZE) / 1024)
               : 0;
}

/* The size of the resident memory is not exact. */
long WrittenKiB(void)
{
    char text[2048];
    long size = 0;
    const char *line =
        GetFile("/proc/self/smaps_rollup", text, sizeof(text)) > 0 ? strstr(text, "Private_Dirty:") : NULL;
    return line != NULL && sscanf(line, "Private_Dirty: %ld", &size) == 1 ? size : 0;
}
