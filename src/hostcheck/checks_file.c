/* The promises of vqFile.h, apart from the removal of directories. */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "checks.h"
#include "lab.h"
#include "tracer.h"
#include "vqFile.h"

enum { kLargeSize = 300000, kSizeLimit = 4096, kRounds = 50 };

typedef int32_t (*WriteFunction)(const char *path, const char *text, size_t length);

static char s_large[kLargeSize];

static bool FileHas(const char *path, const char *bytes, size_t length)
{
    static char content[kLargeSize + 2];
    const ssize_t count = GetFile(path, content, sizeof(content));
    return count == (ssize_t)length && memcmp(content, bytes, length) == 0;
}

static void CheckContent(Check *check, WriteFunction writeText)
{
    if (LabDirectory(check) == NULL) {
        return;
    }
    memset(s_large, 'x', sizeof(s_large));
    s_large[kLargeSize - 1] = '\n';
    const struct {
        const char *what;
        const char *bytes;
        size_t length;
    } cases[] = {{"a new file of 300,000 bytes", s_large, kLargeSize},
                 {"6 bytes in place of 300,000", "short\n", 6},
                 {"7 bytes with a zero among them", "one\0two", 7},
                 {"5 bytes of a longer text", "three and more", 5}};
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        const int32_t result = writeText(LabFile("hosts"), cases[i].bytes, cases[i].length);
        if (result < 0 || !FileHas(LabFile("hosts"), cases[i].bytes, cases[i].length)) {
            Broken(check, "%s: result %d, and the file holds %s", cases[i].what, result,
                   result < 0 ? "something else" : "other bytes");
        }
    }
}

void CheckFileSync(Check *check)
{
    CheckContent(check, VQ_WriteSyncWithFilePath);
}

void CheckFileWrite(Check *check)
{
    CheckContent(check, VQ_WriteWithFilePath);
}

void CheckFileSyncEmpty(Check *check)
{
    if (LabDirectory(check) == NULL) {
        return;
    }
    const int32_t created = VQ_WriteSyncWithFilePath(LabFile("new"), NULL, 0);
    if (created < 0 || !FileHas(LabFile("new"), "", 0)) {
        Broken(check, "result %d, and there is %s", created, FileExists(LabFile("new")) ? "another file" : "no file");
    }
    PutFile(LabFile("old"), "text\n", 5);
    const int32_t emptied = VQ_WriteSyncWithFilePath(LabFile("old"), NULL, 0);
    if (emptied < 0 || !FileHas(LabFile("old"), "", 0)) {
        Broken(check, "result %d, and the file that existed is not empty", emptied);
    }
}

/* Who has the old file open sees whether its bytes change. */
void CheckFileSyncAtomic(Check *check)
{
    if (LabDirectory(check) == NULL || !PutFile(LabFile("hosts"), "old bytes\n", 10)) {
        return;
    }
    const int old = open(LabFile("hosts"), O_RDONLY | O_CLOEXEC);
    const int32_t result = VQ_WriteSyncWithFilePath(LabFile("hosts"), "new\n", 4);
    char bytes[32] = "";
    const ssize_t count = read(old, bytes, sizeof(bytes) - 1);
    if (result < 0 || !FileHas(LabFile("hosts"), "new\n", 4)) {
        Broken(check, "the file cannot be written: result %d", result);
    } else if (count != 10 || memcmp(bytes, "old bytes\n", 10) != 0) {
        Broken(check, "the file is written in place: who has it open reads \"%.*s\"", (int)strcspn(bytes, "\n"), bytes);
    }
}

static int WriteHosts(void)
{
    return VQ_WriteSyncWithFilePath(LabFile("hosts"), s_large, kLargeSize);
}

/* Whether a call ends in the name of a file in the lab, or, with an empty name, in the directory itself. */
static bool LeadsTo(const char *path, const char *name)
{
    char wanted[kLabPathSize];
    snprintf(wanted, sizeof(wanted), "%s", LabFile(name));
    if (*name == '\0') {
        wanted[strlen(wanted) - 1] = '\0';
    }
    const char *end = strrchr(wanted, '/');
    return strcmp(path, wanted) == 0 || (*name != '\0' && end != NULL && strcmp(path, end + 1) == 0);
}

