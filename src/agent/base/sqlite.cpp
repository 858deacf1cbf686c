#include "base/sqlite.h"

#include <cerrno>

namespace kavel::agent {
namespace {

// What the operating system said, for the failures that are its own.
int SystemErrno(sqlite3 *database, int otherwise)
{
    const int error = database != nullptr ? sqlite3_system_errno(database) : 0;
    return error != 0 ? error : otherwise;
}

int ErrnoOf(sqlite3 *database, int code)
{
    switch (code & 0xFF) {
    case SQLITE_FULL:
        return ENOSPC;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return EBUSY;
    case SQLITE_NOMEM:
        return ENOMEM;
    case SQLITE_READONLY:
        return EROFS;
    case SQLITE_PERM:
    case SQLITE_AUTH:
        return EACCES;
    case SQLITE_TOOBIG:
        return E2BIG;
    case SQLITE_CONSTRAINT:
    case SQLITE_MISMATCH:
        return EINVAL;
    case SQLITE_CANTOPEN:
        return SystemErrno(database, ENOENT);
    case SQLITE_IOERR:
        return SystemErrno(database, EIO);
    default:
        return EIO;
    }
}

[[noreturn]] void Throw(sqlite3 *database, int code)
{
    throw StoreError(ErrnoOf(database, code), database != nullptr ? sqlite3_errmsg(database) : sqlite3_errstr(code));
}

void CheckCode(sqlite3 *database, int code)
{
    if (code != SQLITE_OK) {
        Throw(database, code);
    }
}

} // namespace

Statement::Statement(sqlite3 *database, const std::string &text)
{
    sqlite3_stmt *statement = nullptr;
    const int length = static_cast<int>(text.size()) + 1;
    CheckCode(database,
              sqlite3_prepare_v3(database, text.c_str(), length, SQLITE_PREPARE_PERSISTENT, &statement, nullptr));
    statement_.reset(statement);
}

Statement::Run::~Run()
{
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
}

void Statement::Run::Bind(int parameter, std::int64_t value)
{
    Check(sqlite3_bind_int64(statement_, parameter, value));
}

void Statement::Run::Bind(int parameter, std::string_view text)
{
    Check(sqlite3_bind_text64(statement_, parameter, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8));
}

void Statement::Run::Bind(int parameter, std::span<const std::uint8_t> blob)
{
    // A null pointer, as an empty vector may have, would bind null.
    Check(blob.empty() ? sqlite3_bind_zeroblob(statement_, parameter, 0)
                       : sqlite3_bind_blob64(statement_, parameter, blob.data(), blob.size(), SQLITE_STATIC));
}

bool Statement::Run::Step()
{
    const int code = sqlite3_step(statement_);
    if (code != SQLITE_ROW && code != SQLITE_DONE) {
        Check(code);
    }
    return code == SQLITE_ROW;
}

bool Statement::Run::IsNull(int column) const
{
    return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

std::int64_t Statement::Run::Number(int column) const
{
    return sqlite3_column_int64(statement_, column);
}

std::string_view Statement::Run::Text(int column) const
{
    const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(statement_, column));
    if (text == nullptr) {
        throw std::bad_alloc(); // no column that is read as text can be null
    }
    return {text, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
}

std::span<const std::uint8_t> Statement::Run::Blob(int column) const
{
    const auto *blob = static_cast<const std::uint8_t *>(sqlite3_column_blob(statement_, column));
    const auto bytes = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
    if (blob == nullptr && bytes != 0) {
        throw std::bad_alloc();
    }
    return {blob, bytes};
}

void Statement::Run::Check(int code) const
{
    CheckCode(sqlite3_db_handle(statement_), code);
}

Database::Database(const std::string &path, int timeoutMs)
{
    sqlite3 *database = nullptr;
    const int code = sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_EXRESCODE, nullptr);
    database_.reset(database); // also when it failed
    CheckCode(database, code);
    CheckCode(database, sqlite3_busy_timeout(database, timeoutMs));
}

bool Database::IsReadOnly() const
{
    return sqlite3_db_readonly(database_.get(), "main") == 1;
}

void Database::Execute(const std::string &text) const
{
    CheckCode(database_.get(), sqlite3_exec(database_.get(), text.c_str(), nullptr, nullptr, nullptr));
}

std::int64_t Database::Number(const std::string &query) const
{
    const Statement statement(database_.get(), query);
    Statement::Run run(statement);
    return run.Step() ? run.Number(0) : 0;
}

// length() would read a text: the length of a value that is opened comes from the row's header.
std::int64_t ColumnLengths::Of(std::int64_t rowid)
{
    if (value_) {
        CheckCode(database_, sqlite3_blob_reopen(value_.get(), rowid));
    } else {
        constexpr int kReadOnly = 0;
        sqlite3_blob *value = nullptr;
        const int code =
            sqlite3_blob_open(database_, "main", table_.c_str(), column_.c_str(), rowid, kReadOnly, &value);
        value_.reset(value);
        CheckCode(database_, code);
    }
    return sqlite3_blob_bytes(value_.get());
}

} // namespace kavel::agent
