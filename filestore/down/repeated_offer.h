#pragma once

#include "filestore/db/targets_table.h"
#include "filestore/state/file_store.h"

namespace filestore {

/// Takes a repeated offer of the available file `known`: the devices below among `targets` become targets
/// once more, because one of them, or a device between them and this one, has lost its database. They keep
/// the file if they have it. A target on this device has been served, or waits for it still. False when the
/// database did not take it. The caller holds mutexDownstream since it read `known`.
bool RepeatToDevicesBelow(FileStoreEntry& known, KelVector<FileStoreTarget> targets)
    KEL_REQUIRES(FileStore::mutexDownstream);

}  // namespace filestore
