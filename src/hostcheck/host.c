#include "host.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { kStopMs = 10000, kPollMs = 5, kCommandMs = 60000, kNotFound = 127 };

char *Replaced(const char *text, const char *mark, const char *by)
{
    size_t size = strlen(text) + 1;
    for (const char *found = strstr(text, mark); found != NULL; found = strstr(found + strlen(mark), mark)) {
        size += strlen(by);
    }
    char *result = malloc(size);
    char *end = result;
    while (result != NULL) {
        const char *found = strstr(text, mark);
        const size_t length = found != NULL ? (size_t)(found - text) : strlen(text);
        memcpy(end, text, length);
        end += length;
        if (found == NULL) {
            *end = '\0';
            break;
        }
        memcpy(end, by, strlen(by));
        end += strlen(by);
        text = found + strlen(mark);
    }
    return result;
}

/* What is read from the standard output of this program are results alone. */
static void BecomeCommand(char *const *words)
{
    const int nowhere = open("/dev/null", O_RDONLY);
    dup2(nowhere, STDIN_FILENO);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    if (nowhere > STDERR_FILENO) {
        close(nowhere);
    }
    execvp(words[0], words);
    fprintf(stderr, "vq-hostcheck: %s: %s\n", words[0], strerror(errno));
    _exit(kNotFound);
}

bool StartHost(Host *host, const char *library)
{
    enum { kWordsMax = 256 };
    char *words[kWordsMax + 1] = {NULL};
    for (int i = 0; i < kWordsMax && host->words[i] != NULL; ++i) {
        words[i] = Replaced(host->words[i], "%m", library);
    }
    host->status = 0;
    host->pid = fork();
    if (host->pid == 0) {
        BecomeCommand(words);
    }
    for (int i = 0; words[i] != NULL; ++i) {
        free(words[i]);
    }
    return host->pid > 0;
}

bool IsHostRunning(Host *host)
{
    if (host->pid > 0 && waitpid(host->pid, &host->status, WNOHANG) == host->pid) {
        host->pid = 0;
    }
    return host->pid > 0;
}

void StopHost(Host *host)
{
    const struct timespec pause = {0, kPollMs * 1000000L};
    if (host->pid > 0) {
        kill(host->pid, SIGTERM);
    }
    for (int waited = 0; IsHostRunning(host); waited += kPollMs) {
        if (waited >= kStopMs) {
            kill(host->pid, SIGKILL);
        }
        nanosleep(&pause, NULL);
    }
}

const char *DescribeHostEnd(const Host *host)
{
    static char text[64];
    if (WIFSIGNALED(host->status)) {
        snprintf(text, sizeof(text), "ended by signal %d", WTERMSIG(host->status));
    } else {
        snprintf(text, sizeof(text), "ended with status %d", WEXITSTATUS(host->status));
    }
    return text;
}

int RunCommand(const char *command, const char *file)
{
    char *line = Replaced(command, "%f", file);
    int status = -1;
    const pid_t pid = fork();
    if (pid == 0) {
        char *words[] = {(char *)"/bin/sh", (char *)"-c", line, NULL};
        setpgid(0, 0);
        BecomeCommand(words);
    }
    pid_t ended = pid;
    for (int waited = 0; pid > 0 && (ended = waitpid(pid, &status, WNOHANG)) == 0; waited += kPollMs) {
        if (waited >= kCommandMs) {
            kill(-pid, SIGKILL);
        }
        nanosleep(&(const struct timespec){0, kPollMs * 1000000L}, NULL);
    }
    free(line);
    return ended == pid && pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
