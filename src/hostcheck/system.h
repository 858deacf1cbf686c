/* Files, processes and time, for the library and for the program. */
#ifndef HOSTCHECK_SYSTEM_H
#define HOSTCHECK_SYSTEM_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

/* Writes a file; false if that fails. */
bool PutFile(const char *path, const void *bytes, size_t length);
/* Reads at most `size` - 1 bytes of a file and terminates them. Returns their number, -1 if it cannot be read. */
ssize_t GetFile(const char *path, char *buffer, size_t size);
bool FileExists(const char *path);

/* Inode of the network namespace of the calling thread; 0 if it cannot be read. */
uint64_t OwnNetns(void);

int64_t NowInMs(void);
void SleepMs(int milliseconds);

/* Whether there is a process with the id, and whether there is one that is not a zombie. */
bool Exists(pid_t pid);
bool IsRunning(pid_t pid);

#endif
