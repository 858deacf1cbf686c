/* The network namespaces of the VPNs. The box's own, of VPN 0, is that in which this program started. */
#include <sched.h>

#include "host.h"

/* The module writes its command behind the prefix, so it needs the length. */
VQ_ERR_T VQ_RtcGetNetNsExecCmdPrefix(uint32_t vpnId, char *buffer, size_t size)
{
    const Vpn *vpn = FindVpn(vpnId);
    return vpn == NULL ? -ENOENT : (VQ_ERR_T)VQ_SNPrintf(buffer, size, "nsenter --net=%s ", vpn->netns);
}

VQ_ERR_T VQ_RtcNetNsSaveAndSwitch(uint32_t vpnId, int *savedNs)
{
    const Vpn *vpn = FindVpn(vpnId);
    const int current = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int target = vpn != NULL ? open(vpn->netns, O_RDONLY | O_CLOEXEC) : -1;
    const bool isEntered = current >= 0 && target >= 0 && setns(target, CLONE_NEWNET) == 0;
    const VQ_ERR_T result = isEntered ? 0 : vpn == NULL ? -ENOENT : -errno;
    close(target);
    if (isEntered) {
        *savedNs = current;
    } else {
        close(current);
    }
    return result;
}

VQ_ERR_T VQ_RtcNetNsSwitchToDefault(int *savedNs)
{
    if (setns(*savedNs, CLONE_NEWNET) != 0) {
        return -errno;
    }
    close(*savedNs);
    *savedNs = -1;
    return 0;
}
