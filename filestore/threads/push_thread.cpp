#include "filestore/threads/push_thread.h"

#include <ctime>

#include "filestore/db/file_status.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/transfer/http_transfer.h"
#include "filestore/transfer/upload_policy.h"

namespace {

/// False also when the database cannot tell.
bool HasFilesToPack() {
    const auto row = FileStore::pDbConnectionUpstream->Query(KelFormat(
        "SELECT %s FROM %s WHERE %s IN ('%s', '%s') AND %s <> 0 AND %s <> '' AND %s <> '%s' LIMIT 1",
        filestore::kFileId, filestore::kTableFiles, filestore::kFileStatus, filestore::kStatusToBeUploaded,
        filestore::kStatusToBePacked, filestore::kUpstream, filestore::kSourceDevice, filestore::kFileType,
        filestore::kPackedFilesType));
    return row && row->GetRowCount() != 0;
}

}  // namespace

FileStorePushThread::FileStorePushThread() : FileThreadBase("FileStore", "QueueGap", 30) {}

void FileStorePushThread::InitCurrentTimeout() {
    currentTimeout_ = FileStore::GetRandomTimeout(FileStore::ulPushTimeout);
    FileStore::debugFileStore.Trace("PushThread: current randomized timeout set to %lu seconds\n",
                                    currentTimeout_);
}

bool FileStorePushThread::IsRecent(std::int64_t statusTime) const {
    return statusTime > std::time(nullptr) - static_cast<std::int64_t>(currentTimeout_);
}

bool FileStorePushThread::DoWork() {
    if (FileStore::fManualUploadRequested && !StartManualUpload()) return false;
    bool reachedParent = false;
    const bool busy = RunPasses(reachedParent);
    FinishManualUpload();
    if (reachedParent) InitCurrentTimeout();
    return busy;
}

bool FileStorePushThread::StartManualUpload() {
    FileStore::fProcessManualUpload = true;
    FileStore::fManualUploadRequested = false;
    const auto rows = FileStore::pDbConnectionUpstream->Query(
        KelFormat("SELECT COUNT (*) FROM %s WHERE %s = '%s' AND %s <> 0 AND %s <> '' %S",
                  filestore::kTableFiles, filestore::kFileStatus, filestore::kStatusToBeUploaded,
                  filestore::kUpstream, filestore::kSourceDevice, filestore::BypassFilter()));
    if (!rows || rows->GetRowCount() == 0) {
        FileStore::debugFileStore.Error(
            "PushThread: Failed to get the current number of files to be uploaded.\n");
        return false;
    }
    FileStore::uLimit = static_cast<std::uint32_t>(rows->GetInt64(0, 0));
    FileStore::uCurrent = 0;  // a request during a manual upload starts its count anew
    FileStore::debugFileStore.Print("Start manual upload process (%u files to upload).\n",
                                    FileStore::uLimit.load());
    return true;
}

/// Returns whether the last round of passes did some work.
bool FileStorePushThread::RunPasses(bool& reachedParent) {
    bool busy = true;
    while (busy && FileStore::uCurrent <= FileStore::uLimit) {
        if (FileStore::fProcessManualUpload && FileStore::uCurrent != 0)
            FileStore::debugFileStore.Print("Manual upload: %u/%u files processed\n",
                                            FileStore::uCurrent.load(), FileStore::uLimit.load());
        const std::uint64_t takenBefore = rowsTaken_;
        if (CheckCancelled(false)) return false;
        const Outcome requested = RequestFile(reachedParent);
        if (requested == Outcome::Failed) return false;
        busy = requested == Outcome::Done;

        for (const bool packedPass : {false, true}) {
            if (packedPass && !filestore::IsPacking()) break;
            if (CheckCancelled(false)) return false;
            if ((packedPass || phase_ == Phase::Send) && !RunSendPass(packedPass, reachedParent, busy))
                return busy;
            if (CheckCancelled(false)) return false;
            if (phase_ != Phase::Upload) break;
            RunUploadPass(packedPass, reachedParent, busy);
        }
        if (rowsTaken_ == takenBefore) return false;
    }
    return busy;
}

/// False when the round must end.
bool FileStorePushThread::RunSendPass(bool packedPass, bool& reachedParent, bool& busy) {
    const Outcome outcome = SendFile(reachedParent, packedPass);
    if (outcome == Outcome::Failed) {
        if (packedPass) phase_ = Phase::Send;
        return false;
    }
    phase_ = Phase::Upload;
    if (outcome == Outcome::Done) busy = true;
    return true;
}

void FileStorePushThread::RunUploadPass(bool packedPass, bool& reachedParent, bool& busy) {
    const Outcome outcome = UploadFile(reachedParent, packedPass);
    phase_ = outcome == Outcome::Failed ? Phase::Upload : Phase::Send;
    if (outcome == Outcome::Done) busy = true;
}

/// A manual upload lasts until it has processed more than it counted, so also over a closed window. Of what
/// it counted, archives are not packed and absent files are dropped: with nothing left to pack it is over as
/// well.
void FileStorePushThread::FinishManualUpload() {
    if (!FileStore::fProcessManualUpload) return;
    if (FileStore::uCurrent <= FileStore::uLimit && HasFilesToPack()) return;
    FileStore::debugFileStore.Print("Manual upload process finished.\n");
    FileStore::fProcessManualUpload = false;
    FileStore::uCurrent = 0;
    FileStore::uLimit = 0;
}
