/* Network namespaces of the VPNs. They belong to the calling thread, and /proc/net shows those of the process's main
 * thread: callers that look there after a switch must run on the main thread. */
#ifndef VQ_NETNS_H
#define VQ_NETNS_H

#include "vqPlatform.h"

VQ_EXTERN_C_BEGIN

/* Writes into `Buffer` of `Size` bytes the shell words that run a command inside the VPN's namespace, ending in a
 * blank, and returns their length; negative, for example -2 for an unknown VPN, on failure. */
VQ_ERR_T VQ_RtcGetNetNsExecCmdPrefix(uint32_t VpnId, char *Buffer, size_t Size);

/* Stores a handle of the current namespace in `SavedNs` and moves the calling thread into the VPN's. On failure the
 * thread stays where it is and `SavedNs` is untouched. */
VQ_ERR_T VQ_RtcNetNsSaveAndSwitch(uint32_t VpnId, int *SavedNs);

/* Moves the calling thread back into the namespace saved in `SavedNs`, closes the handle and sets it to -1. */
VQ_ERR_T VQ_RtcNetNsSwitchToDefault(int *SavedNs);

VQ_EXTERN_C_END

#endif
