#pragma once

#include "filestore/db/file_store_entry.h"

namespace filestore {

enum class RepositoryResult {
    Absent,       ///< not in the repository, or it could not be entered in the store
    BadChecksum,  ///< there, but with other content
    Taken,        ///< entered in the store as an available file
    InStore,      ///< another call has made it available before this one looked
};

/// Looks for the file in the package repository folders (setting PackagesRepositoryPath, separated by commas)
/// and, when its content is the one asked for, enters it in the downstream database: copied into the store
/// or, when the repository is one folder, referred to where it lies (setting PackagesRepositoryCopy). A row
/// that another call has made available or obsolete in the meantime stays as it is; the result is then Taken
/// as well. The package is also offered upstream, so that the devices above learn that this one holds it.
///
/// From any thread, without locks: hashes and copies the content, which may take minutes; one call at a time
/// does so, because many devices ask for a new package at once. Takes mutexDownstream for the entry; a row
/// that the caller has read before may have changed afterwards.
RepositoryResult TakeFromRepository(const FileStoreEntry& file);

}  // namespace filestore
