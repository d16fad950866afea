#pragma once

#include <cstdint>

#include "filestore/db/targets_table.h"
#include "kel/container.h"

namespace filestore {

/// The rows that record the targets of a file, from its target tree: a container whose one name is the path
/// name of the device that receives it, with a container per child in it, and so on downwards. A tree without
/// children makes this device the target; otherwise each child becomes one, with the sub-tree that it passes
/// on. None when the tree is not addressed to this device or the database cannot be read.
///
/// The rows get their TargetIds, but are not inserted. Passes on Wake-on-LAN data of the children to the
/// module that wakes devices (local actions): hold no lock.
KelVector<FileStoreTarget> TargetsOf(std::uint64_t fileId, unsigned int wakeOnLan,
                                     const KelContainer& targets);

}  // namespace filestore
