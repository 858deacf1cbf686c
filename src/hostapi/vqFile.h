/* Files and directories. Every operation returns a negated errno value on failure. */
#ifndef VQ_FILE_H
#define VQ_FILE_H

#include "vqPlatform.h"

VQ_EXTERN_C_BEGIN

/* Replaces the file at `Path` with `Length` bytes of `Text` and makes them durable before it returns: after a crash the
 * path holds the old bytes or the new ones. A null `Text` with length 0 leaves an existing, empty file. 0 or more on
 * success. */
int32_t VQ_WriteSyncWithFilePath(const char *Path, const char *Text, size_t Length);

/* Creates or truncates the file at `Path` and writes `Length` bytes of `Text`. 0 or more on success. */
int32_t VQ_WriteWithFilePath(const char *Path, const char *Text, size_t Length);

/* Creates an empty file at `Path` when there is none; leaves an existing one as it is. */
VQ_ERR_T VQ_CreateFilePath(const char *Path);

/* Removes the directory `Path` with everything below it; -2 when it does not exist. */
VQ_ERR_T VQ_RemoveDirRecursion(char *Path);

VQ_EXTERN_C_END

#endif
