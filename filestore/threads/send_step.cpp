#include <algorithm>
#include <ctime>

#include "filestore/db/file_status.h"
#include "filestore/db/row_changes.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/threads/push_thread.h"
#include "filestore/transfer/file_record.h"
#include "filestore/transfer/http_transfer.h"
#include "filestore/transfer/upload_policy.h"
#include "kel/file.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/archive.h"
#include "kelcore/error_codes.h"

using namespace filestore;

namespace {

constexpr const char* kOfferAction = "FileStoreReceiveFile";
constexpr int kArchiveLevel = 6;

// What one archive takes; a file that alone is above it travels on its own. Receivers refuse what unpacks to
// more than they are set to take, and a container of more than 64 MiB, such as the index, cannot be read.
constexpr std::int64_t kMaxArchiveBytes = std::int64_t{1} << 30;  ///< unpacked
constexpr std::size_t kMaxIndexBytes = std::size_t{32} << 20;
constexpr std::size_t kRecordBytes = 2048;  ///< of a file's entry in the index, without its FileInfo

std::shared_ptr<const DBResult> SelectFilesToSend(const KelString& policyFilter) {
    return FileStore::pDbConnectionUpstream->Query(
        KelFormat("SELECT * FROM %s WHERE %s IN ('%s', '%s') AND %s <> 0 AND %s <> '' %S %S LIMIT %u",
                  kTableFiles, kFileStatus, kStatusToBeUploaded, kStatusToBePacked, kUpstream, kSourceDevice,
                  policyFilter, BypassFilter(), UploadBatchSize()));
}

KelString NewArchivePath() {
    return KelFormat("%S/Temp/PACKEDFILES_%u_%u.zip", FileStore::strModuleDataPath,
                     static_cast<std::uint32_t>(std::rand()), static_cast<std::uint32_t>(std::time(nullptr)));
}

KelString UpdateStatement(std::uint64_t fileId, const char* status, const KelString& url) {
    return KelFormat("UPDATE %s SET %s = '%Q', %s = '%s', %s = 0 WHERE %s = %lu", kTableFiles, kFileUrl, url,
                     kFileStatus, status, kLastStatusChangeTime, kFileId, fileId);
}

/// The size is what a child announced; its content may be larger.
std::int64_t ContentBytes(const FileStoreEntry& entry) {
    return std::max(entry.FileSize, FileGetSize64(ContentPath(entry, true)));
}

bool IsToBePacked(const FileStoreEntry& entry) {
    return IsPacking() && entry.FileType != kPackedFilesType && ContentBytes(entry) <= kMaxArchiveBytes &&
           entry.FileInfo.size() + kRecordBytes <= kMaxIndexBytes;
}

}  // namespace

/// What one send pass gathers: the index of the archive and the updates of the rows that were taken.
struct FileStorePushThread::Batch {
    KelContainer index;
    std::set<std::uint64_t> packed;
    std::int64_t packedBytes = 0;
    std::size_t indexBytes = 0;
    KelVector<KelString> updates;

    bool HasRoomFor(const FileStoreEntry& entry) const {
        return ContentBytes(entry) <= kMaxArchiveBytes - packedBytes &&
               entry.FileInfo.size() + kRecordBytes <= kMaxIndexBytes - indexBytes;
    }
    void Pack(const FileStoreEntry& entry) {
        index.SetContainer("PackedFile", FileRecordOf(entry), static_cast<std::uint32_t>(packed.size()));
        packed.insert(entry.FileId);
        packedBytes += ContentBytes(entry);
        indexBytes += entry.FileInfo.size() + kRecordBytes;
        updates.push_back(UpdateStatement(entry.FileId, kStatusToBePacked, ""));
    }
};

FileStorePushThread::Outcome FileStorePushThread::SendFile(bool& reachedParent, bool packedPass) {
    const auto policyFilter =
        UploadPolicyFilter(packedPass, packedPass ? "archives to send upstream" : "files to send upstream");
    if (!policyFilter || !IsUploadAllowed()) return Outcome::Nothing;
    const auto rows = SelectFilesToSend(*policyFilter);
    if (!rows || rows->GetRowCount() == 0) return Outcome::Nothing;
    KelString parentUrl, parentGuid;
    FileStore::GetRelayUrl(parentUrl, parentGuid);
    if (parentUrl.empty()) return Outcome::Failed;

    Batch batch;
    for (std::size_t row = 0; row < rows->GetRowCount() && !CheckCancelled(false); ++row) {
        FileStoreEntry entry;
        entry.LoadFromResult(*rows, row);
        if (IsRecent(entry.LastStatusChangeTime)) break;
        if (!IsToBePacked(entry)) {
            if (!SendRow(entry, parentUrl, batch, reachedParent)) break;
            continue;
        }
        if (!batch.HasRoomFor(entry)) break;  // the next archive takes it
        FileStore::debugFileStore.Detail("PushThread: File %S/%S/%S will be packed.\n", entry.FileType,
                                         entry.FileLabel, entry.FileName);
        batch.Pack(entry);
        reachedParent = true;
    }
    if (!batch.packed.empty()) {
        if (!CreateArchive(batch.index)) return Outcome::Failed;
        indexedFiles_ = batch.packed;
    }
    return CommitBatch(batch) ? Outcome::Done : Outcome::Failed;
}

