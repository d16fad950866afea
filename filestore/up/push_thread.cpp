#include "filestore/up/push_thread.h"

#include <ctime>

#include "filestore/db/database.h"
#include "filestore/state/file_store.h"
#include "filestore/state/settings.h"
#include "filestore/up/manual_upload.h"
#include "filestore/up/upload_policy.h"

FileStorePushThread::FileStorePushThread() : FileThreadBase("FileStore", "QueueGap", 30) {}

void FileStorePushThread::InitCurrentTimeout() {
    currentTimeout_ = FileStore::GetRandomTimeout(FileStore::ulPushTimeout);
    FileStore::debugFileStore.Trace("PushThread: current randomized timeout set to %lu seconds\n",
                                    currentTimeout_);
}

bool FileStorePushThread::IsRecent(std::int64_t statusTime) const {
    return statusTime > FileStoreDueBefore(currentTimeout_) &&
           statusTime <= filestore::LatestPossibleTime(std::time(nullptr));
}

bool FileStorePushThread::DoWork() {
    if (!filestore::StartRequestedManualUpload()) return false;
    bool reachedParent = false;
    const bool busy = RunPasses(reachedParent);
    filestore::FinishManualUpload();
    if (reachedParent) InitCurrentTimeout();
    return busy;
}

/// Returns whether the last round of passes did some work.
bool FileStorePushThread::RunPasses(bool& reachedParent) {
    bool busy = true;
    // Both numbers are 0 unless a manual upload runs.
    while (busy && FileStore::uCurrent <= FileStore::uLimit) {
        filestore::LogManualUpload();
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
