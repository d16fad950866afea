#include "filestore/up/callback_thread.h"

#include "filestore/db/callback_table.h"
#include "filestore/db/file_status.h"
#include "filestore/db/files_selection.h"
#include "filestore/packages/unwanted_package.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "filestore/up/archive_intake.h"
#include "kel/format.h"
#include "kel/ini_file.h"
#include "kelcore/action_db.h"
#include "kelcore/callback_db.h"

using namespace filestore;

namespace {

/// Removes the file that has arrived under `url`, which no row names. It stays when its key is known (a
/// sender repeats a PUT whose answer it did not get), and when it does not lie in the upstream store.
void DeleteUnregisteredFile(const KelString& url) {
    Side side = Side::Downstream;
    FileKey key;
    if (!ParseStoredUrl(url, side, key) || side != Side::Upstream) {
        FileStore::debugFileStore.Warning("CallbackThread: %S is not in the upstream store and stays\n", url);
        return;
    }
    // A known file may have a row without this URL: one that waits to be packed has none, and one that is
    // being uploaded has its parent's. The lock keeps out an offer between the lookup and the removal.
    const KelLock lock(FileStore::mutexUpstream);
    if (FindFileInDatabase(Side::Upstream, key) != 0) {
        FileStore::debugFileStore.Warning("CallbackThread: File %S came again and stays: it is on its way\n",
                                          url);
        return;
    }
    FileStore::debugFileStore.Warning("CallbackThread: Received unregistered file, deleting %S\n", url);
    DeleteFileAndFolder(FileStore::StorePath(Side::Upstream, key));
}

/// A package of an administrated relay is handled by the device that administrates the relay and refused by
/// any other.
void ReceivePackage(const FileStoreEntry& entry) {
    if (IsPackageForUs(entry))
        UpdateFileStatus(Side::Upstream, entry.FileId, kStatusToBeHandled, NextTry::AtOnce);
    else
        RejectPackage(entry);
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

void FileStoreCallbackThread::Enqueue(const KelString& url) {
    EnqueueArrivedFile(url);
}

KelString FileStoreCallbackThread::GetFileUrl() {
    return TakeArrivedFile();
}

unsigned int FileStoreCallbackThread::GetCallbackCount() {
    return CountArrivedFiles();
}

bool FileStoreCallbackThread::DoWork() {
    KelString url = GetFileUrl();
    FileStore::debugFileStore.Trace("CallbackThread: Enter loop\n");
    while (!url.empty()) {
        ReceiveFile(url);
        if (CheckCancelled(false)) return true;
        url = GetFileUrl();
        if (!FileStore::fConcatFiles) FileStore::WakeWorker(Worker::Push);
    }
    FileStore::debugFileStore.Trace("CallbackThread: Exit loop\n");
    if (!sqlList_.empty()) RunUpstreamStatements(sqlList_);
    FileStore::WakeWorker(Worker::Handler);
    return false;
}

void FileStoreCallbackThread::ReceiveFile(const KelString& url) {
    FileStore::debugFileStore.Trace("CallbackThread: Handling received file %S\n", url);
    const bool isConsole = ActionDbIsActionRegistered("QuarnelDbRunScript");
    const bool isHandledHere = isConsole || CallbackDbGetActionCount("FileStoreCallbackCopyUpstream") != 0;
    const KelString targetStatus = isHandledHere ? kStatusToBeHandled : kStatusToBeUploaded;

    const auto rows = SelectFilesOfUrl(url);
    if (!rows) return;  // without the row it is unknown whether the file is wanted: keep it
    if (rows->empty()) {
        DeleteUnregisteredFile(url);
        return;
    }
    const FileStoreEntry& entry = rows->front();
    if (entry.FileStatus != kStatusReceiving) {
        FileStore::debugFileStore.Warning("CallbackThread: File %S already exists with status %S\n", url,
                                          entry.FileStatus);
    } else if (entry.FileType == kPackedFilesType) {
        UnpackArchive(*this, entry, targetStatus);
    } else if (isConsole || (entry.FileType != "PackagerZIPPackage" && entry.FileType != "UpgradePackage")) {
        UpdateFileStatus(Side::Upstream, entry.FileId, targetStatus, NextTry::AtOnce);
    } else {
        ReceivePackage(entry);
    }
}
