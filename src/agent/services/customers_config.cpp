// The customers' ids, from the configuration.
#include <cerrno>

#include "services/host.h"
#include "vqRule.h"

using namespace kavel::agent;

extern "C" {

uint32_t VQ_PlatformGetCustomerId(void)
{
    return Host::Current().config.customer;
}

VQ_ERR_T VQ_GetCustomerIdByVpnId(uint32_t vpnId, uint32_t *customerId)
{
    if (customerId == nullptr) {
        return -EINVAL;
    }
    const Vpn *vpn = Host::Current().config.Find(vpnId);
    if (vpn == nullptr || !vpn->customer) {
        return -ENOENT;
    }
    *customerId = *vpn->customer;
    return 0;
}
}
