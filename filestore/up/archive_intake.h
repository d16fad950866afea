#pragma once

#include "filestore/db/file_store_entry.h"
#include "kel/thread.h"

namespace filestore {

/// Unpacks an archive that a child has put: its files become rows of their own with `targetStatus`, then the
/// archive and its row are removed. What fails is logged and leaves the archive and its row. On the callback
/// thread `thread`, whose cancellation ends the waits between tries; takes mutexUpstream for its changes.
void UnpackArchive(KelThread& thread, const FileStoreEntry& archive, const KelString& targetStatus);

}  // namespace filestore
