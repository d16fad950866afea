#pragma once

#include <memory>
#include <mutex>
#include <utility>

#include "kelcore/db/connection.h"
#include "kelcore/db/database_file.h"
#include "kelcore/db/sqlite_database.h"

struct DBConnection::Handle {
    Handle(OpenFileClaim fileClaim, SqliteDatabase openDatabase)
        : claim(std::move(fileClaim)), database(std::move(openDatabase)) {}

    OpenFileClaim claim;  ///< released after the database is closed
    std::mutex mutex;     ///< guards all below; held while one statement runs and its rows are read
    SqliteDatabase database;
    bool keepsLastResult = true;
    std::shared_ptr<const DBResult> lastResult;
};
