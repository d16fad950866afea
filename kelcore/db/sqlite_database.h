#pragma once

#include <cstddef>
#include <memory>

#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/db/result.h"

struct sqlite3;

/// A database handle of SQLite, configured as every database of the agent is. One thread at a time. Errors
/// carry SQLite's primary result code and its message.
class SqliteDatabase {
  public:
    SqliteDatabase() = default;
    ~SqliteDatabase() { Close(true); }
    SqliteDatabase(SqliteDatabase&& other) noexcept;
    SqliteDatabase& operator=(SqliteDatabase&& other) noexcept;

    /// Opens an existing file and reads its schema.
    KelStatus Open(const KelString& path);

    /// With `mergeLog` the write-ahead log is merged into the file and removed; without, both stay as they
    /// are, for a look at a damaged database.
    void Close(bool mergeLog);

    /// Runs exactly one statement; blanks and ";" may follow it, nothing else.
    KelResult<DBResult> Run(const KelString& statement);

    /// Runs statements separated by ";" and stops at the first failure.
    KelStatus RunScript(const KelString& statements);

    KelStatus Begin();
    KelStatus Commit();
    KelStatus Rollback();

    /// Moves the write-ahead log into the file and empties it.
    KelStatus Checkpoint();

    /// A failure when the file's structure is not sound.
    KelStatus QuickCheck();

    /// True for the codes of errors that mean a damaged file, as opposed to a full disk or missing rights.
    static bool IsDamage(unsigned int code);

  private:
    KelStatus Configure();
    KelStatus CheckWritable(bool readOnlyStatement) const;
    KelError LastError() const;

    sqlite3* database_ = nullptr;
    bool transaction_ = false;  // between Begin and Commit or Rollback
};
