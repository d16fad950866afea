#include "filestore/db/file_status.h"
#include "filestore/db/files_selection.h"
#include "filestore/exchange/http_transfer.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "filestore/up/manual_upload.h"
#include "filestore/up/push_thread.h"
#include "filestore/up/upload_policy.h"
#include "kel/file.h"

using namespace filestore;

/// What one upload pass has done so far.
struct FileStorePushThread::UploadPass {
    KelString parentUrl;
    IdList packed;
    IdList uploaded;
    /// Nothing of the pass is recorded and the archive is dropped: the next pass repeats it.
    bool failed = false;
    bool uploadFailed = false;  ///< failed because the parent did not accept a file
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
        if (pass.failed || IsRecent(entry.LastStatusChangeTime)) break;
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
    return pass.uploadFailed ? Outcome::Failed : Outcome::Done;
}

void FileStorePushThread::UploadOrPackRow(const FileStoreEntry& entry, UploadPass& pass) {
    const KelString path = ContentPath(entry, Side::Upstream);
    if (!FileExists(path)) {
        FileStore::debugFileStore.Error("PushThread: File %S is not present\n", path);
        if (DeleteFileRow(Side::Upstream, entry.FileId)) ++rowsTaken_;
    } else if (entry.FileStatus == kStatusToBePacked) {
        PackRow(entry, path, pass);
    } else if (UploadRow(entry, path, pass.parentUrl)) {
        pass.uploaded.Add(entry.FileId);
    } else {
        pass.failed = pass.uploadFailed = true;
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

bool FileStorePushThread::UploadRow(const FileStoreEntry& entry, const KelString& path,
                                    const KelString& parentUrl) {
    FileStore::debugFileStore.Detail("PushThread: Uploading %S to %S\n", entry.Key().Text(), entry.FileURL);
    HttpTransfer transfer("PushThread", parentUrl, [this] { return CheckCancelled(false); });
    HttpFileMessage request;
    request.SetMethod(HttpMethod::Put);
    request.SetResourcePath(entry.FileURL);
    request.SetBodyFile(path);
    HttpMessage answer;
    const unsigned int result = transfer.Run(request, answer, entry.Bypass);
    FileStore::debugFileStore.Detail("PushThread: File upload returned %u\n", result);
    const bool stored = result == kHttpCompleted && answer.GetStatus() / 100 == 2;
    if (!stored) {
        FileStore::debugFileStore.Warning("PushThread: Upload of %S failed (HTTP status %u): %S\n",
                                          entry.FileName, answer.GetStatus(), transfer.GetErrorText());
        UpdateFileStatus(Side::Upstream, entry.FileId, kStatusUploading, NextTry::AfterTimeout);
    }
    return stored;
}
