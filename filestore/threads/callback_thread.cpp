#include "filestore/threads/callback_thread.h"

#include "filestore/db/file_status.h"
#include "filestore/db/row_changes.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/threads/packed_upload.h"
#include "filestore/threads/stored_file.h"
#include "filestore/threads/unwanted_package.h"
#include "filestore/transfer/upload_policy.h"
#include "kel/ini_file.h"
#include "kelcore/action_db.h"
#include "kelcore/callback_db.h"

using namespace filestore;

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

void FileStoreCallbackThread::ExecuteSqlList() {
    if (sqlList_.empty()) return;
    const KelLock lock(FileStore::mutexUpstream);
    DBTransaction transaction(*FileStore::pDbConnectionUpstream);
    for (const KelString& statement : sqlList_)
        FileStore::pDbConnectionUpstream->Query(statement);
    transaction.Commit();
}

void FileStoreCallbackThread::Enqueue(const KelString& url) {
    const KelLock lock(FileStore::mutexCallback);
    DBConnection& connection = *FileStore::pDbConnectionCallback;
    if (connection.ReadInteger(kTableCallbackThread, "CallbackId", "FileUrl", url, -1) >= 0) return;
    const std::uint64_t id = FileStore::dbSequenceManagerCallback.GetId(kTableCallbackThread, "CallbackId");
    connection.Query(
        KelFormat("INSERT INTO CallbackThread (CallbackId, FileUrl) VALUES (%lu, '%Q')", id, url));
}

KelString FileStoreCallbackThread::GetFileUrl() {
    DBConnection& connection = *FileStore::pDbConnectionCallback;
    const auto row =
        connection.Query("SELECT FileUrl, CallbackId FROM CallbackThread ORDER BY CallbackId ASC LIMIT 1");
    if (!row || row->GetRowCount() != 1) return {};
    const KelLock lock(FileStore::mutexCallback);
    const bool taken = connection.Query(KelFormat("DELETE FROM CallbackThread WHERE CallbackId = %u",
                                                  row->GetUint32(0, "CallbackId"))) != nullptr;
    // An entry that stays (a full disk) would be given again and again: it waits for the next work step.
    return taken ? row->GetString(0, "FileUrl") : KelString();
}

unsigned int FileStoreCallbackThread::GetCallbackCount() {
    const auto row = FileStore::pDbConnectionCallback->Query("SELECT COUNT (*) FROM CallbackThread");
    return row && row->GetRowCount() == 1 ? static_cast<unsigned int>(row->GetInt64(0, 0)) : 0;
}

bool FileStoreCallbackThread::DoWork() {
    KelString url = GetFileUrl();
    FileStore::debugFileStore.Trace("CallbackThread: Enter loop\n");
    while (!url.empty()) {
        ReceiveFile(url);
        if (CheckCancelled(false)) return true;
        url = GetFileUrl();
        if (!FileStore::fConcatFiles) FileStore::threadPush.WakeUp();
    }
    FileStore::debugFileStore.Trace("CallbackThread: Exit loop\n");
    ExecuteSqlList();
    FileStore::threadHandler.WakeUp();
    return false;
}

void FileStoreCallbackThread::ReceiveFile(const KelString& url) {
    FileStore::debugFileStore.Trace("CallbackThread: Handling received file %S\n", url);
    const bool isConsole = ActionDbIsActionRegistered("QuarnelDbRunScript");
    const bool isHandledHere = isConsole || CallbackDbGetActionCount("FileStoreCallbackCopyUpstream") != 0;
    const KelString targetStatus = isHandledHere ? kStatusToBeHandled : kStatusToBeUploaded;

    const auto row = FileStore::pDbConnectionUpstream->Query(
        KelFormat("SELECT %s, %s, %s, %s, %s, %s, %s, %s, %s, %s FROM %s WHERE %s = '%Q'", kFileId,
                  kFileStatus, kFileInfo, kSourceDevice, kFileType, kFileLabel, kFileName, kFileChecksum,
                  kFilePath, kExternalFile, kTableFiles, kFileUrl, url));
    if (!row) return;
    if (row->GetRowCount() == 0) {
        DeleteUnregisteredFile(url);
        return;
    }
    FileStoreEntry entry;
    entry.LoadFromResult(*row, 0);
    if (entry.FileStatus != kStatusReceiving) {
        FileStore::debugFileStore.Warning("CallbackThread: File %S already exists with status %S\n", url,
                                          entry.FileStatus);
    } else if (entry.FileType == kPackedFilesType) {
        UnpackUpload(*this, entry, targetStatus);
    } else if (isConsole || (entry.FileType != "PackagerZIPPackage" && entry.FileType != "UpgradePackage")) {
        SetFileStatus(true, entry.FileId, targetStatus, TakenUp::AtOnce);
    } else {
        ReceivePackage(entry);
    }
}

/// A package of an administrated relay is handled by the device that administrates it and refused by any
/// other.
void FileStoreCallbackThread::ReceivePackage(const FileStoreEntry& entry) {
    if (IsPackageForUs(entry))
        SetFileStatus(true, entry.FileId, kStatusToBeHandled, TakenUp::AtOnce);
    else
        RejectPackage(entry);
}
