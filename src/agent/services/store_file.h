// The database file of the store: created, opened, and recognised after it was replaced.
#ifndef KAVEL_AGENT_STORE_FILE_H
#define KAVEL_AGENT_STORE_FILE_H

#include <array>
#include <cstddef>
#include <string>

#include "base/files.h"
#include "base/sqlite.h"

namespace kavel::agent {

// The tables, one for each kind of box, with the columns `vpn_id` and `conf`.
inline constexpr std::array<const char *, 2> kStoreTables{"cpe_dnsmasq", "pop_dnsmasq"};

// How long a statement waits for a lock that another program holds.
inline constexpr int kLockTimeoutMs = 2000;

// Statements of the scope do not wait for locks.
class WithoutLockWait {
  public:
    explicit WithoutLockWait(const Database &database) : database_(database)
    {
        (void)sqlite3_busy_timeout(database.Get(), 0);
    }
    WithoutLockWait(const WithoutLockWait &) = delete;
    WithoutLockWait &operator=(const WithoutLockWait &) = delete;
    ~WithoutLockWait() { (void)sqlite3_busy_timeout(database_.Get(), kLockTimeoutMs); }

  private:
    const Database &database_;
};

class StoreFile {
  public:
    // Opens the store at `path`, and creates the file and its tables if they are missing. Throws std::system_error, but
    // not for a missing history that cannot be created. A file that is not a store of this release is not changed.
    explicit StoreFile(const std::string &path);
    StoreFile(const StoreFile &) = delete;
    StoreFile &operator=(const StoreFile &) = delete;
    ~StoreFile();

    [[nodiscard]] const Database &Get() const { return database_; }

    // Whether the opened files are still the ones at the path. If not, what is written to them is lost.
    [[nodiscard]] bool IsInPlace() const;

  private:
    [[nodiscard]] std::string LogPath() const { return path_ + "-wal"; }

    std::string path_;
    Database database_;
    FileIdentity main_;
    FileIdentity log_;
};

} // namespace kavel::agent

#endif
