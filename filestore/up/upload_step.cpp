#include "filestore/db/file_status.h"
#include "filestore/db/files_selection.h"
#include "filestore/exchange/file_record.h"
#include "filestore/exchange/http_transfer.h"
#include "filestore/state/contact.h"
#include "filestore/state/file_store.h"
#include "filestore/state/parent.h"
#include "filestore/state/removal.h"
#include "filestore/state/store_layout.h"
#include "filestore/state/waiting_reasons.h"
#include "filestore/up/manual_upload.h"
#include "filestore/up/patch_inventory.h"
#include "filestore/up/push_thread.h"
#include "filestore/up/upload_policy.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/metrics/transfer_counters.h"

using namespace filestore;

namespace {

constexpr unsigned int kHttpNotFound = 404;
constexpr unsigned int kHttpUnprocessable = 422;

/// True for a file of this device whose content is no longer what was offered. A file that this device passes
/// on, and an archive, are what they were when they came into the store, or damaged.
bool HasChangedSinceOffer(const FileStoreEntry& entry, const KelString& path) {
    KelString checksum;
    if (!FileMd5(path, checksum)) return false;
    if (FileGetSize64(path) == entry.FileSize && IsEqualTo(checksum, entry.FileChecksum, false)) return false;
    if (entry.FirstRelay.empty() && entry.FileType != kPackedFilesType) return true;
    FileStore::debugFileStore.Error(
        "PushThread: The copy of %S from %S is damaged (%S): have its device send it again\n",
        entry.Key().Text(), entry.SourceDevice, path);
    return false;
}

/// Has the store take the content in anew, under its present checksum, in place of the row.
bool OfferChangedFile(const FileStoreEntry& entry, const KelString& path) {
    FileOffer offer = FileRecordOf(entry);
    offer.key.checksum.clear();
    offer.size.reset();
    offer.firstRelay.reset();
    (entry.ExternalFile ? offer.filePath : offer.movePath) = path;
    KelContainer call = offer.ToContainer();
    const unsigned int error = CallLocal("FileStoreReceiveFile", call);
    if (error != kKelOk) {
        FileStore::debugFileStore.Error(
            "PushThread: %S has changed since it was offered, and the store does not take it again, error "
            "%u\n",
            path, error);
        return false;
    }
    FileStore::debugFileStore.Warning("PushThread: %S has changed since it was offered: it is offered anew\n",
                                      path);
    return DeleteFileRow(Side::Upstream, entry.FileId);
}

}  // namespace

/// What one upload pass has done so far.
struct FileStorePushThread::UploadPass {
    ParentWatch parent;
    KelString parentUrl;
    IdList packed;
    IdList uploaded;
    /// Nothing of the pass is recorded and the archive is dropped: the next pass repeats it.
    bool failed = false;
    bool uploadEnded = false;  ///< before its time: the parent did not accept a file, or the window closed
};

FileStorePushThread::Outcome FileStorePushThread::UploadFile(bool& reachedParent, bool packedPass) {
    const auto filter = UploadFilterNow(packedPass, packedPass ? "archive to upload" : "files to upload");
    if (!filter) return Outcome::Nothing;
    const FileRows rows = SelectFilesToUpload(*filter);
    if (rows.empty()) return Outcome::Nothing;
    UploadPass pass;
    KelString parentGuid;
    FileStore::GetRelayUrl(pass.parentUrl, parentGuid);
    if (pass.parentUrl.empty()) return Outcome::Failed;

    for (const FileStoreEntry& entry : rows) {
        if (pass.failed || pass.uploadEnded || IsRecent(entry.LastStatusChangeTime)) break;
        UploadOrPackRow(entry, pass);
        if (CheckCancelled(false)) pass.failed = true;  // what is half done is done again after the restart
    }
    if (!pass.uploaded.IsEmpty()) reachedParent = true;
    FinishArchive(pass);
    if (!pass.failed) {
        const bool packedKept =
            UpdateFileStatus(Side::Upstream, pass.packed, kStatusPackedFile, NextTry::AtOnce);
        const bool uploadedKept =
            UpdateFileStatus(Side::Upstream, pass.uploaded, kStatusAvailable, NextTry::AtOnce);
        if (!packedKept || !uploadedKept) return Outcome::Failed;
        rowsTaken_ += pass.packed.Count() + pass.uploaded.Count();
    }
    return pass.uploadEnded ? Outcome::Failed : Outcome::Done;
}

