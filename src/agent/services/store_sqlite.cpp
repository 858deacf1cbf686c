// The persistent store in SQLite: one row for each VPN, in a table for each kind of box.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/config.h"
#include "base/failure.h"
#include "base/log.h"
#include "base/zeroed_pages.h"
#include "services/store.h"
#include "services/store_file.h"
#include "vqMemory.h"
#include "vqStore.h"

namespace kavel::agent {
namespace {

// The text form of a record cannot carry these two VPN ids, and gives 0 in their place.
constexpr std::array<std::uint32_t, 2> kUnreadableIds{0x7FFFFFFFU, 0x80000000U};

struct TableStatements {
    TableStatements(const Database &database, const std::string &table)
        : put(database.Get(), "INSERT INTO " + table +
                                  " (vpn_id, conf) VALUES (?1, ?2)"
                                  " ON CONFLICT (vpn_id) DO UPDATE SET conf = excluded.conf"),
          remove(database.Get(), "DELETE FROM " + table + " WHERE vpn_id = ?1"),
          one(database.Get(), "SELECT vpn_id, conf FROM " + table + " WHERE vpn_id = ?1"),
          all(database.Get(), "SELECT vpn_id, conf FROM " + table + " ORDER BY vpn_id")
    {
    }

    Statement put;
    Statement remove;
    Statement one;
    Statement all;
};

// The statements go before the database that they belong to.
struct OpenedStore {
    explicit OpenedStore(const std::string &path)
        : file(path), cpe(file.Get(), kStoreTables[0]), pop(file.Get(), kStoreTables[1])
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

