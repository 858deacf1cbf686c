// The persistent store in SQLite: one row per VPN, in a table for each kind of box.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/zeroed_pages.h"
#include "failure.h"
#include "log.h"
#include "services/host.h"
#include "services/message_history.h"
#include "services/store.h"
#include "services/store_file.h"
#include "vqStore.h"

namespace kavel::agent {
namespace {

// The text form of a record cannot represent these two VPN ids: it has 0 in their place.
constexpr std::array<std::uint32_t, 2> kUnreadableIds{0x7FFFFFFFU, 0x80000000U};

struct TableStatements {
    TableStatements(const Database &database, const std::string &table)
        : name(table), put(database.Get(), "INSERT INTO " + table +
                                               " (vpn_id, conf) VALUES (?1, ?2)"
                                               " ON CONFLICT (vpn_id) DO UPDATE SET conf = excluded.conf"),
          remove(database.Get(), "DELETE FROM " + table + " WHERE vpn_id = ?1"),
          one(database.Get(), "SELECT vpn_id FROM " + table + " WHERE vpn_id = ?1"),
          all(database.Get(), "SELECT vpn_id FROM " + table + " ORDER BY vpn_id"),
          text(database.Get(), "SELECT conf FROM " + table + " WHERE vpn_id = ?1")
    {
    }

    std::string name;
    Statement put;
    Statement remove;
    // The rows, without their texts: a text is read once its length is known.
    Statement one;
    Statement all;
    Statement text;
};

std::string Subject(std::uint32_t vpnId)
{
    return "vpn " + std::to_string(vpnId);
}

std::string LengthProblem(std::size_t bytes)
{
    return "its text has " + std::to_string(bytes) + " bytes; at most " + std::to_string(kStoredTextMax) + " are read";
}

struct ReleaseList {
    void operator()(VQ_PersistentConfList *list) const { VQ_SqliteConfListRelease(list); }
};
using ListPtr = std::unique_ptr<VQ_PersistentConfList, ReleaseList>;

ListPtr NewList()
{
    auto list = std::make_unique<VQ_PersistentConfList>();
    CDS_INIT_LIST_HEAD(&list->Head);
    return ListPtr(list.release());
}

} // namespace

// Statements are finalized before their database is closed.
class Store::Opened {
  public:
    explicit Opened(const Config &config)
        : file(config.store), cpe(file.Get(), kStoreTables[0]), pop(file.Get(), kStoreTables[1]),
          history(file.Get(), config.platform)
    {
    }

    TableStatements &Of(VQ_SQL_CONF_TBL table)
    {
        switch (table) {
        case VQ_SQL_CONF_CPE_DNSMASQ:
            return cpe;
        case VQ_SQL_CONF_POP_DNSMASQ:
            return pop;
        }
        throw StoreError(EINVAL, "there is no table " + std::to_string(table));
    }

    // Calls `take` for each row that `run`, a run of `one` or `all`, finds. What `take` gets lives until it returns. As
    // long as the run lives, the rows and their lengths do not change.
    template <typename Take>
    void ForEachRow(const TableStatements &table, Statement::Run &run, Take take) const
    {
        ColumnLengths lengths(file.Get(), table.name, "conf");
        while (run.Step()) {
            const std::int64_t vpnId = run.Number(0);
            Row row;
            row.vpn = static_cast<std::uint32_t>(vpnId);
            row.bytes = static_cast<std::size_t>(lengths.Of(vpnId));
            Statement::Run text(table.text);
            text.Bind(1, vpnId);
            if (row.bytes <= kStoredTextMax && text.Step()) {
                row.text = text.Text(0);
            }
            take(row);
        }
    }

