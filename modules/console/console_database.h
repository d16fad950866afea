#pragma once

#include <functional>
#include <memory>

#include "kel/debug.h"
#include "kel/mutex.h"
#include "kel/types.h"
#include "kelcore/db/connection.h"
#include "kelcore/db/connection_pool.h"

/// The console's database: the devices as they reported themselves, their groups, and the publications with
/// their targets.
/// The section SqlUpgrade of Console.ini holds its schema. All operations may be called from any thread; they
/// fail while the database is not open. The connection logs statements that fail.
class ConsoleDatabase {
  public:
    explicit ConsoleDatabase(KelDebug& log) : log_(log) {}

    /// Opens "<folder>/Console.sqlite" and brings its schema up to date; false (logged) when that fails.
    bool Open(const KelString& folder, const KelString& iniFile);

    /// The identifier of the open database, made with it; empty when it cannot be read or written.
    KelString Id();

    /// Waits for statements in progress.
    void Close();

    /// The rows of a selection, null on failure.
    std::shared_ptr<const DBResult> Select(const KelString& statement);

    /// Runs statements in one transaction, all or none; true when they are on the disk.
    bool Write(const KelVector<KelString>& statements);

  private:
    /// With the file `mark`, which 'kel restore' leaves, the database gets a new identifier.
    void ForgetIdAfterRestore(const KelString& mark);

    KelDebug& log_;
    KelMutex mutex_;  ///< held for a whole transaction, never across calls of other modules
    DBConnectionPool pool_ KEL_GUARDED_BY(mutex_);
    std::unique_ptr<DBConnection> connection_ KEL_GUARDED_BY(mutex_);
};
