#include "services/store_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "base/files.h"
#include "failure.h"
#include "services/message_history.h"
#include "unique_fd.h"

namespace kavel::agent {
namespace {

constexpr std::int64_t kSchemaVersion = 1;
constexpr mode_t kFileMode = 0600;
constexpr mode_t kDirectoryMode = 0700;

// Syncs each directory that got a new entry, so that a power failure does not take the file's whole path with it.
void MakeDirectories(const std::filesystem::path &path)
{
    std::filesystem::path directory;
    for (const std::filesystem::path &name : path) {
        const std::filesystem::path parent = directory;
        directory /= name;
        if (std::filesystem::is_directory(directory)) {
            continue;
        }
        if (::mkdir(directory.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
            ThrowLastErrno(directory);
        }
        SyncDirectory(parent);
    }
}

// Creates an empty file, which is an empty database. SQLite gives the files that it puts beside it the same mode.
void MakeFile(const std::string &path)
{
    const std::filesystem::path directory = std::filesystem::path(path).parent_path();
    MakeDirectories(directory);
    const UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, kFileMode));
    if (!file) {
        // A file that exists may still be readable.
        if (::access(path.c_str(), R_OK) == 0) {
            return;
        }
        ThrowLastErrno(path);
    }
    struct stat info {};
    if (::fstat(file.Get(), &info) != 0) {
        ThrowLastErrno(path);
    }
    if (!S_ISREG(info.st_mode)) {
        throw StoreError(EINVAL, "is not a file");
    }
    if ((info.st_mode & ALLPERMS) != kFileMode && ::fchmod(file.Get(), kFileMode) != 0) {
        ThrowLastErrno(path);
    }
    SyncDirectory(directory);
}

const std::string &MadeFile(const std::string &path)
{
    MakeFile(path);
    return path;
}

void MakeTables(const Database &database)
{
    std::string text = "BEGIN IMMEDIATE;";
    for (const char *table : kStoreTables) {
        text.append("CREATE TABLE ").append(table);
        text.append(
            " (vpn_id INTEGER PRIMARY KEY CHECK (vpn_id BETWEEN 0 AND 4294967295), conf TEXT NOT NULL) STRICT;");
    }
    database.Execute(text + "PRAGMA user_version = " + std::to_string(kSchemaVersion) + ";COMMIT");
}

// Whether the tables exist already. This is the first read of the file: it fails for a file that is not a database.
bool CheckVersion(const Database &database)
{
    const std::int64_t version = database.Number("PRAGMA user_version");
    if (version > kSchemaVersion) {
        throw StoreError(EOPNOTSUPP, "was written by a newer release (version " + std::to_string(version) + ")");
    }
    const bool empty = database.Number("SELECT count(*) FROM sqlite_schema") == 0;
    if (version < kSchemaVersion && !empty) {
        throw StoreError(EINVAL, "is a database of another program");
    }
    return version == kSchemaVersion;
}

// The write-ahead log and its index stay when the database is closed, the log emptied: without them a store on a full
// or read-only disk could not even be read at the next start.
void KeepFilesBeside(const Database &database)
{
    int keep = 1;
    (void)sqlite3_file_control(database.Get(), "main", SQLITE_FCNTL_PERSIST_WAL, &keep);
    database.Execute("PRAGMA journal_size_limit = 0");
}

void Prepare(const Database &database)
{
    const bool made = CheckVersion(database);
    if (database.IsReadOnly()) {
        return;
    }
    database.Execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL");
    KeepFilesBeside(database);
    if (!made) {
        MakeTables(database);
    }
    // The rows can be used without it, on a full disk for example. An addition to the history tries again and reports.
    (void)ResultOf([&] {
        MakeHistoryTable(database);
        return 0;
    });
}

} // namespace

StoreFile::StoreFile(const std::string &path) : path_(path), database_(MadeFile(path), kLockTimeoutMs)
{
    Prepare(database_);
    main_ = IdentityOfFile(path_);
    log_ = IdentityOfFile(LogPath());
}

// If another database was put at the path, the log must not stay there: SQLite would apply it to that database.
StoreFile::~StoreFile()
{
    if (IdentityOfFile(path_) == main_ || IdentityOfFile(LogPath()) != log_) {
        return;
    }
    // The replaced file gets everything that is in the log.
    (void)sqlite3_wal_checkpoint_v2(database_.Get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    ::unlink(LogPath().c_str());
    ::unlink((path_ + "-shm").c_str());
}

bool StoreFile::IsInPlace() const
{
    return IdentityOfFile(path_) == main_ && IdentityOfFile(LogPath()) == log_;
}

} // namespace kavel::agent
