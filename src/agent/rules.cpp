// Data-plane rules: this agent installs none, so there is never one to remove. Customer ids come from the
// configuration.
#include "vqRule.h"

#include <cerrno>

#include "config.h"
#include "log.h"

using namespace kavel::agent;

extern "C" {

VQ_ERR_T VQ_RtcRuleConfAdd(VQ_CONF_RULE *Rule, uint16_t Op, BOOL /*Flag1*/, BOOL /*Flag2*/)
{
    if (Rule == nullptr) {
        return -EINVAL;
    }
    Log(LogLevel::kDebug, "vpn %u: rule %u of zone %u (operation %u) is not installed", Rule->VpnId, Rule->Id,
        unsigned{Rule->Zone}, unsigned{Op});
    return 0;
}

VQ_ERR_T VQ_RtcRuleConfDel(uint8_t Zone, uint32_t RuleId, uint32_t /*CustomerId*/, uint16_t Op, BOOL /*Flag*/)
{
    Log(LogLevel::kDebug, "rule %u of zone %u (operation %u) is not there to be removed", RuleId, unsigned{Zone},
        unsigned{Op});
    return 0;
}

uint32_t VQ_PlatformGetCustomerId(void)
{
    return ActiveConfig().customer;
}

VQ_ERR_T VQ_GetCustomerIdByVpnId(uint32_t VpnId, uint32_t *CustomerId)
{
    if (CustomerId == nullptr) {
        return -EINVAL;
    }
    if (VpnId == 0) {
        *CustomerId = ActiveConfig().customer;
        return 0;
    }
    const Vpn *vpn = ActiveConfig().Find(VpnId);
    if (vpn == nullptr || !vpn->customer) {
        return -ENOENT;
    }
    *CustomerId = *vpn->customer;
    return 0;
}
}
