#include "filestore/db/file_status.h"
#include "filestore/db/files_selection.h"
#include "filestore/db/files_table.h"
#include "filestore/down/download_outcome.h"
#include "filestore/down/pull_thread.h"
#include "filestore/down/resume_download.h"
#include "filestore/exchange/http_transfer.h"
#include "filestore/state/file_store.h"
#include "filestore/state/parent.h"
#include "filestore/state/settings.h"
#include "kel/directory.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/file_values.h"

using namespace filestore;

namespace {

constexpr unsigned int kPathNotFound = 3;  ///< DiskFree

KelString FolderOf(const FileStoreEntry& file) {
    return FileStore::StoreFolder(Side::Downstream, file.Key());
}

/// Sets FilePath to where the content goes; the row may still hold another one.
bool SelectNext(FileStoreEntry& file) {
    FileRows rows = SelectDownload(FileStoreDueBefore(FileStore::ulPullTimeout), PassingNow());
    if (rows.empty()) return false;
    file = std::move(rows.front());
    file.FilePath = FileStore::StorePath(Side::Downstream, file.Key());
    return true;
}

/// Bytes free where the folder is or will be made. 0, or the error of DiskFree.
unsigned int FreeSpace(const KelString& folder, std::uint64_t& bytes) {
    const unsigned int error = DiskFree(folder, bytes);
    return error == kPathNotFound ? DiskFree(FileStore::strStorageLocationToUse, bytes) : error;
}

enum class Space : unsigned char { Enough, TooLittle, Unknown };

/// Compares the file's size with the free space; a size that was not announced is asked for. A file whose
/// size cannot be learnt is tried: the transfer fails if the disk fills up, and goes on later. The same goes
/// for a storage folder that does not exist, which is reported when the file's folder is made.
Space ExamineSpace(const FileStoreEntry& file) {
    std::uint64_t free = 0;
    const unsigned int error = FreeSpace(FolderOf(file), free);
    if (error != 0) return error == kPathNotFound ? Space::Enough : Space::Unknown;
    long long needed = file.FileSize;
    if (needed == 0) FileStore::RequestFileSize(file.Key(), needed);
    if (needed <= 0 || static_cast<std::uint64_t>(needed) <= free) return Space::Enough;
    FileStore::debugFileStore.Error(
        "PullThread: Not enough available free space to download the file %S. Only %gu bytes available. %gu "
        "bytes needed.\n",
        file.FileName, free, static_cast<std::uint64_t>(needed));
    return Space::TooLittle;
}

/// Hands the file over to the HTTP module, which receives the datagrams, writes the content to LocalPath and
/// reports the end to multicast_reception.h. True when that is recorded.
bool ListenToMulticast(const FileStoreEntry& file) {
    FileStore::debugFileStore.Print("PullThread: Multicast transfer on address : %S and port : %lu.\n",
                                    file.MulticastAddress, file.MulticastPort);
    KelContainer call;
    call.SetString("MulticastAddress", file.MulticastAddress);
    call.SetInt32("MulticastPort", static_cast<std::int32_t>(file.MulticastPort));
    call.SetInt32("MulticastBlockSize", static_cast<std::int32_t>(file.MulticastBlockSize));
    call.SetInt64(kValueFileSize, file.FileSize);
    call.SetString(kValueFileUrl, file.FileURL);
    call.SetString("LocalPath", file.FilePath);
    call.SetString(kValueFileChecksum, file.FileChecksum);
    CallLocal("HttpProtocolMulticastStartListen", call);
    return UpdateFileStatus(Side::Downstream, file.FileId, kStatusDownloading, kStatusMulticastListening,
                            NextTry::AtOnce);
}

}  // namespace

namespace filestore {

bool DownloadsAreAllowed() {
    bool dialupBlocked = false;
    if (FileStore::IsTransferAllowed(false, dialupBlocked)) return true;
    if (dialupBlocked)
        FileStore::debugFileStore.Print("PullThread: Downloads through dialup connection are disabled\n");
    else
        FileStore::debugFileStore.Print("PullThread: Downloads through slow connection are disabled\n");
    return false;
}

}  // namespace filestore

