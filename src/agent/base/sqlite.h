// SQLite handles released by scope. Failures throw StoreError with a fitting errno and the library's message.
#ifndef KAVEL_AGENT_SQLITE_H
#define KAVEL_AGENT_SQLITE_H

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "failure.h"

namespace kavel::agent {

class StoreError : public Failure {
  public:
    using Failure::Failure;
};

class Statement {
  public:
    Statement(sqlite3 *database, const std::string &text);

    // One execution with these values. The destructor resets the statement.
    class Run {
      public:
        explicit Run(const Statement &statement) : statement_(statement.statement_.get()) {}
        Run(const Run &) = delete;
        Run &operator=(const Run &) = delete;
        ~Run();

        // Parameters count from 1; one that is not bound is null. The text or blob stays the caller's and must outlive
        // the run.
        void Bind(int parameter, std::int64_t value);
        void Bind(int parameter, std::string_view text);
        void Bind(int parameter, std::span<const std::uint8_t> blob);
        // False at the end.
        bool Step();
        // Columns count from 0. The text is terminated. Text and blob are valid until the next step.
        [[nodiscard]] bool IsNull(int column) const;
        [[nodiscard]] std::int64_t Number(int column) const;
        [[nodiscard]] std::string_view Text(int column) const;
        [[nodiscard]] std::span<const std::uint8_t> Blob(int column) const;

      private:
        void Check(int code) const;

        sqlite3_stmt *statement_;
    };

  private:
    struct Finalize {
        void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
    };

    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

class Database {
  public:
    // Opens the file at `path`, which must exist; read-only where it cannot be written. Waits up to
    // `timeoutMs` while another program has locked it.
    Database(const std::string &path, int timeoutMs);

    [[nodiscard]] sqlite3 *Get() const { return database_.get(); }
    [[nodiscard]] bool IsReadOnly() const;
    void Execute(const std::string &text) const;
    // The first column of the first row.
    [[nodiscard]] std::int64_t Number(const std::string &query) const;
    [[nodiscard]] std::int64_t Changes() const { return sqlite3_changes64(database_.get()); }

  private:
    struct Close {
        void operator()(sqlite3 *database) const { sqlite3_close_v2(database); }
    };

    std::unique_ptr<sqlite3, Close> database_;
};

// The lengths of the texts or blobs in one column. The values themselves are not read, however long they are.
class ColumnLengths {
  public:
    ColumnLengths(const Database &database, std::string table, std::string column)
        : database_(database.Get()), table_(std::move(table)), column_(std::move(column))
    {
    }

    // In bytes, of the value in the row with this rowid, which must exist. Begins a read of the database that lasts as
    // long as this object.
    [[nodiscard]] std::int64_t Of(std::int64_t rowid);

  private:
    struct Close {
        void operator()(sqlite3_blob *value) const { sqlite3_blob_close(value); }
    };

    sqlite3 *database_;
    std::string table_;
    std::string column_;
    std::unique_ptr<sqlite3_blob, Close> value_; // moved from row to row, which is faster than one for each
};

} // namespace kavel::agent

#endif
