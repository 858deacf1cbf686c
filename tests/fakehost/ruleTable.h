// Data-plane rules and the customers that own them.
#ifndef FAKEHOST_RULE_TABLE_H
#define FAKEHOST_RULE_TABLE_H

#include <cstdint>
#include <map>
#include <tuple>
#include <vector>

#include "vqRule.h"

namespace fakehost {

class RuleTable {
  public:
    // An add, as the host received it.
    struct Added {
        VQ_CONF_RULE Rule;
        uint16_t Op;
        BOOL Flag1;
        BOOL Flag2;
    };

    uint32_t PlatformCustomer = 1;
    std::map<uint32_t, uint32_t> CustomerOfVpn;

    [[nodiscard]] const std::vector<Added> &Adds() const { return m_Adds; }
    // Installed rules by table, zone, id and customer.
    using Key = std::tuple<uint16_t, uint8_t, uint32_t, uint32_t>;
    [[nodiscard]] const std::map<Key, VQ_CONF_RULE> &InForce() const { return m_InForce; }

    // Installs a rule that has only its key.
    void Put(const Key &Where) { m_InForce.insert_or_assign(Where, VQ_CONF_RULE{}); }
    void Add(const VQ_CONF_RULE &Rule, uint16_t Op, BOOL Flag1, BOOL Flag2);
    int Delete(uint8_t Zone, uint32_t RuleId, uint32_t CustomerId, uint16_t Op);

  private:
    // The upper byte of an operation code is the table.
    static constexpr uint16_t TableOf(uint16_t Op) { return static_cast<uint16_t>(Op >> 8U); }

    std::vector<Added> m_Adds;
    std::map<Key, VQ_CONF_RULE> m_InForce;
};

} // namespace fakehost

#endif
