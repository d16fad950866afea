#include "filestore/up/small_files.h"

#include "filestore/db/file_status.h"
#include "filestore/exchange/file_record.h"
#include "filestore/state/bandwidth_manager.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "filestore/up/receive_contents.h"
#include "kel/file.h"
#include "kelcore/file_values.h"

namespace filestore {

bool SmallFiles::Add(const FileStoreEntry& entry) {
    const bool isSmall = entry.FileSize > 0 && entry.FileSize <= kMostContentBytes &&
                         entry.FileType != kPackedFilesType && !entry.Repeated;
    if (!isSmall || entries_.size() >= kMostContents || entry.FileSize > kMostContentsBytes - contentBytes_ ||
        FileStore::bmTrackUsageUp.BandwidthIsLimited())
        return false;
    FileInUse inUse(Side::Upstream, entry);
    auto content = FileReadText(ContentPath(entry, Side::Upstream), kMostContentBytes);
    if (!content) return false;
    KelContainer offer = FileRecordOf(entry).ToContainer();
    offer.SetString(kValueContent, std::move(*content));
    call_.SetContainer(kValueFiles, std::move(offer), static_cast<std::uint32_t>(entries_.size()));
    entries_.push_back(entry);
    inUse_.push_back(std::move(inUse));
    contentBytes_ += entry.FileSize;
    return true;
}

}  // namespace filestore
