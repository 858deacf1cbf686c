/* Files. dnsmasq reads them again as an unprivileged user, so they are readable whatever the umask is. */
#include <sys/stat.h>

#include "host.h"

/* The path has the old bytes or the new ones, also after a power cut. dnsmasq skips names that begin with a dot. */
int32_t VQ_WriteSyncWithFilePath(const char *path, const char *text, size_t length)
{
    char folder[kTextSize];
    char temporary[kTextSize];
    const char *name = strrchr(path, '/') + 1;
    VQ_SNPrintf(folder, sizeof(folder), "%.*s", (int)(name - path), path);
    VQ_SNPrintf(temporary, sizeof(temporary), "%s.%s.XXXXXX", folder, name);
    const int directory = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int file = directory >= 0 ? mkostemp(temporary, O_CLOEXEC) : -1;
    errno = file >= 0 ? ENOSPC : errno; /* of a write that is cut short */
    const bool isGood = file >= 0 && write(file, text, length) == (ssize_t)length && fchmod(file, 0644) == 0 &&
                        fsync(file) == 0 && rename(temporary, path) == 0 && fsync(directory) == 0;
    const int result = isGood ? 0 : -errno;
    if (file >= 0 && !isGood) {
        unlink(temporary);
    }
    close(file);
    close(directory);
    return result;
}

int32_t VQ_WriteWithFilePath(const char *path, const char *text, size_t length)
{
    return VQ_WriteSyncWithFilePath(path, text, length);
}

VQ_ERR_T VQ_CreateFilePath(const char *path)
{
    return access(path, F_OK) == 0 ? 0 : VQ_WriteSyncWithFilePath(path, NULL, 0);
}

VQ_ERR_T VQ_RemoveDirRecursion(char *path)
{
    return access(path, F_OK) != 0 ? -errno : RunInVpn(0, "rm -r '%s'", path);
}
