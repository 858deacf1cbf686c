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

VQ_ERR_T VQ_GetCustomerIdByVpnId(uint32_t VpnId, uint32_t *CustomerId)
{
    if (CustomerId == nullptr) {
        return -EINVAL;
    }
    const Vpn *vpn = Host::Current().config.Find(VpnId);
    if (vpn == nullptr || !vpn->customer) {
        return -ENOENT;
    }
    *CustomerId = *vpn->customer;
    return 0;
}
}
