/* The network namespaces of the VPNs. That of VPN 0, the box, is where the thread is when the module is called. */
#include <sched.h>

#include "host.h"

VQ_ERR_T VQ_RtcGetNetNsExecCmdPrefix(uint32_t vpnId, char *buffer, size_t size)
{
    const Vpn *vpn = FindVpn(vpnId);
    return vpn == NULL ? -ENOENT : (VQ_ERR_T)VQ_SNPrintf(buffer, size, "nsenter --net=%s ", vpn->netns);
}

VQ_ERR_T VQ_RtcNetNsSaveAndSwitch(uint32_t vpnId, int *savedNs)
{
    const Vpn *vpn = FindVpn(vpnId);
    const int current = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int target = open(vpn != NULL ? vpn->netns : "", O_RDONLY | O_CLOEXEC);
    const VQ_ERR_T result = current >= 0 && target >= 0 && setns(target, CLONE_NEWNET) == 0 ? 0 : -errno;
    close(target);
    if (result < 0) {
        close(current);
    } else {
        *savedNs = current;
    }
    return result;
}

VQ_ERR_T VQ_RtcNetNsSwitchToDefault(int *savedNs)
{
    const VQ_ERR_T result = setns(*savedNs, CLONE_NEWNET) != 0 ? -errno : 0;
    close(*savedNs);
    *savedNs = -1;
    return result;
}
