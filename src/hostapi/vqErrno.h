/* The error codes that the DNS module produces itself or compares with, under the host's names. Each is a negated errno
 * value and can be returned as a VQ_ERR_T. */
#ifndef VQ_ERRNO_H
#define VQ_ERRNO_H

#include <errno.h>

#define VQ_ERR_OK 0
#define VQ_ERR_NOT_FOUND (-ENOENT)      /*  -2 */
#define VQ_ERR_NO_PROCESS (-ESRCH)      /*  -3 */
#define VQ_ERR_NO_MEMORY (-ENOMEM)      /* -12 */
#define VQ_ERR_ALREADY_EXISTS (-EEXIST) /* -17 */
#define VQ_ERR_INVALID (-EINVAL)        /* -22 */
#define VQ_ERR_OVERFLOW (-EOVERFLOW)    /* -75 */

#endif
