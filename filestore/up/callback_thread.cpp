#include "filestore/up/callback_thread.h"

#include "filestore/db/callback_table.h"
#include "filestore/db/file_status.h"
#include "filestore/db/files_table.h"
#include "filestore/packages/unwanted_package.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "filestore/up/archive_intake.h"
#include "filestore/up/arrived_files.h"
#include "filestore/up/upload_policy.h"
#include "filestore/up/upload_repair.h"
#include "filestore/up/upstream_file.h"
#include "kel/format.h"
#include "kel/ini_file.h"

using namespace filestore;

namespace {

constexpr std::chrono::minutes kRepairInterval{5};

/// Removes the file that has arrived under `url`, which no row names: its row was removed after the PUT had
/// been accepted. What does not lie in the upstream store stays.
void DeleteUnregisteredFile(const KelString& url) {
    const auto place = ParseStoredUrl(url);
    if (!place || place->side != Side::Upstream) {
        FileStore::debugFileStore.Warning("CallbackThread: %S is not in the upstream store and stays\n", url);
        return;
    }
    // The lock keeps out an offer between the lookup and the removal.
    const KelLock lock(FileStore::mutexUpstream);
    const auto file = FindUpstreamFileOfUrl(url);
    if (!file || file->row) return;
    FileStore::debugFileStore.Warning("CallbackThread: Received unregistered file, deleting %S\n", url);
    DeleteFileAndFolder(file->Path());
}

bool SetArrived(const FileStoreEntry& entry, const KelString& status) {
    if (!UpdateFileStatus(Side::Upstream, entry.FileId, kStatusReceiving, status, NextTry::AtOnce))
        return false;
    if (status == kStatusToBeUploaded) WakeToSend(entry.FileType);
    return true;
}

}  // namespace

FileStoreCallbackThread::FileStoreCallbackThread() : FileThreadBase("FileStore", "QueueGap", 30) {}

void FileStoreCallbackThread::LoadSqlList() {
    sqlList_.clear();
    IniFile ini;
    ini.Open(FileStore::strModuleIniFile);
    KelString statement;
    for (unsigned int number = 1;
         ini.GetEntryValue("FileStore", KelFormat("SqlExecute%u", number), statement, ""); ++number)
        sqlList_.push_back(statement);
}

unsigned int FileStoreCallbackThread::GetCallbackCount() {
    return CountArrivedFiles();
}

bool FileStoreCallbackThread::DoWork() {
    RepairFromTimeToTime();
    FileStore::debugFileStore.Trace("CallbackThread: Enter loop\n");
    std::uint64_t last = 0;
    while (const auto arrived = NextArrivedFile(last)) {
        last = arrived->id;
        if (ReceiveFile(arrived->url)) RemoveArrivedFile(arrived->id);
        if (CheckCancelled(false)) return true;
    }
    FileStore::debugFileStore.Trace("CallbackThread: Exit loop\n");
    if (!sqlList_.empty()) RunUpstreamStatements(sqlList_);
    FileStore::WakeWorker(Worker::Handler);
    return false;
}

/// The queue may have lost entries: its database is not synced at every change, and a report of an arrival
/// may have failed.
void FileStoreCallbackThread::RepairFromTimeToTime() {
    const auto now = std::chrono::steady_clock::now();
    if (now - lastRepair_ < kRepairInterval) return;
    lastRepair_ = now;
    FileStoreRepairUploads();
}

/// A package of an administrated relay is handled by the device that administrates the relay and refused by
/// any other. A package that names no relay travels on like any other file. False when the relay could not be
/// informed.
bool FileStoreCallbackThread::ReceivePackage(const FileStoreEntry& entry, const KelString& targetStatus) {
    switch (OwnerOfPackage(entry)) {
        case PackageOwner::None:
            return SetArrived(entry, targetStatus);
        case PackageOwner::ThisDevice:
            return SetArrived(entry, kStatusToBeHandled);
        case PackageOwner::Other:
            break;
    }
    return Reject(entry);
}

/// A package names the device that is called, which may let the call run into its time-outs. Other uploads
/// wait meanwhile, so after a failure no package is rejected for a while.
bool FileStoreCallbackThread::Reject(const FileStoreEntry& package) {
    if (std::chrono::steady_clock::now() < rejectAgain_) return false;
    if (RejectPackage(package)) return true;
    rejectAgain_ = std::chrono::steady_clock::now() + std::chrono::seconds(FileStore::ulTimeout);
    return false;
}

bool FileStoreCallbackThread::ReceiveFile(const KelString& url) {
    FileStore::debugFileStore.Trace("CallbackThread: Handling received file %S\n", url);
    const KelString targetStatus = StatusOfArrived();

    const auto file = FindUpstreamFileOfUrl(url);
    if (!file) return false;  // of a file whose row cannot be read, nothing may be removed
    if (!file->row) {
        DeleteUnregisteredFile(url);
        return true;
    }
    const FileStoreEntry& entry = *file->row;
    if (entry.FileStatus != kStatusReceiving) {
        FileStore::debugFileStore.Warning("CallbackThread: File %S already exists with status %S\n", url,
                                          entry.FileStatus);
        return true;
    }
    if (entry.FileType == kPackedFilesType) {
        const bool isDone = UnpackArchive(*this, entry, targetStatus);
        if (targetStatus == kStatusToBeUploaded) WakeToSend(entry.FileType);
        return isDone;
    }
    return IsArrivalSpecial(entry.FileType) ? ReceivePackage(entry, targetStatus)
                                            : SetArrived(entry, targetStatus);
}
