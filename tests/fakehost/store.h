// The persistent store: one text per VPN and table.
#ifndef FAKEHOST_STORE_H
#define FAKEHOST_STORE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "vqStore.h"

namespace fakehost {

class Host;

class Store {
  public:
    explicit Store(Host &Owner) : m_Host(Owner) {}
    ~Store();
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;
    Store(Store &&) = delete;
    Store &operator=(Store &&) = delete;

    bool Enabled = false;
    // The conversions of the host. Rows are converted to records with DnsmasqStrToConf.
    VQ_DATA_CONTENT_TRANS_OP Conversions{};

    using Key = std::pair<uint32_t, uint32_t>; // table, VPN
    std::map<Key, std::string> Rows;
    // The count that a list reports, if it is not the true one.
    std::optional<int32_t> Count;

    int Carry(uint32_t VpnId, const char *Text, VQ_SQL_CONF_OP Op, VQ_SQL_CONF_TBL Table);
    // Skips rows that cannot be converted. Null if there is no conversion.
    VQ_PersistentConfList *Read(VQ_SQL_CONF_TBL Table);
    // A list without records that reports `Told` of them.
    VQ_PersistentConfList *MakeEmptyList(int32_t Told);
    void Release(VQ_PersistentConfList *List);
    [[nodiscard]] std::size_t ListsInUse() const { return m_Lists.size(); }
    void ReportLeaks();

  private:
    void Append(VQ_PersistentConfList &List, const std::string &Text) const;
    static void Free(VQ_PersistentConfList *List);

    Host &m_Host;
    std::set<VQ_PersistentConfList *> m_Lists;
};

} // namespace fakehost

#endif
