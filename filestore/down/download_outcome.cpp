#include "filestore/down/download_outcome.h"

#include "filestore/db/file_status.h"
#include "filestore/db/files_table.h"
#include "filestore/exchange/http_transfer.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "filestore/state/waiting_reasons.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/http/client.h"
#include "kelcore/metrics/transfer_counters.h"

namespace filestore {

namespace {

constexpr const char* kTypeWithAnyContent = "OperationalRuleNetworkPackageInfo";

/// Under which FileStore::failures knows the download.
KelString FailureKey(const FileStoreEntry& file) {
    return KelFormat("download %lu", file.FileId);
}

bool RecordPartial(const FileStoreEntry& file, NextTry next) {
    const std::int64_t present = FileGetSize64(file.FilePath);
    return SetTransferredBytes(file.FileId, present < 0 ? 0 : static_cast<std::uint64_t>(present), next);
}

}  // namespace

bool MayHaveAnyContent(const FileStoreEntry& file) {
    return file.FileType == kTypeWithAnyContent;
}

bool IsStillWanted(std::uint64_t fileId) {
    return ReadFileStatus(Side::Downstream, fileId) == kStatusDownloading;
}

bool HasAnnouncedContent(const FileStoreEntry& file) {
    FileStore::debugFileStore.Detail("PullThread: Calculating checksum\n");
    KelString checksum;
    FileMd5(file.FilePath, checksum);
    FileStore::debugFileStore.Detail("PullThread: File checksum is %S\n", checksum);
    if (checksum == file.FileChecksum || MayHaveAnyContent(file)) return true;
    LogDownloadFailure(
        file, KelDebugLevel::Error, "PullThread: File checksum is invalid, requesting again",
        KelFormat("its content has the checksum '%S' instead of '%S'", checksum, file.FileChecksum));
    return false;
}

bool PostponeDownload(std::uint64_t fileId) {
    return UpdateFileStatus(Side::Downstream, fileId, kStatusDownloading, kStatusDownloading,
                            NextTry::AfterTimeout);
}

bool IsFailing(const FileStoreEntry& file) {
    return FileStore::failures.IsFailing(FailureKey(file));
}

void LogDownloadFailure(const FileStoreEntry& file, KelDebugLevel level, const KelString& line,
                        const KelString& reason) {
    if (!FileStore::failures.Failed(level, FailureKey(file), line)) return;
    FileStore::debugFileStore.Warning("PullThread: %S could not be downloaded: %S; tried again every %lu s\n",
                                      file.Key().Text(), reason, FileStore::ulPullTimeout.load());
}

bool KeepForRetry(const FileStoreEntry& file, unsigned int result, const KelString& reason) {
    if (HttpTransfer::IsHeldByWindow(result, file.Bypass)) return RecordPartial(file, NextTry::AtOnce);
    if (result == kHttpCutOff) return RecordPartial(file, NextTry::AfterTimeout);
    LogDownloadFailure(file, KelDebugLevel::Error,
                       KelFormat("PullThread: Failed to download file %S", file.FileName), reason);
    FileStore::debugFileStore.Trace("PullThread: Received HTTP Client Error %d\n", static_cast<int>(result));
    return PostponeDownload(file.FileId);
}

bool InterruptDownload(const FileStoreEntry& file) {
    return RecordPartial(file, NextTry::AtOnce);
}

// The lock spans question and removal: an offer that is taken in here sets the status, under the same lock,
// before it puts its content at the same path.
void DeleteDownload(const FileStoreEntry& file) {
    const KelLock lock(FileStore::mutexDownstream);
    if (IsStillWanted(file.FileId)) FileDelete(file.FilePath);
}

bool RestartDownloadLater(const FileStoreEntry& file) {
    const KelLock lock(FileStore::mutexDownstream);
    DeleteDownload(file);
    return RestartDownload(file.FileId);
}

bool FinishDownload(const FileStoreEntry& file) {
    Reasons().MovedOn(Side::Downstream, file.FileId);
    KelTransfers(KelDirection::Down, KelFlow::In, KelTransport::Http).files.Add();
    FileStore::failures.Succeeded(FailureKey(file),
                                  KelFormat("PullThread: %S was downloaded", file.Key().Text()));
    return SetDownloaded(file.FileId, static_cast<std::uint64_t>(FileGetSize64(file.FilePath)));
}

/// Removes what the transfer has left of a file that was withdrawn meanwhile.
static void DeleteForgotten(const FileStoreEntry& file) {
    const KelLock lock(FileStore::mutexDownstream);
    if (FindExactFile(Side::Downstream, file.Key()) == std::uint64_t{0}) DeleteFileAndFolder(file.FilePath);
}

bool RequestSpoiltContent(const FileStoreEntry& file) {
    DeleteForgotten(file);
    FileStoreEntry entry;
    const bool isSpoilt = entry.LoadFromDatabase(file.FileId, Side::Downstream) &&
                          entry.FileStatus == kStatusAvailable &&
                          ContentPath(entry, Side::Downstream) == file.FilePath && !HasAnnouncedContent(file);
    if (!isSpoilt) return true;
    const bool recorded = UpdateFileStatus(Side::Downstream, file.FileId, kStatusAvailable,
                                           kStatusToBeRequested, NextTry::AtOnce);
    FileStore::WakeWorker(Worker::Push);
    return recorded;
}

}  // namespace filestore