static bool IsInLab(const char *path)
{
    const char *directory = LabFile("");
    return strncmp(path, directory, strlen(directory)) == 0;
}

/* The calls of one replacement, and which of them renames the new file into its place. */
static const FileCalls *ObserveReplacement(Check *check, int *renamed)
{
    const FileCalls *calls = NULL;
    *renamed = -1;
    memset(s_large, 'x', sizeof(s_large));
    if (LabDirectory(check) != NULL && PutFile(LabFile("hosts"), "old\n", 4)) {
        calls = ObserveCalls(check, WriteHosts);
    }
    for (int i = 0; calls != NULL && i < calls->count; ++i) {
        if (calls->calls[i].kind == kCallRename && LeadsTo(calls->calls[i].target, "hosts")) {
            *renamed = i;
        }
    }
    if (calls != NULL && *renamed < 0) {
        Broken(check, calls->result < 0 ? "the file cannot be written" : "no file is renamed into its place");
        return NULL;
    }
    return calls;
}

void CheckFileSyncFlushed(Check *check)
{
    int renamed = -1;
    const FileCalls *calls = ObserveReplacement(check, &renamed);
    bool isUnsynchronised = false;
    bool isAnyWritten = false;
    for (int i = 0; calls != NULL && i < renamed; ++i) {
        const FileCall *call = &calls->calls[i];
        if (call->kind == kCallWrite && IsInLab(call->path)) {
            isAnyWritten = true;
            isUnsynchronised = !call->isSynchronous;
        } else if (call->kind == kCallSync && (IsInLab(call->path) || strcmp(call->path, "*") == 0)) {
            isUnsynchronised = false;
        }
    }
    if (calls != NULL && (isUnsynchronised || !isAnyWritten)) {
        Broken(check, isAnyWritten ? "write, rename, and no fsync between them" : "a rename before any write");
    }
}

void CheckFileSyncDirectory(Check *check)
{
    int renamed = -1;
    const FileCalls *calls = ObserveReplacement(check, &renamed);
    bool isSynchronised = false;
    for (int i = renamed + 1; calls != NULL && i < calls->count; ++i) {
        const FileCall *call = &calls->calls[i];
        isSynchronised |= call->kind == kCallSync && (LeadsTo(call->path, "") || strcmp(call->path, "*") == 0);
    }
    if (calls != NULL && !isSynchronised) {
        Broken(check, "no fsync of the directory after the rename");
    }
}

static void CheckReadable(Check *check, const char *path, int32_t result)
{
    struct stat info;
    if (result < 0 || stat(path, &info) != 0) {
        Broken(check, "the file cannot be written: result %d", result);
    } else if ((info.st_mode & 0444U) != 0444U) {
        Broken(check, "with umask 077 the file has mode %04o", info.st_mode & 07777U);
    }
}

static void CheckWriterReadable(Check *check, WriteFunction writeText)
{
    umask(077);
    if (LabDirectory(check) != NULL) {
        CheckReadable(check, LabFile("new"), writeText(LabFile("new"), "text\n", 5));
        umask(022);
        PutFile(LabFile("old"), "old\n", 4);
        umask(077);
        CheckReadable(check, LabFile("old"), writeText(LabFile("old"), "text\n", 5));
    }
}

void CheckFileSyncReadable(Check *check)
{
    CheckWriterReadable(check, VQ_WriteSyncWithFilePath);
}

void CheckFileWriteReadable(Check *check)
{
    CheckWriterReadable(check, VQ_WriteWithFilePath);
}

/* Writes more than a file may have: the first write is short, the next one fails. */
static int32_t WriteTooMuch(Check *check, WriteFunction writeText)
{
    const struct rlimit limit = {kSizeLimit, kSizeLimit};
    signal(SIGXFSZ, SIG_IGN);
    if (LabDirectory(check) == NULL || !PutFile(LabFile("hosts"), "old\n", 4) || setrlimit(RLIMIT_FSIZE, &limit) != 0) {
        Skipped(check, "the size of files cannot be limited");
        return -1;
    }
    memset(s_large, 'x', sizeof(s_large));
    return writeText(LabFile("hosts"), s_large, kLargeSize);
}