void FileStorePushThread::UploadOrPackRow(const FileStoreEntry& entry, UploadPass& pass) {
    const FileInUse inUse(Side::Upstream, entry);
    const KelString path = ContentPath(entry, Side::Upstream);
    if (FileIsMissing(path)) {
        FileStore::debugFileStore.Error("PushThread: File %S is not present\n", path);
        if (DeleteFileRow(Side::Upstream, entry.FileId)) ++rowsTaken_;
    } else if (entry.FileStatus == kStatusToBePacked) {
        PackRow(entry, path, pass);
    } else {
        switch (UploadRow(entry, path, pass)) {
            case Upload::Stored:
                pass.uploaded.Add(entry.FileId);
                NoteUploadedInventory(entry);
                break;
            case Upload::Refused:
                ++rowsTaken_;
                break;
            case Upload::Held:
                pass.uploadEnded = true;
                break;
            case Upload::Failed:
                pass.failed = pass.uploadEnded = true;
        }
    }
}

void FileStorePushThread::PackRow(const FileStoreEntry& entry, const KelString& path, UploadPass& pass) {
    if (!IsPacking() || !archive_.Lists(entry)) return;  // the next send pass selects it again
    if (archive_.AddContents(entry, path))
        pass.packed.Add(entry.FileId);
    else
        pass.failed = true;
}

/// Sends the archive that got contents on its way as a file of its own. A pass that failed for whatever
/// reason drops the archive; its files wait for the next one.
void FileStorePushThread::FinishArchive(UploadPass& pass) {
    if (pass.failed) {
        archive_.Drop();
        return;
    }
    if (pass.packed.IsEmpty()) return;
    if (archive_.EnterStore())
        CountManualUpload(static_cast<unsigned int>(pass.packed.Count()));
    else
        pass.failed = true;
}

FileStorePushThread::Upload FileStorePushThread::UploadRow(const FileStoreEntry& entry, const KelString& path,
                                                           const UploadPass& pass) {
    FileStore::debugFileStore.Detail("PushThread: Uploading %S to %S\n", entry.Key().Text(), entry.FileURL);
    HttpTransfer transfer("PushThread", pass.parentUrl,
                          [this, &pass] { return CheckCancelled(false) || pass.parent.HasChanged(); });
    HttpMessage answer;
    const auto sent = std::make_shared<std::atomic<std::uint64_t>>(0);
    const TransferMark mark(Side::Upstream, entry.FileId, 0, sent);
    const unsigned int result = uploads_.Put(transfer, entry, path, sent, answer);
    FileStore::debugFileStore.Detail("PushThread: File upload returned %u\n", result);
    const KelString failure = KelFormat("upload %lu", entry.FileId);
    if (result == kHttpCompleted && answer.GetStatus() / 100 == 2) {
        Reasons().MovedOn(Side::Upstream, entry.FileId);
        KelTransfers(KelDirection::Up, KelFlow::Out, KelTransport::Http).files.Add();
        FileStore::failures.Succeeded(failure, KelFormat("PushThread: %S was uploaded", entry.Key().Text()));
        return Upload::Stored;
    }
    if (transfer.IsHeldByWindow(result, entry.Bypass)) return Upload::Held;  // it goes on when that opens
    const WaitingReason reason =
        ReasonOfTransfer(result, answer.GetStatus(), PeerName(pass.parentUrl), transfer.GetErrorText());
    Reasons().Note(Side::Upstream, entry.FileId, WaitingStep::Upload, reason);
    if (pass.parent.HasChanged()) return Upload::Failed;  // it is offered to the present one
    FileStore::failures.Failed(KelDebugLevel::Warning, failure,
                               KelFormat("PushThread: Upload of %S failed: %S", entry.Key().Text(),
                                         result == kHttpCompleted ? reason.Text() : transfer.GetErrorText()));
    const unsigned int refusal = result == kHttpCompleted ? answer.GetStatus() : 0;
    if (refusal == kHttpNotFound) {
        // The parent has lost the offer, or had done with it when its answer to an earlier PUT was lost.
        UpdateFileStatus(Side::Upstream, entry.FileId, kStatusUploading, kStatusToBeUploaded,
                         NextTry::AfterTimeout);
        return Upload::Refused;
    }
    const bool isRefused = refusal == kHttpUnprocessable;
    if (!isRefused || !HasChangedSinceOffer(entry, path) || !OfferChangedFile(entry, path))
        UpdateFileStatus(Side::Upstream, entry.FileId, kStatusUploading, kStatusUploading,
                         NextTry::AfterTimeout);
    ReportTransferResult(result);
    return isRefused ? Upload::Refused : Upload::Failed;
}