    StoreFile file;
    TableStatements cpe;
    TableStatements pop;
    MessageHistory history;
};

Store::Store(Host &host) : host_(host) {}

Store::~Store() = default;

Store::Opened &Store::Open()
{
    const Config &config = host_.config;
    if (!config.persistence) {
        throw StoreError(EOPNOTSUPP, "persistence is switched off");
    }
    if (opened_ && !opened_->file.IsInPlace()) {
        Log(LogLevel::kWarning, "store %s was removed or replaced: it is opened again", config.store.c_str());
        // Closed before the next one is opened: closing removes files beside it by their names.
        opened_.reset();
    }
    if (opened_ && opened_->file.Get().IsReadOnly()) {
        opened_.reset(); // it may be writable by now
    }
    if (!opened_) {
        opened_ = std::make_unique<Opened>(config);
    }
    return *opened_;
}

// Over a connection of its own: the kept one waits for locks.
bool Store::IsLocked() const
{
    try {
        const Database database(host_.config.store, 0);
        database.Execute("BEGIN IMMEDIATE");
        database.Execute("ROLLBACK");
        return false;
    } catch (const StoreError &failure) {
        if (failure.code().value() == ENOENT) {
            return false;
        }
        if (failure.code().value() != EBUSY) {
            throw;
        }
        return true;
    }
}

template <typename Work>
auto Store::With(Work work)
{
    try {
        return work(Open());
    } catch (...) {
        failures_ += host_.config.persistence ? 1 : 0; // without it nothing was used
        opened_.reset();
        throw;
    }
}

template <typename Work>
void Store::WithReport(const std::string &operation, Work work)
{
    try {
        With(work);
    } catch (const std::exception &failure) {
        Log(LogLevel::kError, "store %s: %s: %s", host_.config.store.c_str(), operation.c_str(), failure.what());
        throw;
    }
}

void Store::Put(std::uint32_t vpnId, const std::string &text, VQ_SQL_CONF_TBL table)
{
    if (change_) {
        change_->isBegun = true;
        change_->row.reset();
        if (change_->keepsRow) {
            return;
        }
    }
    WithReport(Subject(vpnId) + " cannot be stored", [&](Opened &store) {
        Statement::Run run(store.Of(table).put);
        run.Bind(1, vpnId);
        run.Bind(2, text);
        run.Step();
    });
}

void Store::Remove(std::uint32_t vpnId, VQ_SQL_CONF_TBL table)
{
    if (change_) {
        change_->isBegun = true;
        if (!change_->keepsRow) {
            change_->row = DelayedRemoval::Row{vpnId, table};
        }
        return;
    }
    RemoveNow(vpnId, table);
}

void Store::RemoveNow(std::uint32_t vpnId, VQ_SQL_CONF_TBL table)
{
    bool isMissing = false;
    WithReport(Subject(vpnId) + " cannot be removed", [&](Opened &store) {
        Statement::Run run(store.Of(table).remove);
        run.Bind(1, vpnId);
        run.Step();
        isMissing = store.file.Get().Changes() == 0;
    });
    if (isMissing) {
        throw StoreError(ENOENT, Subject(vpnId) + " is not stored");
    }
}

std::optional<std::string> Store::Fill(VQ_DNSMASQ_CONF &record, std::uint32_t vpnId, std::string_view text)
{
    const auto convert = host_.conversions.DnsmasqStrToConf;
    if (convert == nullptr) {
        return "the module has no conversion for it";
    }
    const ModuleSilence silence(host_);
    host_.moduleErrors.Clear();
    const VQ_ERR_T result = convert(&record, text.data());
    if (result < 0) {
        return host_.moduleErrors.Cause(result).value_or(std::strerror(-result));
    }
    if (record.VpnId == 0 && std::ranges::find(kUnreadableIds, vpnId) != kUnreadableIds.end()) {
        record.VpnId = vpnId;
    }
    return record.VpnId == vpnId ? std::nullopt : std::optional("it is a record of " + Subject(record.VpnId));
}

StoredRecord Store::Describe(const Row &row, VQ_DNSMASQ_CONF &record)
{
    StoredRecord stored;
    stored.vpn = row.vpn;
    stored.bytes = row.bytes;
    stored.problem = row.text ? Fill(record, row.vpn, *row.text) : LengthProblem(row.bytes);
    stored.enable = record.Enable != FALSE;
    stored.hosts = record.DnsHostNum;
    stored.mxHosts = record.DnsMxHostNum;
    stored.servers = record.DnsServerNum;
    stored.forwards = record.DnsProxyNum;
    return stored;
}

void Store::AppendRecord(VQ_PersistentConfList &list, const Row &row)
{
    if (!host_.config.Serves(row.vpn)) {
        Log(LogLevel::kWarning, "vpn %u: its stored record is not applied: the VPN is not configured", row.vpn);
        return;
    }
    auto node = MapZeroed<VQ_DnsmasqConfNode>();
    const StoredRecord stored = Describe(row, node->Dnsmasq);
    if (stored.problem) {
        Log(LogLevel::kError, "vpn %u: its stored record cannot be read, and is kept: %s", row.vpn,
            stored.problem->c_str());
        return;
    }
    cds_list_add_tail(&node.release()->List, &list.Head);
    ++list.Count;
}

// Records that were read before a failure are in the list all the same.
VQ_PersistentConfList *Store::List(VQ_SQL_CONF_TBL table)
{
    ListPtr list = NewList();
    if (offered_) {
        cds_list_add_tail(&offered_.release()->List, &list->Head);
        list->Count = 1;
        return list.release();
    }
    const std::int32_t result = ResultOf([&] {
        WithReport("the stored records cannot be read", [&](Opened &store) {
            const TableStatements &rows = store.Of(table);
            Statement::Run run(rows.all);
            store.ForEachRow(rows, run, [&](const Row &row) { AppendRecord(*list, row); });
        });
        return 0;
    });
    return result < 0 && list->Count == 0 ? nullptr : list.release();
}

VQ_SQL_CONF_TBL Store::TableOfPlatform() const
{
    return host_.config.platform == Platform::kCpe ? VQ_SQL_CONF_CPE_DNSMASQ : VQ_SQL_CONF_POP_DNSMASQ;
}

std::vector<StoredRecord> Store::Read()
{
    return With([this](Opened &store) {
        std::vector<StoredRecord> records;
        const auto record = MapZeroed<VQ_DNSMASQ_CONF>();
        const TableStatements &rows = store.Of(TableOfPlatform());
        Statement::Run run(rows.all);
        store.ForEachRow(rows, run, [&](const Row &row) {
            ClearPages(*record);
            records.push_back(Describe(row, *record));
        });
        return records;
    });
}

// Calls `take` with the row of the VPN, if there is one.
template <typename Take>
void Store::WithRow(std::uint32_t vpnId, Take take)
{
    With([&](Opened &store) {
        const TableStatements &rows = store.Of(TableOfPlatform());
        Statement::Run run(rows.one);
        run.Bind(1, vpnId);
        store.ForEachRow(rows, run, take);
    });
}

bool Store::Has(std::uint32_t vpnId)
{
    return With([&](Opened &store) {
        Statement::Run run(store.Of(TableOfPlatform()).one);
        run.Bind(1, vpnId);
        return run.Step();
    });
}

std::optional<StoredRecord> Store::Read(std::uint32_t vpnId)
{
    std::optional<StoredRecord> record;
    WithRow(vpnId, [&](const Row &row) { record = Describe(row, *MapZeroed<VQ_DNSMASQ_CONF>()); });
    return record;
}

std::optional<std::string> Store::ReadText(std::uint32_t vpnId)
{
    std::optional<std::string> text;
    std::optional<std::size_t> unreadBytes;
    WithRow(vpnId, [&](const Row &row) {
        if (row.text) {
            text = *row.text;
        } else {
            unreadBytes = row.bytes;
        }
    });
    if (unreadBytes) {
        throw StoreError(EOVERFLOW, LengthProblem(*unreadBytes));
    }
    return text;
}

std::vector<std::uint32_t> Store::Ids()
{
    return With([this](Opened &store) {
        std::vector<std::uint32_t> ids;
        Statement::Run run(store.Of(TableOfPlatform()).all);
        while (run.Step()) {
            ids.push_back(static_cast<std::uint32_t>(run.Number(0)));
        }
        return ids;
    });
}

bool Store::Equals(std::uint32_t vpnId, std::string_view text)
{
    bool isEqual = false;
    WithRow(vpnId, [&](const Row &row) { isEqual = row.text == text; });
    return isEqual;
}

void Store::AddToHistory(std::uint32_t vpnId, const HistoryEntry &entry)
{
    With([&](Opened &store) {
        // It is not worth waiting for: a row of this message may have waited for the same lock already.
        const WithoutLockWait scope(store.file.Get());
        store.history.Add(vpnId, entry);
    });
}

std::vector<HistoryEntry> Store::ReadHistory(std::uint32_t vpnId)
{
    return With([&](Opened &store) { return store.history.Read(vpnId); });
}

std::vector<HistoryEntry> Store::ReadHistoryWithoutMessages(std::uint32_t vpnId)
{
    return With([&](Opened &store) { return store.history.Read(vpnId, HistoryContent::kWithoutMessages); });
}

std::vector<VpnHistoryEntry> Store::ReadHistoryOfAll()
{
    return With([](Opened &store) { return store.history.ReadAll(); });
}

StoreChange::StoreChange(Store &store, RowChange change) : store_(store)
{
    store_.change_.emplace().keepsRow = change == RowChange::kLeftOut;
}

StoreChange::~StoreChange()
{
    store_.change_.reset();
}

bool StoreChange::IsBegun() const
{
    return store_.change_->isBegun;
}

bool StoreChange::Finish()
{
    const auto removal = std::exchange(store_.change_->row, std::nullopt);
    const std::int32_t result = ResultOf([&] {
        if (removal) {
            store_.RemoveNow(removal->vpnId, removal->table);
        }
        return 0;
    });
    return result == 0 || result == -ENOENT;
}

} // namespace kavel::agent

