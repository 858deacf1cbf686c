#include "services/message_history.h"

#include <sqlite3.h>

#include <cerrno>
#include <span>
#include <string_view>

#include "failure.h"

namespace kavel::agent {
namespace {

constexpr const char *kMakeHistory =
    "CREATE TABLE IF NOT EXISTS history ("
    "platform TEXT NOT NULL, "
    "vpn_id INTEGER NOT NULL CHECK (vpn_id BETWEEN 0 AND 4294967295), "
    "number INTEGER NOT NULL, " // rises with each entry of a VPN: the clock may be set back
    "time INTEGER NOT NULL, "
    "peer TEXT NOT NULL, "
    "revision TEXT, "
    "result INTEGER NOT NULL, "
    "outcome TEXT NOT NULL, "
    "message_bytes INTEGER NOT NULL, "
    "message BLOB, "
    "PRIMARY KEY (platform, vpn_id, number)) STRICT";

constexpr const char *kInsertEntry =
    "INSERT INTO history"
    " (platform, vpn_id, number, time, peer, revision, result, outcome, message_bytes, message)"
    " SELECT ?1, ?2, coalesce(max(number), 0) + 1, ?3, ?4, ?5, ?6, ?7, ?8, ?9"
    " FROM history WHERE platform = ?1 AND vpn_id = ?2";

// Each entry with the number and the bytes of the entries from the first to itself: first the newest one of the highest
// numeric revision (NumericRevision()), then from the newest on. The length of a blob comes from the row's header: the
// messages are not read.
constexpr const char *kRemoveOldEntries =
    "DELETE FROM history WHERE platform = ?1 AND vpn_id = ?2 AND number IN (SELECT number FROM"
    " (SELECT number, count(*) OVER kept AS entries, sum(length(message)) OVER kept AS bytes"
    " FROM history WHERE platform = ?1 AND vpn_id = ?2 WINDOW kept AS (ORDER BY number IS NOT"
    " (SELECT number FROM history WHERE platform = ?1 AND vpn_id = ?2"
    " AND revision GLOB '[1-9]*' AND revision NOT GLOB '*[^0-9]*'"
    " AND (length(revision) < 19 OR (length(revision) = 19 AND revision <= '9223372036854775807'))"
    " ORDER BY length(revision) DESC, revision DESC, number DESC LIMIT 1), number DESC))"
    " WHERE entries > ?3 OR bytes > ?4)";

// The bounds hold for what another program has written, too.
constexpr const char *kSelectEntries =
    "SELECT time, peer, revision, result, outcome, message_bytes, CASE WHEN length(message) <= ?4 THEN message END"
    " FROM history WHERE platform = ?1 AND vpn_id = ?2 ORDER BY number DESC LIMIT ?3";

constexpr std::int64_t kNoMessage = -1; // the longest message that is read

constexpr const char *kSelectAll = "SELECT time, peer, revision, result, outcome, message_bytes, NULL, vpn_id"
                                   " FROM history WHERE platform = ?1 ORDER BY vpn_id, number DESC LIMIT ?2";
constexpr int kVpnColumn = 7;

std::string_view ColumnOf(Platform platform)
{
    return platform == Platform::kCpe ? "cpe" : "pop";
}

// Rolls back at the end of the scope unless it was committed.
class WriteTransaction {
  public:
    explicit WriteTransaction(const Database &database) : database_(database) { database.Execute("BEGIN IMMEDIATE"); }
    WriteTransaction(const WriteTransaction &) = delete;
    WriteTransaction &operator=(const WriteTransaction &) = delete;
    ~WriteTransaction()
    {
        // SQLite itself rolls back after some failures.
        if (sqlite3_get_autocommit(database_.Get()) == 0) {
            (void)sqlite3_exec(database_.Get(), "ROLLBACK", nullptr, nullptr, nullptr);
        }
    }

    void Commit() const { database_.Execute("COMMIT"); }

