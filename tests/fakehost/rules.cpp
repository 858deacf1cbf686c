#include <cerrno>

#include "host.h"
#include "ruleTable.h"

namespace fakehost {

void RuleTable::Add(const VQ_CONF_RULE &Rule, uint16_t Op, BOOL Flag1, BOOL Flag2)
{
    m_Adds.push_back({Rule, Op, Flag1, Flag2});
    // An id is unique in its table and zone, so the rule of any previous customer is replaced.
    std::erase_if(m_InForce, [&](const auto &Each) {
        const auto &[Table, Zone, Id, Customer] = Each.first;
        return Table == TableOf(Op) && Zone == Rule.Zone && Id == Rule.Id;
    });
    m_InForce.insert_or_assign({TableOf(Op), Rule.Zone, Rule.Id, Rule.CustomerId}, Rule);
}

int RuleTable::Delete(uint8_t Zone, uint32_t RuleId, uint32_t CustomerId, uint16_t Op)
{
    return m_InForce.erase({TableOf(Op), Zone, RuleId, CustomerId}) == 1 ? 0 : -ENOENT;
}

} // namespace fakehost

using fakehost::EntryKind;
using fakehost::ErrnoKept;
using fakehost::Host;

VQ_ERR_T VQ_RtcRuleConfAdd(VQ_CONF_RULE *Rule, uint16_t Op, BOOL Flag1, BOOL Flag2)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    const std::optional<int> Error =
        Here.Enter(EntryKind::World, "VQ_RtcRuleConfAdd", Rule->Zone, Rule->Id, Rule->CustomerId, Op,
                   static_cast<uint32_t>(Flag1), static_cast<uint32_t>(Flag2));
    if (Error.has_value()) {
        return *Error;
    }
    if (!Here.Netns.Knows(Rule->VpnId)) {
        return -ENOENT;
    }
    Here.Rules.Add(*Rule, Op, Flag1, Flag2);
    return Here.Success("VQ_RtcRuleConfAdd");
}

VQ_ERR_T VQ_RtcRuleConfDel(uint8_t Zone, uint32_t RuleId, uint32_t CustomerId, uint16_t Op, BOOL Flag)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    const std::optional<int> Error =
        Here.Enter(EntryKind::World, "VQ_RtcRuleConfDel", Zone, RuleId, CustomerId, Op, static_cast<uint32_t>(Flag));
    if (Error.has_value()) {
        return *Error;
    }
    const int Result = Here.Rules.Delete(Zone, RuleId, CustomerId, Op);
    return Result < 0 ? Result : Here.Success("VQ_RtcRuleConfDel");
}

uint32_t VQ_PlatformGetCustomerId(void)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    Here.Note(EntryKind::World, "VQ_PlatformGetCustomerId");
    return Here.Rules.PlatformCustomer;
}

VQ_ERR_T VQ_GetCustomerIdByVpnId(uint32_t VpnId, uint32_t *CustomerId)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    const std::optional<int> Error = Here.Enter(EntryKind::World, "VQ_GetCustomerIdByVpnId", VpnId);
    if (Error.has_value()) {
        return *Error;
    }
    const auto Found = Here.Rules.CustomerOfVpn.find(VpnId);
    if (Found == Here.Rules.CustomerOfVpn.end()) {
        return -ENOENT;
    }
    *CustomerId = Found->second;
    return Here.Success("VQ_GetCustomerIdByVpnId");
}
