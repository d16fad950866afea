#include "filestore/down/resume_download.h"

#include "filestore/db/file_status.h"
#include "filestore/db/files_table.h"
#include "filestore/down/download_outcome.h"
#include "filestore/state/file_store.h"
#include "kel/file.h"

namespace filestore {

DownloadStart PrepareResume(const FileStoreEntry& file, std::uint64_t largest) {
    const bool isRecovery = file.TransportMode == kTransportUnicastRecovery;
    if (isRecovery || MayHaveAnyContent(file)) DeleteDownload(file);
    // Only the first attempt begins anew: later ones go on from what the earlier ones have left.
    if (isRecovery) StartUnicastRecovery(file.FileId);
    // The size on the disk counts, not TransferredBytes of the row: a kill loses the last update of the row.
    const std::int64_t present = FileExists(file.FilePath) ? FileGetSize64(file.FilePath) : -1;
    if (present < 0) return {};
    if (static_cast<std::uint64_t>(present) > largest) {
        FileStore::debugFileStore.Warning(
            "PullThread: The partial file %S is longer than announced, starting again\n", file.FilePath);
        DeleteDownload(file);
        return {};
    }
    if (file.FileSize != 0 && present == file.FileSize) return {.isComplete = true};
    return {.offset = static_cast<std::uint64_t>(present)};
}

// The earlier attempt may have ended before the content was verified, or before it was on the disk.
bool FinishCompleteDownload(const FileStoreEntry& file) {
    FileStore::debugFileStore.Detail("PullThread: Try to download an already available file (%S)\n",
                                     file.FileName);
    if (!HasAnnouncedContent(file)) return RestartDownloadLater(file);
    if (FileSync(file.FilePath)) return FinishDownload(file);
    LogDownloadFailure(
        file, KelDebugLevel::Error,
        KelFormat("PullThread: Cannot bring %S to the disk: check space and permissions", file.FilePath),
        "it is not on the disk");
    return PostponeDownload(file.FileId);
}

}  // namespace filestore
