#pragma once

#include "filestore/db/file_store_entry.h"

/// Whether the patch inventory of this device has reached the parent, which consoles ask for
/// (FileStoreIsPatchInventoryUploaded).
namespace filestore {

inline constexpr const char* kPatchInventoryType = "PatchInventory";

/// Remembers when the parent got a patch inventory of this device; any other file changes nothing. The rows
/// of delivered files may be gone when it is asked for. On the push thread.
void NoteUploadedInventory(const FileStoreEntry& file);

}  // namespace filestore
