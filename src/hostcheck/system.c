#include "system.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

bool PutFile(const char *path, const void *bytes, size_t length)
{
    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const bool isWritten = file >= 0 && write(file, bytes, length) == (ssize_t)length;
    if (file >= 0) {
        close(file);
    }
    return isWritten;
}

ssize_t GetFile(const char *path, char *buffer, size_t size)
{
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return -1;
    }
    size_t length = 0;
    ssize_t count = 0;
    while (length < size - 1 && (count = read(file, buffer + length, size - 1 - length)) > 0) {
        length += (size_t)count;
    }
    close(file);
    buffer[length] = '\0';
    return count < 0 ? -1 : (ssize_t)length;
}

bool FileExists(const char *path)
{
    return access(path, F_OK) == 0;
}

uint64_t OwnNetns(void)
{
    struct stat info;
    return stat("/proc/thread-self/ns/net", &info) == 0 ? info.st_ino : 0;
}

int64_t NowInMs(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

void SleepMs(int milliseconds)
{
    const struct timespec time = {milliseconds / 1000, milliseconds % 1000 * 1000000L};
    nanosleep(&time, NULL);
}

bool Exists(pid_t pid)
{
    return kill(pid, 0) == 0 || errno != ESRCH;
}

bool IsRunning(pid_t pid)
{
    char path[64];
    char text[512];
    snprintf(path, sizeof(path), "/proc/%d/stat", (int)pid);
    if (GetFile(path, text, sizeof(text)) < 0) {
        return false;
    }
    const char *end = strrchr(text, ')');
    return end != NULL && strchr("ZXx", end[2]) == NULL;
}
