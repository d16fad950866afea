#pragma once

#include <memory>
#include <utility>

#include "kel/mutex.h"
#include "kelcore/db/connection.h"
#include "kelcore/db/database_file.h"
#include "kelcore/db/sqlite_database.h"

struct DBConnection::Handle {
    Handle(OpenFileClaim fileClaim, SqliteDatabase openDatabase)
        : claim(std::move(fileClaim)), database(std::move(openDatabase)) {}

    /// Runs one statement and keeps its rows when that is wanted.
    KelResult<std::shared_ptr<const DBResult>> Run(const KelString& statement);

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
