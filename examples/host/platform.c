/* The VPNs of the box, and whose they are. */
#include "host.h"

Vpn g_vpns[kVpnsMax] = {{.netns = "/proc/self/ns/net", .lan = "none", .wan = "none"}};
unsigned g_vpnCount = 1;

bool AddVpn(const char *text)
{
    Vpn vpn;
    const bool isGood = sscanf(text, "%u %127s %127s %127s %u %u", &vpn.id, vpn.netns, vpn.lan, vpn.wan, &vpn.sysRoute,
                               &vpn.customer) == 6 &&
                        (vpn.id == 0 || (FindVpn(vpn.id) == NULL && g_vpnCount < kVpnsMax));
    if (isGood) {
        g_vpns[vpn.id == 0 ? 0 : g_vpnCount++] = vpn;
    }
    return isGood;
}

const Vpn *FindVpn(uint32_t vpnId)
{
    const Vpn *vpn = g_vpns;
    while (vpn < g_vpns + g_vpnCount && vpn->id != vpnId) {
        ++vpn;
    }
    return vpn < g_vpns + g_vpnCount ? vpn : NULL;
}

uint32_t VQ_PlatformGetCustomerId(void)
{
    return g_vpns[0].customer;
}

VQ_ERR_T VQ_GetCustomerIdByVpnId(uint32_t vpnId, uint32_t *customerId)
{
    const Vpn *vpn = FindVpn(vpnId);
    const bool isKnown = vpn != NULL && vpn->customer != 0;
    *customerId = isKnown ? vpn->customer : *customerId;
    return isKnown ? 0 : -ENOENT;
}
