#include "filestore/db/file_status.h"
#include "filestore/db/row_changes.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/threads/push_thread.h"
#include "filestore/transfer/file_record.h"
#include "filestore/transfer/http_transfer.h"
#include "filestore/transfer/upload_policy.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/archive.h"

using namespace filestore;

namespace {

constexpr int kArchiveLevel = 6;

std::shared_ptr<const DBResult> SelectFilesToUpload(const KelString& policyFilter) {
    return FileStore::pDbConnectionUpstream->Query(KelFormat(
        "SELECT %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s FROM %s WHERE %s IN ('%s', '%s') %S %S LIMIT %u",
        kFileId, kFileType, kFileLabel, kFileName, kFileChecksum, kFileUrl, kBypass, kLastStatusChangeTime,
        kFileStatus, kFilePath, kExternalFile, kTableFiles, kFileStatus, kStatusUploading, kStatusToBePacked,
        policyFilter, BypassFilter(), UploadBatchSize()));
}

std::unique_ptr<GenericArchive> OpenArchive() {
    if (FileStore::strArchiveFilePath.empty() || !FileExists(FileStore::strArchiveFilePath)) return nullptr;
    auto archive = std::make_unique<GenericArchive>(FileStore::eArchiveType);
    return archive->Open(FileStore::strArchiveFilePath) == kArchiveDone ? std::move(archive) : nullptr;
}

}  // namespace

/// What one upload pass gathers.
struct FileStorePushThread::UploadBatch {
    KelString parentUrl;
    std::unique_ptr<GenericArchive> archive;
    IdList packed;
    IdList uploaded;
    bool failed = false;
    bool uploadFailed = false;
};

FileStorePushThread::Outcome FileStorePushThread::UploadFile(bool& reachedParent, bool packedPass) {
    const auto policyFilter =
        UploadPolicyFilter(packedPass, packedPass ? "archive to upload" : "files to upload");
    if (!policyFilter || !IsUploadAllowed()) return Outcome::Nothing;
    const auto rows = SelectFilesToUpload(*policyFilter);
    if (!rows || rows->GetRowCount() == 0) return Outcome::Nothing;
    UploadBatch batch;
    KelString parentGuid;
    FileStore::GetRelayUrl(batch.parentUrl, parentGuid);
    if (batch.parentUrl.empty()) return Outcome::Failed;

    batch.archive = OpenArchive();
    for (std::size_t row = 0; row < rows->GetRowCount() && !batch.failed; ++row) {
        FileStoreEntry entry;
        entry.LoadFromResult(*rows, row);
        if (IsRecent(entry.LastStatusChangeTime)) break;
        TakeRow(entry, batch);
        if (CheckCancelled(false)) batch.failed = true;  // what is half done is done again after the restart
    }
    if (!batch.uploaded.IsEmpty()) reachedParent = true;
    if (!batch.packed.IsEmpty() || batch.failed) FinishArchive(batch);
    if (!batch.failed) {
        const bool packedKept = SetFileStatus(true, batch.packed, kStatusPackedFile, TakenUp::AtOnce);
        const bool uploadedKept = SetFileStatus(true, batch.uploaded, kStatusAvailable, TakenUp::AtOnce);
        if (!packedKept || !uploadedKept) return Outcome::Failed;
        rowsTaken_ += batch.packed.Count() + batch.uploaded.Count();
    }
    return batch.uploadFailed ? Outcome::Failed : Outcome::Done;
}

void FileStorePushThread::TakeRow(const FileStoreEntry& entry, UploadBatch& batch) {
    const KelString path = ContentPath(entry, true);
    if (!FileExists(path)) {
        FileStore::debugFileStore.Error("PushThread: File %S is not present\n", path);
        if (DeleteFileRow(true, entry.FileId)) ++rowsTaken_;
    } else if (entry.FileStatus == kStatusToBePacked) {
        PackRow(entry, path, batch);
    } else if (UploadRow(entry, path, batch.parentUrl)) {
        batch.uploaded.Add(entry.FileId);
    } else {
        batch.failed = batch.uploadFailed = true;
    }
}

