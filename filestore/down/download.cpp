#include <algorithm>
#include <chrono>
#include <utility>

#include "filestore/db/file_status.h"
#include "filestore/db/files_selection.h"
#include "filestore/db/files_table.h"
#include "filestore/down/damaged_copy.h"
#include "filestore/down/download_outcome.h"
#include "filestore/down/download_space.h"
#include "filestore/down/multicast_calls.h"
#include "filestore/down/pull_thread.h"
#include "filestore/down/receive_offer.h"
#include "filestore/down/resume_download.h"
#include "filestore/exchange/http_transfer.h"
#include "filestore/state/contact.h"
#include "filestore/state/file_store.h"
#include "filestore/state/parent.h"
#include "filestore/state/removal.h"
#include "filestore/state/settings.h"
#include "filestore/state/store_space.h"
#include "filestore/state/waiting_reasons.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kelcore/error_codes.h"
#include "kelcore/error_text.h"

using namespace filestore;

namespace {

constexpr char kBeginning[] = "PullThread: Downloading URL %S (offset %gu)\n";

KelString FolderOf(const FileStoreEntry& file) {
    return FileStore::StoreFolder(Side::Downstream, file.Key());
}

FileRows SelectDueDownload() {
    MarkDueDownloads(FileStoreDueBefore(FileStore::ulPullTimeout));
    return SelectDownload(PassingNow());
}

/// Sets FilePath to where the content goes; the row may still hold another one.
bool SelectNext(FileStoreEntry& file) {
    FileRows rows = SelectDueDownload();
    if (rows.empty()) return false;
    file = std::move(rows.front());
    file.FilePath = FileStore::StorePath(Side::Downstream, file.Key());
    return true;
}

/// Notices during a transfer that a more urgent file is to be downloaded, or that this one is not wanted any
/// more.
class UrgentFileWatch {
  public:
    explicit UrgentFileWatch(const FileStoreEntry& file) : fileId_(file.FileId), priority_(file.Priority) {}

    /// Called several times a second; looks into the database once a second.
    bool IsWaiting() {
        const auto now = std::chrono::steady_clock::now();
        if (now < nextLook_) return false;
        nextLook_ = now + std::chrono::seconds(1);
        if (!IsStillWanted(fileId_)) return true;
        const FileRows rows = SelectDueDownload();
        return !rows.empty() && rows.front().Priority > priority_;
    }

