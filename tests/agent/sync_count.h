// Counts how often SQLite waits for the disk.
#ifndef KAVEL_TESTS_AGENT_SYNC_COUNT_H
#define KAVEL_TESTS_AGENT_SYNC_COUNT_H

#include <sqlite3.h>

#include <map>
#include <utility>

namespace kavel::agent {

// The syncs of the files that SQLite opens while this object lives. One at a time.
class SyncCount {
  public:
    SyncCount()
    {
        open = vfs_->xOpen;
        vfs_->xOpen = Open;
        syncs = 0;
    }
    SyncCount(const SyncCount &) = delete;
    SyncCount &operator=(const SyncCount &) = delete;
    ~SyncCount() { vfs_->xOpen = open; }

    // Those since the last call.
    [[nodiscard]] int Take() { return std::exchange(syncs, 0); }

  private:
    using OpenFunction = decltype(sqlite3_vfs::xOpen);
    using SyncFunction = decltype(sqlite3_io_methods::xSync);

    static int Open(sqlite3_vfs *vfs, const char *name, sqlite3_file *file, int flags, int *resultingFlags)
    {
        const int result = open(vfs, name, file, flags, resultingFlags);
        if (result == SQLITE_OK) {
            sync = file->pMethods->xSync; // the same function for each kind of file
            sqlite3_io_methods counting = *file->pMethods;
            counting.xSync = Sync;
            file->pMethods = &methods.insert_or_assign(file->pMethods, counting).first->second;
        }
        return result;
    }
    static int Sync(sqlite3_file *file, int flags)
    {
        ++syncs;
        return sync(file, flags);
    }

    // Static, since SQLite's functions get no pointer to this object, and the files may be closed after its end.
    static inline OpenFunction open = nullptr;
    static inline SyncFunction sync = nullptr;
    static inline int syncs = 0;
    static inline std::map<const sqlite3_io_methods *, sqlite3_io_methods> methods;

    sqlite3_vfs *vfs_ = sqlite3_vfs_find(nullptr);
};

} // namespace kavel::agent

#endif
