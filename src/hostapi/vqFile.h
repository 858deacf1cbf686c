/* Files and directories. Every function returns 0 or more on success and a negated errno value on failure. Paths and
 * texts stay the property of the caller. */
#ifndef VQ_FILE_H
#define VQ_FILE_H

#include "vqPlatform.h"

VQ_EXTERN_C_BEGIN

/* Replaces the file at `Path` with the `Length` bytes at `Text`. The replacement is atomic and durable when the
 * function returns: after a crash, the path holds either the old bytes or the new ones. With a null `Text` and length 0
 * the file exists afterwards and is empty. dnsmasq reads the file as an unprivileged user, so it must be readable by
 * everyone. */
int32_t VQ_WriteSyncWithFilePath(const char *Path, const char *Text, size_t Length);

/* Creates or truncates the file at `Path` and writes the `Length` bytes at `Text`. */
int32_t VQ_WriteWithFilePath(const char *Path, const char *Text, size_t Length);

/* Creates an empty file at `Path` if there is none. An existing file is not changed. */
VQ_ERR_T VQ_CreateFilePath(const char *Path);

/* Removes the directory `Path` and everything below it. -2: the directory does not exist. */
VQ_ERR_T VQ_RemoveDirRecursion(char *Path);

VQ_EXTERN_C_END

#endif
