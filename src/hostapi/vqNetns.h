/* The network namespaces of the VPNs. A switch affects the calling thread only. /proc/net shows the namespace of the
 * main thread of the process, so code that reads /proc/net after a switch must run on the main thread. */
#ifndef VQ_NETNS_H
#define VQ_NETNS_H

#include "vqPlatform.h"

VQ_EXTERN_C_BEGIN

/* Writes the shell prefix that runs a command in the namespace of the VPN into `Buffer` of `Size` bytes. The prefix
 * ends in a blank. Returns its length without the terminator; `Size` or more means that it did not fit. Negative on
 * failure, for example -2 for an unknown VPN. */
VQ_ERR_T VQ_RtcGetNetNsExecCmdPrefix(uint32_t VpnId, char *Buffer, size_t Size);

/* Stores a handle of the current namespace in `SavedNs`, which is 0 or more, and moves the calling thread into the
 * namespace of the VPN. 0 or more on success. On failure the thread stays in its namespace and `SavedNs` is not
 * changed. The handle is released by VQ_RtcNetNsSwitchToDefault. */
VQ_ERR_T VQ_RtcNetNsSaveAndSwitch(uint32_t VpnId, int *SavedNs);

/* Moves the calling thread back into the namespace whose handle is in `SavedNs`, closes the handle and sets it to -1. 0
 * or more on success. */
VQ_ERR_T VQ_RtcNetNsSwitchToDefault(int *SavedNs);

VQ_EXTERN_C_END

#endif