/// False when the batch must end here.
bool FileStorePushThread::SendRow(const FileStoreEntry& entry, const KelString& parentUrl, Batch& batch,
                                  bool& reachedParent) {
    KelContainer record = FileRecordOf(entry);
    FileStore::debugFileStore.Detail("PushThread: Sending %S/%S/%S upstream\n", entry.FileType,
                                     entry.FileLabel, entry.FileName);
    const unsigned int error =
        ActionDbInvokeContainer(nullptr, parentUrl, kOfferAction, record, 0, -1, -1, nullptr);
    if (error != 0) return HandleRefusal(entry, error);
    const KelString url = record.GetString(kFileUrl);
    if (!url.starts_with('/') || HasControlCharacter(url)) return HandleRefusal(entry, kKelErrorBadInput);
    batch.updates.push_back(UpdateStatement(entry.FileId, kStatusUploading, url));
    reachedParent = true;
    return true;
}

/// A parent that knows another GUID scheme refuses single files, the others may pass; any other refusal ends
/// the batch.
bool FileStorePushThread::HandleRefusal(const FileStoreEntry& entry, unsigned int error) {
    FileStore::debugFileStore.Detail("PushThread: File send returned %u\n", error);
    const bool wrongScheme = error == kKelErrorGuidScheme;
    if (wrongScheme && !entry.FirstRelay.empty()) {
        if (SetFileStatus(true, entry.FileId, entry.FileStatus, kStatusAvailable, TakenUp::AtOnce))
            ++rowsTaken_;
        return true;
    }
    KelString ownUrl;
    if (entry.FirstRelay.empty()) {
        if (wrongScheme) FileStore::UpdateGuidScheme();
        FileStore::GetOurDeviceGUID(ownUrl, true);
    }
    if (!ownUrl.empty()) {
        const KelLock lock(FileStore::mutexUpstream);
        FileStore::pDbConnectionUpstream->Query(KelFormat("UPDATE %s SET %s = '%S' WHERE %s = %lu",
                                                          kTableFiles, kSourceDevice, ownUrl, kFileId,
                                                          entry.FileId));
    }
    if (SetFileStatus(true, entry.FileId, entry.FileStatus, kStatusToBeUploaded, TakenUp::AfterTimeout))
        ++rowsTaken_;
    FileStore::debugFileStore.Detail("PushThread: File sending returned %u\n", error);
    return wrongScheme;
}

/// Begins the archive with its index; the files follow in the upload pass.
bool FileStorePushThread::CreateArchive(const KelContainer& index) {
    if (!FileStore::strArchiveFilePath.empty()) FileDelete(FileStore::strArchiveFilePath);
    FileStore::strArchiveFilePath = NewArchivePath();
    KelString indexPath;
    if (const KelStatus saved = index.SaveToTempFile(indexPath, FileStore::strModuleDataPath + "/Temp");
        !saved) {
        FileStore::debugFileStore.Error("PushThread: Cannot write the index of an archive: %S\n",
                                        saved.Error().message);
        return false;
    }
    GenericArchive archive(FileStore::eArchiveType);
    const bool created = archive.Create(FileStore::strArchiveFilePath) == kArchiveDone &&
                         archive.AddEntry(kPackingIndexEntry, indexPath, kArchiveLevel) == kArchiveDone &&
                         archive.Close() == kArchiveDone;
    FileDelete(indexPath);
    if (!created)
        FileStore::debugFileStore.Error(
            "PushThread: Cannot create archive %S: %S; check the space of its folder\n",
            FileStore::strArchiveFilePath, archive.GetErrorText());
    return created;
}

bool FileStorePushThread::CommitBatch(const Batch& batch) {
    if (batch.updates.empty()) return true;
    const KelLock lock(FileStore::mutexUpstream);
    DBTransaction transaction(*FileStore::pDbConnectionUpstream);
    for (const KelString& update : batch.updates)
        if (FileStore::pDbConnectionUpstream->Query(update) == nullptr) return false;
    if (!transaction.Commit()) return false;
    rowsTaken_ += batch.updates.size() - batch.packed.size();
    return true;
}
