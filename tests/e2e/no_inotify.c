// Preloaded into an agent and its instances: the user has no inotify instance left, and no other test notices.
#include <errno.h>

int inotify_init1(int flags)
{
    (void)flags;
    errno = EMFILE;
    return -1;
}

int inotify_init(void)
{
    return inotify_init1(0);
}
