#include "filestore/down/repeated_offer.h"

#include "filestore/down/target_list.h"

namespace filestore {

bool RepeatToDevicesBelow(FileStoreEntry& known, KelVector<FileStoreTarget> targets) {
    std::erase_if(targets, [](const FileStoreTarget& target) { return target.DeviceGUID.empty(); });
    const auto waiting = FindTargets(known.FileId);
    if (!waiting) return false;
    known.Repeated = true;
    return SaveFileWithTargets(known, MergeTargets(*waiting, targets));
}

}  // namespace filestore