  private:
    const Database &database_;
};

// Runs `work`, whose commits do not wait for the disk.
template <typename Work>
void WithoutSync(const Database &database, Work work)
{
    constexpr const char *kFull = "PRAGMA synchronous = FULL";
    database.Execute("PRAGMA synchronous = NORMAL");
    try {
        work();
    } catch (...) {
        (void)ResultOf([&] {
            database.Execute(kFull);
            return 0;
        });
        throw;
    }
    database.Execute(kFull);
}

// The STRICT table has no null here. A table that another program made may have one.
std::string TextOfEntry(const Statement::Run &run, int column, std::size_t bytesMax)
{
    if (run.IsNull(column)) {
        throw StoreError(EINVAL, "an entry of the history is not complete");
    }
    return std::string(run.Text(column).substr(0, bytesMax));
}

HistoryEntry EntryOf(const Statement::Run &run)
{
    HistoryEntry entry;
    entry.time = run.Number(0);
    entry.peer = TextOfEntry(run, 1, kHistoryPeerMax);
    if (!run.IsNull(2)) {
        entry.revision = TextOfEntry(run, 2, kHistoryRevisionMax);
    }
    entry.result = static_cast<std::int32_t>(run.Number(3));
    entry.outcome = TextOfEntry(run, 4, kHistoryOutcomeMax);
    entry.messageBytes = static_cast<std::uint64_t>(run.Number(5));
    if (!run.IsNull(6)) {
        const std::span<const std::uint8_t> message = run.Blob(6);
        entry.message.emplace(message.begin(), message.end());
    }
    return entry;
}

} // namespace

// What an undo brings back was in force before all that it undoes: an entry that nobody undid ends the search.
bool UndoneEntries::Contains(const HistoryEntry &next)
{
    if (next.result < 0) {
        return false;
    }
    const bool isUndone = isUndoing_ && next.outcome.starts_with(kToBeConfirmed);
    isUndoing_ = next.peer == kSentByAgent || isUndone;
    return isUndone;
}

void MakeHistoryTable(const Database &database)
{
    database.Execute(kMakeHistory);
}

MessageHistory::Writing::Writing(const Database &database)
    : insert(database.Get(), kInsertEntry), removeOld(database.Get(), kRemoveOldEntries)
{
}

// The table is missing if it could not be made when the file was opened: this fails for the same reason, or succeeds.
void MessageHistory::PrepareWriting()
{
    if (!writing_) {
        MakeHistoryTable(database_);
        writing_.emplace(database_);
    }
}

void MessageHistory::Insert(std::uint32_t vpnId, const HistoryEntry &entry)
{
    Statement::Run run(writing_->insert);
    run.Bind(1, ColumnOf(platform_));
    run.Bind(2, vpnId);
    run.Bind(3, entry.time);
    run.Bind(4, std::string_view(entry.peer).substr(0, kHistoryPeerMax));
    if (entry.revision) {
        run.Bind(5, std::string_view(*entry.revision).substr(0, kHistoryRevisionMax));
    }
    run.Bind(6, entry.result);
    run.Bind(7, std::string_view(entry.outcome).substr(0, kHistoryOutcomeMax));
    run.Bind(8, static_cast<std::int64_t>(entry.messageBytes));
    if (entry.message && entry.message->size() <= kHistoryMessageMax) {
        run.Bind(9, std::span(*entry.message));
    }
    run.Step();
}

void MessageHistory::RemoveOld(std::uint32_t vpnId)
{
    Statement::Run run(writing_->removeOld);
    run.Bind(1, ColumnOf(platform_));
    run.Bind(2, vpnId);
    run.Bind(3, kHistoryEntriesMax);
    run.Bind(4, kHistoryBytesMax);
    run.Step();
}

void MessageHistory::Add(std::uint32_t vpnId, const HistoryEntry &entry)
{
    WithoutSync(database_, [&] {
        PrepareWriting();
        const WriteTransaction transaction(database_);
        Insert(vpnId, entry);
        RemoveOld(vpnId);
        transaction.Commit();
    });
}

bool MessageHistory::HasTable() const
{
    return database_.Number("SELECT count(*) FROM sqlite_schema WHERE name = 'history' COLLATE NOCASE") != 0;
}

std::vector<VpnHistoryEntry> MessageHistory::ReadAll()
{
    if (!HasTable()) {
        return {};
    }
    Statement select(database_.Get(), kSelectAll);
    Statement::Run run(select);
    run.Bind(1, ColumnOf(platform_));
    run.Bind(2, kHistoryReadMax);
    std::vector<VpnHistoryEntry> entries;
    while (run.Step()) {
        entries.push_back({static_cast<std::uint32_t>(run.Number(kVpnColumn)), EntryOf(run)});
    }
    return entries;
}

std::vector<HistoryEntry> MessageHistory::Read(std::uint32_t vpnId, HistoryContent content)
{
    if (!select_) {
        if (!HasTable()) {
            return {};
        }
        select_.emplace(database_.Get(), kSelectEntries);
    }
    Statement::Run run(*select_);
    run.Bind(1, ColumnOf(platform_));
    run.Bind(2, vpnId);
    run.Bind(3, kHistoryEntriesMax);
    run.Bind(4, content == HistoryContent::kAll ? static_cast<std::int64_t>(kHistoryMessageMax) : kNoMessage);
    std::vector<HistoryEntry> entries;
    while (run.Step()) {
        entries.push_back(EntryOf(run));
    }
    return entries;
}

} // namespace kavel::agent
