#pragma once

#include "filestore/db/file_store_entry.h"
#include "kel/thread.h"

namespace filestore {

/// Unpacks a received archive of packed files: its files become rows of their own with `targetStatus`, then
/// archive and row are removed. What fails is logged and leaves the archive and its row. Runs on `thread`,
/// whose cancellation ends the waits between tries.
void UnpackUpload(KelThread& thread, const FileStoreEntry& archive, const KelString& targetStatus);

}  // namespace filestore
