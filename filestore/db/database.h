#pragma once

#include "kel/mutex.h"
#include "kelcore/db/connection.h"
#include "kelcore/db/sequence_manager.h"

/// What belongs to one of the two file databases, so that code which serves both can name it once.
struct FileStoreDatabase {
    DBConnection& connection;
    KelMutex& mutex;  ///< held around every write
    DBSequenceManager& sequence;
    const char* folder;  ///< its store folder: "upstream" or "downstream"
};

/// The upstream (true) or the downstream database. Only between a successful SetupDatabases and
/// CleanupDatabases.
FileStoreDatabase FileStoreGetDatabase(bool upstream);
