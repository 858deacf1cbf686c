// The stored records of this box, as the agent itself looks at them.
#ifndef KAVEL_AGENT_STORE_H
#define KAVEL_AGENT_STORE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vqStore.h"

namespace kavel::agent {

struct StoredRecord {
    std::uint32_t vpn = 0;
    std::string problem; // why its text cannot be read; the members below but the last are meaningless then
    bool enable = false;
    std::uint32_t hosts = 0;
    std::uint32_t mxHosts = 0;
    std::uint32_t servers = 0;
    std::uint32_t forwards = 0;
    std::size_t bytes = 0; // of its text
};

// What is looked at is the table of this platform. All three throw std::system_error, which is not logged. Records come
// by rising VPN.
std::vector<StoredRecord> ReadStored();
std::optional<StoredRecord> ReadStored(std::uint32_t vpnId);
std::optional<std::string> ReadStoredText(std::uint32_t vpnId);

// While one lives, the removal of a row waits for the end: the module removes a row before it adds it again, and an
// agent that ends in between must not have lost it. An addition takes the place of the removal.
class StoreChange {
  public:
    StoreChange();
    StoreChange(const StoreChange &) = delete;
    StoreChange &operator=(const StoreChange &) = delete;
    ~StoreChange();

    // Whether the module has come to the store at all, which it does once the message is in force.
    [[nodiscard]] bool Begun() const { return begun_; }

    // Carries out the removal that is left, if any. 0 or a negated errno, which is logged.
    [[nodiscard]] int Finish();

    // What the module asks the store for meanwhile.
    void TakeRemoval(std::uint32_t vpnId, VQ_SQL_CONF_TBL table);
    void TakeAddition();

  private:
    bool begun_ = false;
    std::optional<std::pair<std::uint32_t, VQ_SQL_CONF_TBL>> removal_;
};

} // namespace kavel::agent

#endif
