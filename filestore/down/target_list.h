#pragma once

#include <optional>

#include "filestore/db/targets_table.h"
#include "kel/container.h"

namespace filestore {

/// The rows that record the targets of a file, from its target tree: a container whose one name is the path
/// name of the device that receives it, with a container per child in it, and so on downwards. A tree without
/// children makes this device the target; otherwise each child becomes one, with the sub-tree that it passes
/// on. None when the tree is not addressed to this device; nothing when the database cannot be read.
///
/// The rows have neither FileId nor TargetId yet. Passes on Wake-on-LAN data of the children to the module
/// that wakes devices (local actions): hold no lock.
std::optional<KelVector<FileStoreTarget>> TargetsOf(unsigned int wakeOnLan, const KelContainer& targets);

/// Adds `announced` to `known`, the targets that a file has already, so that there is one row per next
/// device, whose sub-tree is the union of both, and which is due at once. A device is recognised by its GUID:
/// a device that requested the file and the same device in a tree share a row. The result holds the rows that
/// differ from `known` and are to be stored.
KelVector<FileStoreTarget> MergeTargets(const KelVector<FileStoreTarget>& known,
                                        const KelVector<FileStoreTarget>& announced);

/// A device of the next level, or this one (empty), with the tree of targets below it.
struct SubTree {
    KelString device;  ///< path name
    KelContainer below;
};
/// The parts of the tree of this device, which is not empty. No lock may be held: this device's GUID may be
/// asked for.
KelVector<SubTree> SubTreesOf(const KelContainer& targets);

/// The row of a device without the targets in its part of `withdrawn`; nothing when no target is left. A row
/// that a request has made has no tree: it goes when the device itself is withdrawn, and, without
/// `keepRequests`, when devices below it are.
std::optional<FileStoreTarget> WithoutTargets(const FileStoreTarget& target,
                                              const KelVector<SubTree>& withdrawn, bool keepRequests);

}  // namespace filestore
