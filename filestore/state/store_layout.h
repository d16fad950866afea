#pragma once

#include "filestore/db/file_store_entry.h"

// Where content lies on this device. FileStore::StoreFolder and StorePath give the place of a file in the
// store.
namespace filestore {

/// Where the content of a row lies: in the store, or outside when the file is external.
KelString ContentPath(const FileStoreEntry& entry, Side side);

/// Where a row's file lies below the storage folder, as StoredPath makes it.
KelString StoredPathOf(const FileStoreEntry& entry, Side side);

/// The folder in that path that names the file's source, see SourceFolder; mostly empty. The row keeps it as
/// the last folder of its FilePath, whose beginning may name a folder where the store was before.
KelString StoredSourceOf(const FileStoreEntry& entry);

/// Where content is made before it is put in its place in the store, on the same file system:
/// "<storage>Temp". What a kill leaves there is removed at the next start.
KelString StoreWorkFolder();

/// Where archives and their indexes are made, and copies that are about to be offered: "<module data>/Temp".
KelString ModuleWorkFolder();

/// Removes a file and the folder that held it, when that is empty then.
void DeleteFileAndFolder(const KelString& path);

}  // namespace filestore
