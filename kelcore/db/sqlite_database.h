#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <utility>

#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/db/result.h"

struct sqlite3;
struct sqlite3_stmt;

/// A database handle of SQLite, configured as every database of the agent is. One thread at a time. Errors
/// carry SQLite's primary result code and its message.
class SqliteDatabase {
  public:
    SqliteDatabase() = default;
    ~SqliteDatabase() { Close(true); }
    SqliteDatabase(SqliteDatabase&& other) noexcept;
    SqliteDatabase& operator=(SqliteDatabase&& other) noexcept;

    /// Has `observer` called with the text of every statement before it runs; an empty one ends that.
    void SetObserver(std::function<void(const KelString&)> observer) { observer_ = std::move(observer); }

    /// Opens an existing file and reads its schema.
    KelStatus Open(const KelString& path);

    /// With `mergeLog` the write-ahead log is merged into the file and removed; without, both stay as they
    /// are, so that a damaged database can be examined.
    void Close(bool mergeLog);

    /// Runs exactly one statement; blanks and ";" may follow it, nothing else.
    KelResult<DBResult> Run(const KelString& statement);

    /// The same with values for the parameters of the statement, which stays compiled for the next time: for
    /// the few statements that are run once for each of many files.
    KelResult<DBResult> Run(const KelString& statement, std::span<const DBValue> values);

    /// Runs statements separated by ";" and stops at the first failure.
    KelStatus RunScript(const KelString& statements);

    KelStatus Begin();
    KelStatus Commit();
    KelStatus Rollback();

    /// Moves the write-ahead log into the file and empties it.
    KelStatus Checkpoint();

    /// Writes a copy to `path`, where no file is: compact, synced, with all that is committed. Not in a
    /// transaction.
    KelStatus CopyTo(const KelString& path);

    /// A failure when the file's structure is not sound.
    KelStatus QuickCheck();

    /// True between Begin and Commit or Rollback.
    bool InTransaction() const { return transaction_; }

    /// The number of pages that were handed to the disk so far. A statement that changes nothing, or writes
    /// what is there already, adds none.
    int PagesWritten() const;

    /// True for the codes of errors that do not depend on the statement: a full disk, missing rights.
    static bool IsOfDisk(unsigned int code);

    /// True for the codes of errors that mean a damaged file, as opposed to a full disk or missing rights.
    static bool IsDamage(unsigned int code);

  private:
    struct FinaliseStatement {
        void operator()(sqlite3_stmt* statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, FinaliseStatement>;

    KelStatus Configure();
    int PrepareNext(std::string_view& text, Statement& statement, unsigned int flags = 0) const;
    KelResult<sqlite3_stmt*> Prepared(const KelString& statement);
    KelResult<Statement> PrepareOnly(const KelString& statement, unsigned int flags = 0) const;
    KelResult<DBResult> Execute(sqlite3_stmt* statement);
    KelStatus CheckWritable(bool readOnlyStatement) const;
    void Observe(sqlite3_stmt* statement) const;
    KelError LastError() const;

    sqlite3* database_ = nullptr;
    KelHash<KelString, Statement> prepared_;  ///< with parameters, by their texts
    std::function<void(const KelString&)> observer_;
    bool transaction_ = false;  ///< between Begin and Commit or Rollback
};