using namespace kavel;
using namespace kavel::agent;

extern "C" {

BOOL VQ_IsPersistentConfEnable(void)
{
    return Host::Current().config.persistence ? TRUE : FALSE;
}

// The conversions of DNS records are the module's own.
VQ_DATA_CONTENT_TRANS_OP *VQ_GetDbDataTransOp(void)
{
    return &Host::Current().conversions;
}

// NOLINTNEXTLINE(readability-non-const-parameter): the text of the host interface is not const
VQ_ERR_T VQ_SqliteDnsMasqConfOp(BOOL vpnId, char *text, VQ_SQL_CONF_OP op, VQ_SQL_CONF_TBL table)
{
    return ResultOf([&] {
        Store &store = Host::Current().store;
        const auto id = static_cast<std::uint32_t>(vpnId); // the host interface passes it as a BOOL
        if (op == VQ_SQL_CONF_OP_ADD && text != nullptr) {
            store.Put(id, text, table);
        } else if (op == VQ_SQL_CONF_OP_DEL) {
            store.Remove(id, table);
        } else {
            return -EINVAL;
        }
        return 0;
    });
}

VQ_PersistentConfList *VQ_SqliteGetDnsMasqConf(VQ_SQL_CONF_TBL table)
{
    VQ_PersistentConfList *list = nullptr;
    (void)ResultOf([&] {
        list = Host::Current().store.List(table);
        return 0;
    });
    return list;
}

void VQ_SqliteConfListRelease(VQ_PersistentConfList *list)
{
    if (list == nullptr) {
        return;
    }
    for (VQ_LIST_HEAD *link = list->Head.next; link != &list->Head;) {
        auto *node = reinterpret_cast<VQ_DnsmasqConfNode *>(std::exchange(link, link->next));
        const ZeroedPages<VQ_DnsmasqConfNode> released(node);
    }
    const std::unique_ptr<VQ_PersistentConfList> released(list);
}
}
