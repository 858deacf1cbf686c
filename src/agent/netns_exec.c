// netns-exec --net=FILE COMMAND [ARGUMENT...]: executes a command in the network namespace that FILE names.
//
// Every instance is started through it, so it is small and needs libc alone. Unlike `ip netns exec` it makes no mount
// namespace and mounts no /sys.
#define _GNU_SOURCE // NOLINT(bugprone-reserved-identifier): the C library's own name
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <unistd.h>

enum { kExitUsage = 2, kExitFailure = 126, kExitNotFound = 127 };

static void Say(const char *text)
{
    // Nobody is left to tell when the standard error is closed.
    (void)!write(STDERR_FILENO, text, strlen(text));
}

static int Fail(const char *subject, int status)
{
    const char *reason = strerror(errno);
    Say("netns-exec: ");
    Say(subject);
    Say(": ");
    Say(reason);
    Say("\n");
    return status;
}

int main(int argc, char **argv)
{
    static const char kOption[] = "--net=";
    const size_t optionLength = sizeof(kOption) - 1;
    if (argc < 3 || strncmp(argv[1], kOption, optionLength) != 0) {
        Say("usage: netns-exec --net=FILE COMMAND [ARGUMENT...]\n");
        return kExitUsage;
    }
    const char *file = argv[1] + optionLength;
    const int netns = open(file, O_RDONLY | O_CLOEXEC);
    if (netns < 0 || setns(netns, CLONE_NEWNET) != 0) {
        return Fail(file, kExitFailure);
    }
    execv(argv[2], argv + 2);
    return Fail(argv[2], errno == ENOENT ? kExitNotFound : kExitFailure);
}
