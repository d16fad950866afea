#pragma once

#include "filestore/db/file_store_entry.h"

namespace filestore {

enum class RepositoryResult {
    Absent,       ///< not in the repository
    BadChecksum,  ///< there, but with other content
    Taken,        ///< entered in the store as an available file
};

/// Looks for the file in the package repository folders (setting PackagesRepositoryPath, separated by commas)
/// and, when its content is the one asked for, enters it in the downstream database: copied into the store
/// or, when the repository is one folder, referred to where it lies (setting PackagesRepositoryCopy). The
/// package is also announced upstream, so that those above know that this device holds it. The caller holds
/// mutexDownstream.
RepositoryResult TakeFromRepository(const FileStoreEntry& file);

}  // namespace filestore