  private:
    const std::uint64_t fileId_;
    const std::uint32_t priority_;
    std::chrono::steady_clock::time_point nextLook_ =
        std::chrono::steady_clock::now() + std::chrono::seconds(1);
};

void NoteWhy(const FileStoreEntry& file, WaitingReason reason) {
    Reasons().Note(Side::Downstream, file.FileId, WaitingStep::Download, std::move(reason));
}

/// Adds what is here, and what a full disk lacks.
void NoteTransfer(const FileStoreEntry& file, WaitingReason reason) {
    const auto present = static_cast<std::uint64_t>(std::max<std::int64_t>(FileGetSize64(file.FilePath), 0));
    const auto size = static_cast<std::uint64_t>(std::max<std::int64_t>(file.FileSize, 0));
    reason.bytes = present;
    reason.whole = size;
    if (reason.code == Waiting::DiskFull) {
        SpaceFor(FileStore::strStorageLocationToUse, reason.bytes);
        reason.whole = size - std::min(size, present);
    }
    NoteWhy(file, std::move(reason));
}

/// Hands the file over to the HTTP module, which receives the datagrams, writes the content to LocalPath and
/// reports the end to multicast_reception.h, perhaps at once: the row is ready for that before. A file that
/// the module does not take is downloaded instead. True when that is recorded.
bool ListenToMulticast(const FileStoreEntry& file) {
    FileStore::debugFileStore.Print("PullThread: Multicast transfer on address : %S and port : %lu.\n",
                                    file.MulticastAddress, file.MulticastPort);
    if (!UpdateFileStatus(Side::Downstream, file.FileId, kStatusDownloading, kStatusMulticastListening,
                          NextTry::AtOnce))
        return false;
    const unsigned int error = ListenHere(file);
    if (error == kKelOk) return true;
    FileStore::debugFileStore.Warning(
        "PullThread: %S cannot be received by multicast (%S) and is downloaded instead\n", file.Key().Text(),
        KelErrorText(error));
    return DownloadByUnicast(file.FileId);
}

void LogBeginning(const FileStoreEntry& file, std::uint64_t offset) {
    if (IsFailing(file))
        FileStore::debugFileStore.Detail(kBeginning, file.FileURL, offset);
    else
        FileStore::debugFileStore.Print(kBeginning, file.FileURL, offset);
}

/// A failed transfer of which the sender's copy, not the way to it, may be the reason. What an earlier
/// attempt has left may be damaged as well: only a file that was fetched from its beginning says something.
bool IsCopyInDoubt(const FileStoreEntry& file, unsigned int result, unsigned int status,
                   std::uint64_t offset) {
    switch (result) {
        case kHttpCompleted:
            return status == kHttpStatusNotFound || status == kHttpStatusRangeNotSatisfiable ||
                   (status == kHttpStatusOk && offset == 0);
        case kHttpBadAnswer:  // more bytes than announced
            return file.FileSize != 0;
        case kHttpCutOff:  // no byte came: the sender may be unable to read there
            return FileGetSize64(file.FilePath) == static_cast<std::int64_t>(offset);
        default:
            return false;
    }
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
    UndoFailedOffers();
    VerifyReportedCopies([this] { return CheckCancelled(false); });
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
    const FileInUse inUse(Side::Downstream, file);
    Attempt attempt;
    const Space space = ExamineSpace(file, attempt.largest);
    if (space == Space::TooLittle) PostponeDownload(file.FileId);
    if (space != Space::Enough) return 0;
    SpaceReservation reserved(BytesToFetch(file));
    if (const KelString folder = FolderOf(file); !PathCreate(folder)) {
        LogDownloadFailure(
            file, KelDebugLevel::Error,
            KelFormat("PullThread: Cannot create the folder %S: check space and permissions", folder),
            "it has no folder");
        NoteWhy(file, {.code = Waiting::LocalFailure,
                       .detail = KelFormat("the folder %S cannot be created: check space and permissions",
                                           folder)});
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
    const bool recorded = isMulticast ? ListenToMulticast(file) : FetchByUnicast(file, sender, attempt);
    if (ReadFileStatus(Side::Downstream, file.FileId) == kStatusAvailable) reserved.Complete();
    return recorded ? 1 : 0;
}

bool FileStorePullThread::FetchByUnicast(const FileStoreEntry& file, const KelString& sender,
                                         Attempt& attempt) {
    const KelString peer = PeerName(sender);
    const DownloadStart start = PrepareResume(file, attempt.largest);
    if (start.isComplete) return FinishCompleteDownload(file);
    attempt.offset = start.offset;
    const unsigned int result = Fetch(file, sender, attempt);
    if (!IsStillWanted(file.FileId)) return RequestSpoiltContent(file);
    if (attempt.madeWay) return InterruptDownload(file);
    const bool isWhole = result == kHttpCompleted &&
                         (attempt.status == kHttpStatusOk || attempt.status == kHttpStatusPartialContent);
    if (isWhole && HasAnnouncedContent(file)) return FinishDownload(file);
    if (isWhole)
        NoteWhy(file, {.code = Waiting::ChecksumWrong, .peer = peer});
    else if (!HttpTransfer::IsHeldByWindow(result, file.Bypass))
        NoteTransfer(file, ReasonOfTransfer(result, attempt.status, peer, attempt.errorText));
    if (!CheckCancelled(false) && IsCopyInDoubt(file, result, attempt.status, attempt.offset))
        ReportDamage(file, sender);
    if (isWhole) return RestartDownloadLater(file);
    if (result == kHttpBadAnswer && file.FileSize == 0) {
        LogDownloadFailure(file, KelDebugLevel::Error,
                           KelFormat("PullThread: %S has no known size and does not end within %lu bytes",
                                     file.FileName, attempt.largest),
                           "its sender has to announce its size");
        return RestartDownloadLater(file);
    }
    if (result != kHttpCompleted) {
        const bool recorded = KeepForRetry(file, result, attempt.errorText);
        if (file.SourceDevice.empty()) ReportTransferResult(result);
        return recorded;
    }
    if (attempt.status == kHttpStatusNotFound || attempt.status == kHttpStatusRangeNotSatisfiable) {
        LogDownloadFailure(
            file, KelDebugLevel::Warning, "PullThread: Relay does not have the requested file",
            KelFormat("%S does not exist on the sender (HTTP status %u)", file.FileURL, attempt.status));
        return RestartDownloadLater(file);
    }
    LogDownloadFailure(file, KelDebugLevel::Warning,
                       KelFormat("PullThread: The request for %S was answered with HTTP status %u",
                                 file.FileURL, attempt.status),
                       "the sender cannot serve it now; its log says why");
    return PostponeDownload(file.FileId);
}

unsigned int FileStorePullThread::Fetch(const FileStoreEntry& file, const KelString& sender,
                                        Attempt& attempt) {
    UrgentFileWatch watch(file);
    HttpTransfer transfer("PullThread", sender, [this, &watch, &attempt, &file] {
        const bool isOutdated = file.SourceDevice.empty() && attempt.parent.HasChanged();
        attempt.madeWay = attempt.madeWay || isOutdated || watch.IsWaiting();
        return attempt.madeWay || CheckCancelled(false);
    });
    HttpMessage request;
    request.SetMethod(HttpMethod::Get);
    request.SetResourcePath(file.FileURL);
    request.SetRangeStart(attempt.offset);
    HttpFileMessage answer;
    answer.SetBodyFile(file.FilePath);
    answer.SetExpectedSize(static_cast<std::uint64_t>(file.FileSize));
    answer.SetSizeLimit(attempt.largest);
    LogBeginning(file, attempt.offset);
    const TransferMark mark(Side::Downstream, file.FileId, attempt.offset);
    const unsigned int result = transfer.Run(request, answer, file.Bypass);
    FileStore::debugFileStore.Detail("PullThread: Download from %S returned %u\n", file.FileURL, result);
    attempt.errorText = transfer.GetErrorText();
    attempt.status = answer.GetStatus();
    attempt.madeWay = attempt.madeWay && result == kHttpCutOff;
    return result;
}
