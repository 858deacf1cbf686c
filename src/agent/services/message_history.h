// The history of messages: what was asked for each VPN, by whom, and what was answered. It is a table in the file of
// the persistent store. It informs the operator, and tells which revisions a VPN has had (numbered_messages.h): nothing
// is recovered from it.
#ifndef KAVEL_AGENT_MESSAGE_HISTORY_H
#define KAVEL_AGENT_MESSAGE_HISTORY_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/config.h"
#include "base/sqlite.h"

namespace kavel::agent {

// The bounds for one VPN. A longer message is not kept, and a longer text is cut, all in bytes.
inline constexpr std::int64_t kHistoryEntriesMax = 10;
inline constexpr std::int64_t kHistoryBytesMax = std::int64_t{1024} * 1024; // of all its messages
inline constexpr std::size_t kHistoryMessageMax = std::size_t{512} * 1024;
inline constexpr std::size_t kHistoryPeerMax = 128;
inline constexpr std::size_t kHistoryRevisionMax = 64;
inline constexpr std::size_t kHistoryOutcomeMax = 512;

// The most entries of all VPNs together that are read at once.
inline constexpr std::int64_t kHistoryReadMax = 16'000;

// Who has sent what the agent itself applies.
inline constexpr const char *kSentByAgent = "agent";
// How the outcome of a message begins that has to be confirmed. The seconds follow, and what is wrong.
inline constexpr const char *kToBeConfirmed = "applied, to be confirmed within ";
inline constexpr const char *kConfirmedOutcome = "confirmed";

struct HistoryEntry {
    std::int64_t time = 0;                            // Unix time in seconds, of the answer
    std::string peer;                                 // who sent it: "pid 123, uid 0 (vqctl)"
    std::optional<std::string> revision;              // the sender's name for it
    std::int32_t result = 0;                          // what was answered
    std::string outcome;                              // "applied", "applied, NOT RUNNING: ...", "refused: ..."
    std::uint64_t messageBytes = 0;                   // length of the message, also when it is not kept
    std::optional<std::vector<std::uint8_t>> message; // packed; nothing when it is too long to be kept
    bool operator==(const HistoryEntry &) const = default;
};

// An entry for the client.
struct SentHistoryEntry {
    std::uint32_t vpn = 0;
    HistoryEntry entry;
    Platform platform = Platform::kCpe;
    bool isUndone = false;
};

// Tells which entries of a VPN the agent has undone: those that an undo of the agent has found unconfirmed. It gets the
// entries one after the other, the newest first.
class UndoneEntries {
  public:
    [[nodiscard]] bool Contains(const HistoryEntry &next);

  private:
    bool isUndoing_ = false;
};

struct VpnHistoryEntry {
    std::uint32_t vpn = 0;
    HistoryEntry entry; // without its message
};

// What is read of the entries of a VPN.
enum class HistoryContent { kAll, kWithoutMessages };

// Creates the table if it is missing. Throws std::system_error.
void MakeHistoryTable(const Database &database);

// The functions throw std::system_error. After a failure the database should be closed: its setting `synchronous` may
// not be FULL if SQLite could not set it again.
class MessageHistory {
  public:
    // The history of the VPNs of a box of this kind. `database` must outlive this object.
    MessageHistory(const Database &database, Platform platform) : database_(database), platform_(platform) {}

    // Adds the entry, and removes the oldest ones until the VPN's history is within the bounds, in one transaction. Of
    // the entries with the highest numeric revision the newest one stays, however old it is. The addition survives the
    // end of the agent, but a power failure may lose it: it does not wait for the disk, except when SQLite restarts its
    // log or moves it into the file. For all other commits `synchronous` is FULL.
    void Add(std::uint32_t vpnId, const HistoryEntry &entry);

    // The newest entry first. Nothing where there is no table, as in a read-only file of an older release.
    [[nodiscard]] std::vector<HistoryEntry> Read(std::uint32_t vpnId, HistoryContent content = HistoryContent::kAll);
    // Of all VPNs, by rising id.
    [[nodiscard]] std::vector<VpnHistoryEntry> ReadAll();

  private:
    struct Writing {
        explicit Writing(const Database &database);

        Statement insert;
        Statement removeOld;
    };

    [[nodiscard]] bool HasTable() const;
    void PrepareWriting();
    void Insert(std::uint32_t vpnId, const HistoryEntry &entry);
    void RemoveOld(std::uint32_t vpnId);

    const Database &database_;
    Platform platform_;
    // Prepared by their first use: without a fitting table the store is opened and used all the same.
    std::optional<Writing> writing_;
    std::optional<Statement> select_;
};

} // namespace kavel::agent

#endif
