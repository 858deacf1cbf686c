/* The host under test as a process, and the commands that are run beside it. */
#ifndef HOSTCHECK_HOST_H
#define HOSTCHECK_HOST_H

#include <stdbool.h>
#include <sys/types.h>

typedef struct {
    const char *const *words; /* the command line; "%m" is replaced by the path of the library to load */
    const char *directory;    /* of the program's temporary files */
    pid_t pid;                /* 0: it does not run */
    int status;               /* of waitpid, when it has ended */
} Host;

/* Starts the host with the library. Its output goes to the standard error. False if that fails. */
bool StartHost(Host *host, const char *library);

/* Whether it still runs. */
bool IsHostRunning(Host *host);

/* Ends it: SIGTERM, and SIGKILL if it does not react within 10 s. */
void StopHost(Host *host);

/* How it has ended, for a message. */
const char *DescribeHostEnd(const Host *host);

/* Runs a shell command in which "%f" is replaced by `file`. Returns its exit status, -1 if a signal ended it. It is
 * killed after a minute. */
int RunCommand(const char *command, const char *file);

/* Replaces each `mark` in `text`; the result is the caller's. */
char *Replaced(const char *text, const char *mark, const char *by);

#endif
