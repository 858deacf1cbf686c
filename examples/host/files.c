/* Files. dnsmasq reads them again as an unprivileged user, so they are readable whatever the umask is. */
#include <ftw.h>
#include <libgen.h>
#include <sys/stat.h>

#include "host.h"

static int WriteAll(int file, const char *text, size_t length)
{
    for (ssize_t written = 0; length > 0; text += written, length -= (size_t)written) {
        written = write(file, text, length);
        if (written < 0) {
            return -errno;
        }
    }
    return fchmod(file, 0644) != 0 || fsync(file) != 0 ? -errno : 0;
}

/* A rename outlasts a power cut once its directory is on the disk. `path` is changed. */
static int SyncDirectoryOf(char *path)
{
    const int directory = open(dirname(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int result = directory < 0 || fsync(directory) != 0 ? -errno : 0;
    close(directory);
    return result;
}

/* The path always has the old bytes or the new ones. dnsmasq does not read a name that begins with a dot. */
int32_t VQ_WriteSyncWithFilePath(const char *path, const char *text, size_t length)
{
    char temporary[kTextSize];
    const int folder = (int)(strrchr(path, '/') + 1 - path);
    VQ_SNPrintf(temporary, sizeof(temporary), "%.*s.%s.XXXXXX", folder, path, path + folder);
    const int file = mkostemp(temporary, O_CLOEXEC);
    int result = file < 0 ? -errno : WriteAll(file, text, length);
    close(file);
    result = result == 0 && rename(temporary, path) != 0 ? -errno : result;
    if (result != 0) {
        unlink(temporary);
    }
    return result != 0 ? result : SyncDirectoryOf(temporary);
}

int32_t VQ_WriteWithFilePath(const char *path, const char *text, size_t length)
{
    return VQ_WriteSyncWithFilePath(path, text, length);
}

VQ_ERR_T VQ_CreateFilePath(const char *path)
{
    return access(path, F_OK) == 0 ? 0 : VQ_WriteSyncWithFilePath(path, NULL, 0);
}

static int RemoveEntry(const char *path, const struct stat *info, int type, struct FTW *position)
{
    (void)info, (void)type, (void)position;
    return remove(path);
}

VQ_ERR_T VQ_RemoveDirRecursion(char *path)
{
    return nftw(path, RemoveEntry, 16, FTW_DEPTH | FTW_PHYS) != 0 ? -errno : 0;
}
