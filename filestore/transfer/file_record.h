#pragma once

#include "filestore/db/file_store_entry.h"
#include "kel/container.h"

namespace filestore {

/// The values that tell a device or a consumer which file it is and where it comes from.
KelContainer FileDescriptionOf(const FileStoreEntry& entry);

/// The values by which a file is offered to another device and listed in an archive's index.
KelContainer FileRecordOf(const FileStoreEntry& entry);

/// The container that a row's FileInfo holds as XML; empty, with a warning that names the file, when it is
/// damaged.
KelContainer FileInfoOf(const KelString& xml, const KelString& fileName);

/// Where the content of a row lies: in the store, or outside when the file is external.
KelString ContentPath(const FileStoreEntry& entry, bool upstream);

}  // namespace filestore
