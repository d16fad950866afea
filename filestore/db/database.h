#pragma once

#include "filestore/db/file_key.h"
#include "kel/mutex.h"
#include "kelcore/db/connection.h"
#include "kelcore/db/sequence_manager.h"

/// What belongs to one of the module's databases.
struct FileStoreDatabase {
    DBConnection& connection;
    KelMutex& mutex;  ///< held around every write
    DBSequenceManager& sequence;
};

// The open databases, from any thread, between SetupDatabases and CleanupDatabases. Defined where the
// connections live, in state/databases.cpp.
FileStoreDatabase FileStoreGetDatabase(Side side);
FileStoreDatabase FileStoreGetCallbackDatabase();