    StoreFile file;
    TableStatements cpe;
    TableStatements pop;
};

std::unique_ptr<OpenedStore> &Opened()
{
    static std::unique_ptr<OpenedStore> opened;
    return opened;
}

OpenedStore &Store()
{
    if (!ActiveConfig().persistence) {
        throw StoreError(EOPNOTSUPP, "persistence is switched off");
    }
    std::unique_ptr<OpenedStore> &opened = Opened();
    if (opened && !opened->file.IsInPlace()) {
        Log(LogLevel::kWarning, "store %s was removed or replaced: it is opened anew", ActiveConfig().store.c_str());
        // Closed before the next is opened: closing removes files beside it by their names.
        opened.reset();
    }
    if (opened && opened->file.Get().IsReadOnly()) {
        opened.reset(); // it may have become writable meanwhile
    }
    if (!opened) {
        opened = std::make_unique<OpenedStore>(ActiveConfig().store);
    }
    return *opened;
}

// After a failure the store is opened anew: what was wrong may have been put right by then.
template <typename Work>
auto WithStore(Work work)
{
    try {
        return work(Store());
    } catch (...) {
        Opened().reset();
        throw;
    }
}

void LogFailure(const std::string &what, const std::exception &failure)
{
    Log(LogLevel::kError, "store %s: %s: %s", ActiveConfig().store.c_str(), what.c_str(), failure.what());
}

// `work` with the store; a failure is logged as one of `what`, and comes back as a negated errno.
template <typename Work>
int Guarded(const std::string &what, Work work)
{
    return WithoutExceptions([&] {
        try {
            return WithStore(work);
        } catch (const std::exception &failure) {
            LogFailure(what, failure);
            throw;
        }
    });
}

std::string Subject(std::uint32_t vpnId)
{
    return "vpn " + std::to_string(vpnId);
}

int Put(std::uint32_t vpnId, std::string_view text, VQ_SQL_CONF_TBL table)
{
    return Guarded(Subject(vpnId) + " cannot be stored", [&](OpenedStore &store) {
        Statement::Run run(store.Of(table).put);
        run.Bind(1, vpnId);
        run.Bind(2, text);
        run.Step();
        return 0;
    });
}

int Remove(std::uint32_t vpnId, VQ_SQL_CONF_TBL table)
{
    return Guarded(Subject(vpnId) + " cannot be removed", [&](OpenedStore &store) {
        Statement::Run run(store.Of(table).remove);
        run.Bind(1, vpnId);
        run.Step();
        return store.file.Get().Changes() == 0 ? -ENOENT : 0;
    });
}

// The one that lives; null when none does.
StoreChange *&CurrentChange()
{
    static StoreChange *current = nullptr;
    return current;
}

int Carry(std::uint32_t vpnId, const char *text, VQ_SQL_CONF_OP op, VQ_SQL_CONF_TBL table)
{
    StoreChange *const change = CurrentChange();
    if (op == VQ_SQL_CONF_OP_ADD && text != nullptr) {
        if (change != nullptr) {
            change->TakeAddition();
        }
        return Put(vpnId, text, table);
    }
    if (op != VQ_SQL_CONF_OP_DEL) {
        return -EINVAL;
    }
    if (change != nullptr) {
        change->TakeRemoval(vpnId, table);
        return 0;
    }
    return Remove(vpnId, table);
}

// Fills the zeroed record from a row's text. Empty, or why that is not possible.
std::string Parse(std::uint32_t vpnId, std::string_view text, VQ_DNSMASQ_CONF &record)
{
    const auto convert = VQ_GetDbDataTransOp()->DnsmasqStrToConf;
    if (convert == nullptr) {
        return "the module has no conversion for it";
    }
    const ModuleSilence quiet;
    ModuleErrors().Clear();
    const VQ_ERR_T result = convert(&record, text.data());
    if (result < 0) {
        const std::string cause = ModuleErrors().Cause(result);
        return cause.empty() ? std::strerror(-result) : cause;
    }
    if (record.VpnId == 0 && std::ranges::find(kUnreadableIds, vpnId) != kUnreadableIds.end()) {
        record.VpnId = vpnId;
    }
    return record.VpnId == vpnId ? "" : "it is a record of " + Subject(record.VpnId);
}

void ForEachRow(Statement::Run &run, const std::function<void(std::uint32_t, std::string_view)> &take)
{
    while (run.Step()) {
        take(static_cast<std::uint32_t>(run.Number(0)), run.Text(1));
    }
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

void AppendRecord(VQ_PersistentConfList &list, std::uint32_t vpnId, std::string_view text)
{
    if (!ActiveConfig().Serves(vpnId)) {
        Log(LogLevel::kWarning, "vpn %u: its stored record is left alone: the VPN is not configured", vpnId);
        return;
    }
    auto node = MapZeroed<VQ_DnsmasqConfNode>();
    const std::string problem = Parse(vpnId, text, node->Dnsmasq);
    if (!problem.empty()) {
        Log(LogLevel::kError, "vpn %u: its stored record cannot be read, and is kept: %s", vpnId, problem.c_str());
        return;
    }
    cds_list_add_tail(&node.release()->List, &list.Head);
    ++list.Count;
}

// What was read before a failure is handed out all the same: it is better than nothing.
VQ_PersistentConfList *ReadList(VQ_SQL_CONF_TBL table)
{
    ListPtr list = NewList();
    const int result = Guarded("the stored records cannot be read", [&](OpenedStore &store) {
        Statement::Run run(store.Of(table).all);
        ForEachRow(run, [&](std::uint32_t vpnId, std::string_view text) { AppendRecord(*list, vpnId, text); });
        return 0;
    });
    return result < 0 && list->Count == 0 ? nullptr : list.release();
}

VQ_SQL_CONF_TBL TableOfPlatform()
{
    return ActiveConfig().platform == Platform::kCpe ? VQ_SQL_CONF_CPE_DNSMASQ : VQ_SQL_CONF_POP_DNSMASQ;
}

StoredRecord Describe(std::uint32_t vpnId, std::string_view text, VQ_DNSMASQ_CONF &record)
{
    ClearPages(record);
    StoredRecord stored;
    stored.vpn = vpnId;
    stored.bytes = text.size();
    stored.problem = Parse(vpnId, text, record);
    stored.enable = record.Enable != FALSE;
    stored.hosts = record.DnsHostNum;
    stored.mxHosts = record.DnsMxHostNum;
    stored.servers = record.DnsServerNum;
    stored.forwards = record.DnsProxyNum;
    return stored;
}

} // namespace

std::vector<StoredRecord> ReadStored()
{
    return WithStore([](OpenedStore &store) {
        std::vector<StoredRecord> records;
        const auto record = MapZeroed<VQ_DNSMASQ_CONF>();
        Statement::Run run(store.Of(TableOfPlatform()).all);
        ForEachRow(run, [&](std::uint32_t vpnId, std::string_view text) {
            records.push_back(Describe(vpnId, text, *record));
        });
        return records;
    });
}

std::optional<StoredRecord> ReadStored(std::uint32_t vpnId)
{
    const std::optional<std::string> text = ReadStoredText(vpnId);
    if (!text) {
        return std::nullopt;
    }
    return Describe(vpnId, *text, *MapZeroed<VQ_DNSMASQ_CONF>());
}

std::optional<std::string> ReadStoredText(std::uint32_t vpnId)
{
    return WithStore([vpnId](OpenedStore &store) -> std::optional<std::string> {
        Statement::Run run(store.Of(TableOfPlatform()).one);
        run.Bind(1, vpnId);
        return run.Step() ? std::optional(std::string(run.Text(1))) : std::nullopt;
    });
}

StoreChange::StoreChange()
{
    CurrentChange() = this;
}

StoreChange::~StoreChange()
{
    CurrentChange() = nullptr;
}

int StoreChange::Finish()
{
    const auto removal = std::exchange(removal_, std::nullopt);
    const int result = removal ? Remove(removal->first, removal->second) : 0;
    return result == -ENOENT ? 0 : result;
}

void StoreChange::TakeRemoval(std::uint32_t vpnId, VQ_SQL_CONF_TBL table)
{
    begun_ = true;
    removal_.emplace(vpnId, table);
}

void StoreChange::TakeAddition()
{
    begun_ = true;
    removal_.reset();
}

} // namespace kavel::agent

using namespace kavel::agent;

extern "C" {

BOOL VQ_IsPersistentConfEnable(void)
{
    return ActiveConfig().persistence ? TRUE : FALSE;
}

// Its conversions of DNS records are the module's own.
VQ_DATA_CONTENT_TRANS_OP *VQ_GetDbDataTransOp(void)
{
    static VQ_DATA_CONTENT_TRANS_OP operations = [] {
        VQ_DATA_CONTENT_TRANS_OP empty = {};
        empty.DataTransJsonStrFree = [](char *text) { VQ_AgentMemFree(text); };
        return empty;
    }();
    return &operations;
}

VQ_ERR_T VQ_SqliteDnsMasqConfOp(BOOL VpnId, char *Text, VQ_SQL_CONF_OP Op, VQ_SQL_CONF_TBL Table)
{
    return WithoutExceptions([&] { return Carry(static_cast<std::uint32_t>(VpnId), Text, Op, Table); });
}

VQ_PersistentConfList *VQ_SqliteGetDnsMasqConf(VQ_SQL_CONF_TBL Table)
{
    VQ_PersistentConfList *list = nullptr;
    (void)WithoutExceptions([&] {
        list = ReadList(Table);
        return 0;
    });
    return list;
}

void VQ_SqliteConfListRelease(VQ_PersistentConfList *List)
{
    if (List == nullptr) {
        return;
    }
    for (VQ_LIST_HEAD *link = List->Head.next; link != &List->Head;) {
        auto *node = reinterpret_cast<VQ_DnsmasqConfNode *>(std::exchange(link, link->next));
        const ZeroedPages<VQ_DnsmasqConfNode> released(node);
    }
    const std::unique_ptr<VQ_PersistentConfList> released(List);
}
}
