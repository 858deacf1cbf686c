// The persistent store: one stored record per VPN, as JSON text, in a SQLite file.
#ifndef KAVEL_AGENT_STORE_H
#define KAVEL_AGENT_STORE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/zeroed_pages.h"
#include "vqStore.h"

namespace kavel::agent {

class Host;
struct HistoryEntry;
struct VpnHistoryEntry;

// Longer texts are not read: memory and time of a read are bounded whatever the file holds.
inline constexpr std::size_t kStoredTextMax = std::size_t{32} * 1024 * 1024;

struct StoredRecord {
    std::uint32_t vpn = 0;
    std::optional<std::string> problem; // why its text is not read; if set, only `vpn` and `bytes` have a meaning
    bool enable = false;
    std::uint32_t hosts = 0;
    std::uint32_t mxHosts = 0;
    std::uint32_t servers = 0;
    std::uint32_t forwards = 0;
    std::size_t bytes = 0; // of its text
};

// The state of a StoreChange.
struct DelayedRemoval {
    struct Row {
        std::uint32_t vpnId;
        VQ_SQL_CONF_TBL table;
    };

    bool isBegun = false;  // the module has used the store
    bool keepsRow = false; // nothing is changed
    std::optional<Row> row;
};

// The functions that read use the table of the host's platform. All of them throw std::system_error, with EOPNOTSUPP
// when persistence is switched off, and log nothing unless they say so. After a failure the next call opens the file
// again: the cause may be gone by then.
class Store {
  public:
    // `host` must outlive this object. The file is opened by the first use.
    explicit Store(Host &host);
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;
    ~Store();

    // By rising VPN.
    [[nodiscard]] std::vector<StoredRecord> Read();
    [[nodiscard]] std::optional<StoredRecord> Read(std::uint32_t vpnId);
    // Whether the VPN has a row.
    [[nodiscard]] bool Has(std::uint32_t vpnId);
    // Throws EOVERFLOW for a text of more than kStoredTextMax bytes.
    [[nodiscard]] std::optional<std::string> ReadText(std::uint32_t vpnId);

    // The VPNs that have a row, by rising id. The texts are not read.
    [[nodiscard]] std::vector<std::uint32_t> Ids();
    // Whether the VPN has a row with this text. False for a stored text of more than kStoredTextMax bytes.
    [[nodiscard]] bool Equals(std::uint32_t vpnId, std::string_view text);

    // Whether another program has locked the file against writing. Does not wait. False without a file.
    [[nodiscard]] bool IsLocked() const;

    // The history of messages, see message_history.h. It is no part of the rows, and no other function reads it.
    void AddToHistory(std::uint32_t vpnId, const HistoryEntry &entry);
    [[nodiscard]] std::vector<HistoryEntry> ReadHistory(std::uint32_t vpnId);
    [[nodiscard]] std::vector<HistoryEntry> ReadHistoryWithoutMessages(std::uint32_t vpnId);
    [[nodiscard]] std::vector<VpnHistoryEntry> ReadHistoryOfAll();

    // How many uses of the file have failed.
    [[nodiscard]] std::uint64_t Failures() const { return failures_; }

    // What the module asks for. Failures are logged before they are thrown. Inside a StoreChange a removal is only
    // noted, since the module removes a row before it adds it again. Remove throws ENOENT when there is no row.
    void Put(std::uint32_t vpnId, const std::string &text, VQ_SQL_CONF_TBL table);
    void Remove(std::uint32_t vpnId, VQ_SQL_CONF_TBL table);

    // Fills the zeroed record of a VPN from its stored text. Returns why that is not possible, or nothing.
    [[nodiscard]] std::optional<std::string> Fill(VQ_DNSMASQ_CONF &record, std::uint32_t vpnId, std::string_view text);

    // The list of the readable records of the configured VPNs, for the module; null when none could be read. Failures
    // and records that are left out are logged. VQ_SqliteConfListRelease releases it.
    [[nodiscard]] VQ_PersistentConfList *List(VQ_SQL_CONF_TBL table);

    // Makes the next List() return this record alone: the module applies the records of the list, and what is in force
    // is applied again this way.
    void Offer(ZeroedPages<VQ_DnsmasqConfNode> node) { offered_ = std::move(node); }

  private:
    friend class StoreChange;
    class Opened;

    struct Row {
        std::uint32_t vpn = 0;
        std::size_t bytes = 0;                // of its text
        std::optional<std::string_view> text; // nothing when it is longer than kStoredTextMax
    };

    Opened &Open();
    template <typename Work>
    auto With(Work work);
    template <typename Take>
    void WithRow(std::uint32_t vpnId, Take take);
    template <typename Work>
    void WithReport(const std::string &operation, Work work);
    void RemoveNow(std::uint32_t vpnId, VQ_SQL_CONF_TBL table);
    [[nodiscard]] VQ_SQL_CONF_TBL TableOfPlatform() const;
    [[nodiscard]] StoredRecord Describe(const Row &row, VQ_DNSMASQ_CONF &record);
    void AppendRecord(VQ_PersistentConfList &list, const Row &row);

    Host &host_;
    std::unique_ptr<Opened> opened_;
    std::uint64_t failures_ = 0;
    std::optional<DelayedRemoval> change_; // while a StoreChange lives
    ZeroedPages<VQ_DnsmasqConfNode> offered_;
};

// What a StoreChange does with the VPN's row.
enum class RowChange : std::uint8_t { kCarriedOut, kLeftOut };

// Delays the removal of a row to the end of the scope's work: the module removes a row before it adds it again, and an
// agent that is killed in between must not lose the row. An addition replaces the noted removal. One at a time.
// With RowChange::kLeftOut, additions and removals succeed and change nothing.
class StoreChange {
  public:
    explicit StoreChange(Store &store, RowChange change = RowChange::kCarriedOut);
    StoreChange(const StoreChange &) = delete;
    StoreChange &operator=(const StoreChange &) = delete;
    ~StoreChange();

    // Whether the module has used the store, which it does once the message is in force.
    [[nodiscard]] bool IsBegun() const;

    // Carries out the noted removal, if there is one. Whether that succeeded; a failure is logged.
    [[nodiscard]] bool Finish();

  private:
    Store &store_;
};

} // namespace kavel::agent

#endif