FileStorePullThread::FileStorePullThread() : FileThreadBase("FileStore", "QueueGap", 30) {}

// Alternating, so that a long queue of downloads does not hold back the acknowledgements of those that are
// done: until then the sender repeats its announcements.
bool FileStorePullThread::DoWork() {
    bool worked = false;
    do {
        const int downloaded = DownloadFile();
        const int acknowledged = AcknowledgeFile();
        worked = downloaded != 0 || acknowledged != 0;
    } while (worked && !CheckCancelled(false));
    return worked;
}

int FileStorePullThread::DownloadFile() {
    FileStore::debugFileStore.Trace("PullThread: Looking for files to download\n");
    FileStoreEntry file;
    if (!DownloadsAreAllowed() || !SelectNext(file)) return 0;
    if (FileStore::fCheckAvailableFreeSpaceBeforeDownloading) {
        const Space space = ExamineSpace(file);
        if (space == Space::TooLittle) PostponeDownload(file.FileId);
        if (space != Space::Enough) return 0;
    }
    if (const KelString folder = FolderOf(file); !PathCreate(folder)) {
        FileStore::debugFileStore.Error(
            "PullThread: Cannot create the folder %S: check space and permissions\n", folder);
        return PostponeDownload(file.FileId) ? 1 : 0;
    }
    // Before the transfer: otherwise it would be repeated in a tight loop while writes fail.
    if (!SetDownloadPath(file.FileId, file.FilePath)) return 0;
    if (!IsStillWanted(file.FileId)) return 1;
    const KelString sender = SenderUrl(file.SourceDevice);
    if (sender.empty()) {
        PostponeDownload(file.FileId);
        return 0;
    }
    const bool isMulticast = file.MulticastPort != 0 && !file.MulticastAddress.empty();
    const bool recorded = isMulticast ? ListenToMulticast(file) : FetchByUnicast(file, sender);
    return recorded ? 1 : 0;
}

bool FileStorePullThread::FetchByUnicast(const FileStoreEntry& file, const KelString& sender) {
    const DownloadStart start = PrepareResume(file);
    if (start.isComplete) return FinishCompleteDownload(file);
    unsigned int status = 0;
    const unsigned int result = Fetch(file, sender, start.offset, status);
    if (!IsStillWanted(file.FileId)) return RequestSpoiltContent(file);
    if (result != kHttpCompleted) return KeepForRetry(file, result);
    if (status != 200 && status != 206) {
        FileStore::debugFileStore.Warning("PullThread: Relay does not have the requested file\n");
        return RestartDownloadLater(file);
    }
    return HasAnnouncedContent(file) ? FinishDownload(file) : RestartDownloadLater(file);
}

unsigned int FileStorePullThread::Fetch(const FileStoreEntry& file, const KelString& sender,
                                        std::uint64_t offset, unsigned int& status) {
    HttpTransfer transfer("PullThread", sender, [this] { return CheckCancelled(false); });
    HttpMessage request;
    request.SetMethod(HttpMethod::Get);
    request.SetResourcePath(file.FileURL);
    request.SetRangeStart(offset);
    HttpFileMessage answer;
    answer.SetBodyFile(file.FilePath);
    answer.SetExpectedSize(static_cast<std::uint64_t>(file.FileSize));
    FileStore::debugFileStore.Print("PullThread: Downloading URL %S (offset %gu)\n", file.FileURL, offset);
    const unsigned int result = transfer.Run(request, answer, file.Bypass);
    FileStore::debugFileStore.Print("PullThread: Download from %S returned %u\n", file.FileURL, result);
    if (result != kHttpCompleted && result != kHttpCutOff)
        FileStore::debugFileStore.Detail("PullThread: %S\n", transfer.GetErrorText());
    status = answer.GetStatus();
    return result;
}