static void CheckError(Check *check, WriteFunction writeText)
{
    const int32_t result = WriteTooMuch(check, writeText);
    if (result >= 0) {
        struct stat info;
        stat(LabFile("hosts"), &info);
        Broken(check, "300,000 bytes where a file may have 4,096: result %d, and the file has %ld", result,
               (long)info.st_size);
    }
}

void CheckFileSyncError(Check *check)
{
    CheckError(check, VQ_WriteSyncWithFilePath);
}

void CheckFileWriteError(Check *check)
{
    CheckError(check, VQ_WriteWithFilePath);
}

void CheckFileSyncKept(Check *check)
{
    WriteTooMuch(check, VQ_WriteSyncWithFilePath);
    if (!FileHas(LabFile("hosts"), "old\n", 4)) {
        struct stat info;
        Broken(check, "after a write that failed the file has %ld bytes instead of its old 4",
               stat(LabFile("hosts"), &info) == 0 ? (long)info.st_size : -1L);
    }
}

static void CheckAlone(Check *check, const char *when)
{
    DIR *directory = opendir(LabFile(""));
    for (struct dirent *entry = directory != NULL ? readdir(directory) : NULL; entry != NULL;
         entry = readdir(directory)) {
        if (strcmp(entry->d_name, "hosts") != 0 && strcmp(entry->d_name, ".") != 0 &&
            strcmp(entry->d_name, "..") != 0) {
            Broken(check, "%s the directory has the file %s, too", when, entry->d_name);
        }
    }
}

void CheckFileSyncLeftovers(Check *check)
{
    if (LabDirectory(check) != NULL && VQ_WriteSyncWithFilePath(LabFile("hosts"), "text\n", 5) >= 0) {
        CheckAlone(check, "after a write");
    }
    WriteTooMuch(check, VQ_WriteSyncWithFilePath);
    CheckAlone(check, "after a write that failed");
}

void CheckFileSyncMissing(Check *check)
{
    if (LabDirectory(check) != NULL) {
        const int32_t result = VQ_WriteSyncWithFilePath(LabFile("nowhere/hosts"), "text\n", 5);
        if (result != -ENOENT) {
            Broken(check, "result %d", result);
        }
    }
}

void CheckFileCreate(Check *check)
{
    umask(077);
    if (LabDirectory(check) != NULL) {
        const VQ_ERR_T result = VQ_CreateFilePath(LabFile("hosts"));
        CheckReadable(check, LabFile("hosts"), result);
        if (!FileHas(LabFile("hosts"), "", 0)) {
            Broken(check, "result %d, and there is no empty file", result);
        }
    }
}

void CheckFileCreateKept(Check *check)
{
    if (LabDirectory(check) != NULL && PutFile(LabFile("hosts"), "text\n", 5)) {
        const VQ_ERR_T result = VQ_CreateFilePath(LabFile("hosts"));
        if (result < 0 || !FileHas(LabFile("hosts"), "text\n", 5)) {
            Broken(check, "result %d, and the file %s", result,
                   FileHas(LabFile("hosts"), "text\n", 5) ? "is as before" : "was changed");
        }
    }
}

void CheckFileCreateMissing(Check *check)
{
    if (LabDirectory(check) != NULL && VQ_CreateFilePath(LabFile("nowhere/hosts")) >= 0) {
        Broken(check, "success for a file in a directory that does not exist");
    }
}

static void UseFiles(void)
{
    VQ_WriteSyncWithFilePath(LabFile("hosts"), "text\n", 5);
    VQ_WriteSyncWithFilePath(LabFile("nowhere/hosts"), "text\n", 5);
    VQ_WriteWithFilePath(LabFile("hosts"), "text\n", 5);
    VQ_WriteWithFilePath(LabFile("nowhere/hosts"), "text\n", 5);
    VQ_CreateFilePath(LabFile("created"));
    VQ_CreateFilePath(LabFile("nowhere/hosts"));
}

void CheckFileDescriptors(Check *check)
{
    if (LabDirectory(check) == NULL) {
        return;
    }
    UseFiles(); /* what is kept from the first time on is not lost */
    const int before = CountDescriptors();
    for (int round = 0; round < kRounds; ++round) {
        UseFiles();
    }
    if (CountDescriptors() > before) {
        Broken(check, "%d more descriptors after %d uses of each function, half of them failures",
               CountDescriptors() - before, kRounds * 2);
    }
}
