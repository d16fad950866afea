#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <utility>

#include "kel/mutex.h"
#include "kelcore/db/connection.h"
#include "kelcore/db/database_file.h"
#include "kelcore/db/sqlite_database.h"

struct DBConnection::Handle {
    Handle(OpenFileClaim fileClaim, SqliteDatabase openDatabase);
    ~Handle();
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    /// The handles of all connections. The mutex is held while copies are made, so that none is closed
    /// meanwhile; it is locked before that of a handle.
    struct OpenHandles {
        std::mutex mutex;
        KelVector<Handle*> handles;
    };
    static OpenHandles& Open();

    /// Locks the handles `next` and copies their databases, appended to `copies`; false when one of them is
    /// in a transaction.
    static KelResult<bool> CopyAll(std::span<Handle* const> next, const KelString& folder,
                                   KelVector<Copy>& copies);
    KelStatus CopyTo(const KelString& folder, KelVector<Copy>& copies) KEL_REQUIRES(mutex);

    /// Runs one statement and keeps its rows when that is wanted.
    KelResult<std::shared_ptr<const DBResult>> Run(const KelString& statement,
                                                   std::optional<std::span<const DBValue>> values);

    /// The last statement that Run ran has put something on the disk. In a transaction only its end does.
    bool HasStored() {
        const KelLock lock(mutex);
        return hasStored;
    }

    OpenFileClaim claim;  ///< released after the database is closed
    KelMutex mutex;       ///< held while one statement runs and its rows are read
    SqliteDatabase database KEL_GUARDED_BY(mutex);
    bool hasStored KEL_GUARDED_BY(mutex) = false;
    bool keepsLastResult KEL_GUARDED_BY(mutex) = true;
    std::shared_ptr<const DBResult> lastResult KEL_GUARDED_BY(mutex);
};
