#include "tracer.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

/* As in linux/ptrace.h, which cannot be included beside sys/ptrace.h. */
enum { kGetSyscallInfo = 0x420E, kSyscallEntry = 1, kSyscallExit = 2 };
typedef struct {
    uint8_t op;
    uint8_t pad[3];
    uint32_t arch;
    uint64_t instructionPointer;
    uint64_t stackPointer;
    union {
        struct {
            uint64_t number;
            uint64_t arguments[6];
        } entry;
        struct {
            int64_t result;
            uint8_t isError;
        } exit;
    };
} SyscallInfo;

/* Reads a text in the memory of the process. */
static void ReadText(pid_t pid, uint64_t address, char *text, size_t size)
{
    size_t length = 0;
    while (length < size - 1) {
        struct iovec local = {text + length, 1};
        struct iovec remote = {(void *)(uintptr_t)(address + length), 1};
        if (process_vm_readv(pid, &local, 1, &remote, 1, 0) != 1 || text[length] == '\0') {
            break;
        }
        ++length;
    }
    text[length] = '\0';
}

static void ReadDescriptor(pid_t pid, uint64_t descriptor, FileCall *call)
{
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/fd/%d", (int)pid, (int)descriptor);
    const ssize_t length = readlink(path, call->path, sizeof(call->path) - 1);
    call->path[length > 0 ? length : 0] = '\0';
    char info[512] = "";
    unsigned flags = 0;
    snprintf(path, sizeof(path), "/proc/%d/fdinfo/%d", (int)pid, (int)descriptor);
    const char *line = GetFile(path, info, sizeof(info)) > 0 ? strstr(info, "flags:") : NULL;
    call->isSynchronous = line != NULL && sscanf(line, "flags: %o", &flags) == 1 && (flags & O_DSYNC) != 0;
}

static void ReadRename(pid_t pid, const SyscallInfo *info, int oldName, FileCall *call)
{
    const int newName = oldName == 0 ? 1 : 3;
    call->kind = kCallRename;
    ReadText(pid, info->entry.arguments[oldName], call->path, sizeof(call->path));
    ReadText(pid, info->entry.arguments[newName], call->target, sizeof(call->target));
}

/* Fills `call`; false for a call that does not matter. */
static bool Describe(pid_t pid, const SyscallInfo *info, FileCall *call)
{
    memset(call, 0, sizeof(*call));
    switch (info->entry.number) {
#ifdef SYS_rename
    case SYS_rename:
        ReadRename(pid, info, 0, call);
        return true;
#endif
#ifdef SYS_renameat
    case SYS_renameat:
#endif
    case SYS_renameat2:
        ReadRename(pid, info, 1, call);
        return true;
    case SYS_write:
    case SYS_writev:
    case SYS_pwrite64:
    case SYS_pwritev:
        call->kind = kCallWrite;
        ReadDescriptor(pid, info->entry.arguments[0], call);
        return true;
    case SYS_sync:
        call->kind = kCallSync;
        strcpy(call->path, "*");
        return true;
    case SYS_msync:
        call->kind = kCallSync;
        strcpy(call->path, "*");
        return true;
    case SYS_fsync:
    case SYS_fdatasync:
    case SYS_syncfs:
        call->kind = kCallSync;
        ReadDescriptor(pid, info->entry.arguments[0], call);
        if (info->entry.number == SYS_syncfs) {
            strcpy(call->path, "*");
        }
        return true;
    default:
        return false;
    }
}

/* The calls of the process until it ends; false if they cannot be read. */
static bool Follow(pid_t pid, FileCalls *calls)
{
    FileCall current;
    bool isWanted = false;
    int status = 0;
    while (waitpid(pid, &status, __WALL) == pid && WIFSTOPPED(status)) {
        long signal = WSTOPSIG(status);
        SyscallInfo info;
        memset(&info, 0, sizeof(info));
        if (signal == (SIGTRAP | 0x80)) {
            signal = 0;
            if (ptrace((int)kGetSyscallInfo, pid, (void *)sizeof(info), &info) <= 0) {
                kill(pid, SIGKILL);
                waitpid(pid, NULL, 0);
                return false;
            }
            if (info.op == kSyscallEntry) {
                isWanted = Describe(pid, &info, &current);
            } else if (info.op == kSyscallExit && isWanted && info.exit.isError == 0 && calls->count < kCallsMax) {
                calls->calls[calls->count++] = current;
            }
        }
        ptrace(PTRACE_SYSCALL, pid, NULL, (void *)(signal == SIGSTOP || signal == SIGTRAP ? 0L : signal));
    }
    calls->result = WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS ? 0 : -1;
    return true;
}

const FileCalls *ObserveCalls(Check *check, int (*work)(void))
{
    FileCalls *calls = mmap(NULL, sizeof(*calls), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const pid_t pid = calls == MAP_FAILED ? -1 : fork();
    if (pid == 0) {
        if (ptrace(PTRACE_TRACEME, 0, NULL, NULL) != 0) {
            _exit(EXIT_FAILURE);
        }
        raise(SIGSTOP);
        _exit(work() >= 0 ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status) ||
        ptrace((int)PTRACE_SETOPTIONS, pid, NULL, (void *)(PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL)) != 0 ||
        ptrace(PTRACE_SYSCALL, pid, NULL, NULL) != 0 || !Follow(pid, calls)) {
        Skipped(check, "system calls cannot be observed here");
        return NULL;
    }
    return calls;
}