/// Only what the archive's index names goes into it: a file that the receiver cannot find in the index would
/// be lost.
void FileStorePushThread::PackRow(const FileStoreEntry& entry, const KelString& path, UploadBatch& batch) {
    if (!IsPacking() || !indexedFiles_.contains(entry.FileId)) return;  // the next send pass takes it up
    if (!batch.archive) {
        FileStore::debugFileStore.Error("PushThread: archive file %S cannot be found\n",
                                        FileStore::strArchiveFilePath);
        batch.failed = true;
        return;
    }
    FileStore::debugFileStore.Print("PushThread: Adding file %S to archive %S\n", entry.FileName,
                                    FileStore::strArchiveFilePath);
    const KelString name = KelFormat("upstream/%S/%S/%S/%S", entry.FileType, entry.FileLabel,
                                     entry.FileChecksum, entry.FileName);
    if (batch.archive->AddEntry(name, path, kArchiveLevel) != kArchiveDone) {
        FileStore::debugFileStore.Error("PushThread: Failed to add file %S to archive %S\n", entry.FileName,
                                        FileStore::strArchiveFilePath);
        batch.failed = true;
        return;
    }
    batch.packed.Add(entry.FileId);
}

/// Sends a complete archive on its way as a file of its own, or drops it when the batch failed.
void FileStorePushThread::FinishArchive(UploadBatch& batch) {
    if (batch.archive && !batch.failed && batch.archive->Close() != kArchiveDone) {
        FileStore::debugFileStore.Error(
            "PushThread: Cannot write archive %S: %S; check the space of its folder\n",
            FileStore::strArchiveFilePath, batch.archive->GetErrorText());
        batch.failed = true;
    }
    batch.archive.reset();
    indexedFiles_.clear();
    if (!batch.failed && !EnterArchive()) batch.failed = true;
    if (batch.failed && !FileStore::strArchiveFilePath.empty()) FileDelete(FileStore::strArchiveFilePath);
    FileStore::strArchiveFilePath.clear();
    if (!batch.failed && FileStore::fProcessManualUpload)
        FileStore::uCurrent += static_cast<std::uint32_t>(batch.packed.Count());
}

bool FileStorePushThread::EnterArchive() {
    FileStore::debugFileStore.Print("PushThread: Sending archive file %S upstream.\n",
                                    FileStore::strArchiveFilePath);
    KelString folder, name, deviceUrl;
    SplitPath(FileStore::strArchiveFilePath, folder, name);
    FileStore::GetOurDeviceGUID(deviceUrl, true);
    KelContainer offer;
    offer.SetString(kFileType, kPackedFilesType);
    offer.SetString(kFileLabel, kPackedFilesType);
    offer.SetString(kFileName, name);
    offer.SetString(kFileChecksum, "");
    offer.SetString(kSourceDevice, deviceUrl);
    offer.SetBool(kBypass, false);
    offer.SetBool(kUpstream, true);
    offer.SetString("MovePath", FileStore::strArchiveFilePath);
    const unsigned int error =
        ActionDbInvokeContainer(nullptr, "", "FileStoreReceiveFile", offer, 0, -1, -1, nullptr);
    if (error != 0)
        FileStore::debugFileStore.Error("PushThread: The store did not take archive %S, error %u\n",
                                        FileStore::strArchiveFilePath, error);
    return error == 0;
}

bool FileStorePushThread::UploadRow(const FileStoreEntry& entry, const KelString& path,
                                    const KelString& parentUrl) {
    FileStore::debugFileStore.Detail("PushThread: Uploading %S/%S/%S to %S\n", entry.FileType,
                                     entry.FileLabel, entry.FileName, entry.FileURL);
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
        SetFileStatus(true, entry.FileId, kStatusUploading, TakenUp::AfterTimeout);
    }
    return stored;
}
