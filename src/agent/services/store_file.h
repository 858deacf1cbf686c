// The database file of the store: made, opened, and known again.
#ifndef KAVEL_AGENT_STORE_FILE_H
#define KAVEL_AGENT_STORE_FILE_H

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <string>

#include "base/sqlite.h"

namespace kavel::agent {

// The tables, one for each kind of box. Their rows are `vpn_id` and `conf`.
inline constexpr std::array<const char *, 2> kStoreTables{"cpe_dnsmasq", "pop_dnsmasq"};

class StoreFile {
  public:
    // Opens the store at `path`, and makes what is missing of it. Throws std::system_error; a file that is no store of
    // this release is left as it is.
    explicit StoreFile(const std::string &path);
    StoreFile(const StoreFile &) = delete;
    StoreFile &operator=(const StoreFile &) = delete;
    ~StoreFile();

    [[nodiscard]] const Database &Get() const { return database_; }

    // Whether the opened files are still those at the path. What is written to others is in no store.
    [[nodiscard]] bool IsInPlace() const;

  private:
    struct Identity {
        dev_t device = 0;
        ino_t inode = 0; // 0: no such file
        bool operator==(const Identity &) const = default;
    };

    static Identity IdentityOf(const std::string &path);
    [[nodiscard]] std::string LogPath() const { return path_ + "-wal"; }

    std::string path_;
    Database database_;
    Identity main_;
    Identity log_;
};

} // namespace kavel::agent

#endif
