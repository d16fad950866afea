#include "filestore/threads/handle_thread.h"

#include <utility>

#include "filestore/db/database.h"
#include "filestore/db/file_status.h"
#include "filestore/db/row_changes.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/threads/managed_relay_package.h"
#include "filestore/transfer/file_record.h"
#include "kel/file.h"
#include "kelcore/callback_db.h"

using namespace filestore;

namespace {

constexpr unsigned int kBatchSize = 50;

// What consumers answer to a hand-over; anything else lets the file go on its way.
constexpr unsigned int kAnswerTryLater = 44001;
constexpr unsigned int kAnswerStaysHere = 44003;

std::shared_ptr<const DBResult> SelectFilesToHandle(bool upstream) {
    DBConnection& connection = FileStoreGetDatabase(upstream).connection;
    if (upstream)
        return connection.Query(
            KelFormat("SELECT %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, 1 AS ISLOCAL FROM %s "
                      "WHERE %s = '%s' ORDER BY %s ASC LIMIT %u",
                      kFileId, kFileType, kFileLabel, kFileName, kFileChecksum, kSourceDevice, kFirstRelay,
                      kUpstream, kFileInfo, kPriority, kFileSize, kFilePath, kExternalFile, kTableFiles,
                      kFileStatus, kStatusToBeHandled, kFileId, kBatchSize));
    return connection.Query(KelFormat(
        "SELECT JFILES.%s AS %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, "
        "JTARGETS.%s IS NULL AS ISLOCAL FROM %s AS JFILES "
        "LEFT JOIN %s AS JTARGETS ON JFILES.%s = JTARGETS.%s AND %s = '' "
        "WHERE %s = '%s' ORDER BY JFILES.%s ASC LIMIT %u",
        kFileId, kFileId, kFileType, kFileLabel, kFileName, kFileChecksum, kSourceDevice, kFirstRelay,
        kUpstream, kFileInfo, kPriority, kFileSize, kFilePath, kExternalFile, kTargetId, kTableFiles,
        kTableTargets, kFileId, kFileId, kDeviceGuid, kFileStatus, kStatusToBeHandled, kFileId, kBatchSize));
}

const char* CallbackOf(bool isLocal, bool upstream) {
    if (upstream) return "FileStoreCallbackCopyUpstream";
    return isLocal ? "FileStoreCallbackReceivedFile" : "FileStoreCallbackCopyDownstream";
}

}  // namespace

/// The FileIds of a batch by what the consumers answered.
struct FileStoreHandleThread::Answers {
    IdList available;
    IdList upload;
    IdList retry;
};

FileStoreHandleThread::FileStoreHandleThread() : FileThreadBase("FileStore", "QueueGap", 30) {}

bool FileStoreHandleThread::DoWork() {
    bool busy = true;
    while (busy) {
        busy = false;
        const std::uint64_t movedBefore = rowsMovedOn_;
        for (const bool upstream : {false, true}) {
            if (CheckCancelled(false)) return false;
            busy |= LocalRequestFile(upstream);
            if (CheckCancelled(false)) return false;
            busy |= HandleFile(upstream);
        }
        if (rowsMovedOn_ == movedBefore) break;
    }
    return busy;
}

bool FileStoreHandleThread::HandleFile(bool upstream) {
    FileStore::debugFileStore.Trace("HandleThread: Looking for files to handle \n");
    const auto rows = SelectFilesToHandle(upstream);
    if (!rows || rows->GetRowCount() == 0) {
        FileStore::debugFileStore.Trace("HandleThread: Nothing found to handle\n");
        return false;
    }
    Answers answers;
    for (std::size_t row = 0; row < rows->GetRowCount() && !CheckCancelled(false); ++row) {
        FileStoreEntry entry;
        entry.LoadFromResult(*rows, row);
        if (IsManagedRelayPackage(entry))
            rowsMovedOn_ += RepublishManagedRelayPackage(entry, upstream) ? 1 : 0;
        else
            HandOver(entry, rows->GetBool(row, "ISLOCAL"), upstream, answers);
    }
    if (!CheckCancelled(false)) ApplyAnswers(answers, upstream);
    if (!FileStore::fConcatFiles) FileStore::threadPush.WakeUp();
    return true;
}

void FileStoreHandleThread::HandOver(const FileStoreEntry& entry, bool isLocal, bool upstream,
                                     Answers& answers) {
    FileStore::debugFileStore.Trace("HandleThread: Handling %S/%S/%S\n", entry.FileType, entry.FileLabel,
                                    entry.FileName);
    const KelString path = ContentPath(entry, upstream);
    if (!FileExists(path)) {
        FileStore::debugFileStore.Error("HandleThread: File %S/%S/%S is not present\n", entry.FileType,
                                        entry.FileLabel, entry.FileName);
        if (DeleteFileRow(upstream, entry.FileId)) ++rowsMovedOn_;
        return;
    }
    KelContainer arguments = FileDescriptionOf(entry);
    arguments.SetString(kFilePath, path);
    KelContainer results;
    CallbackDbTrigger(CallbackOf(isLocal, upstream), arguments, results);
    if (FileStore::CheckHandlerResult(results, kAnswerTryLater))
        answers.retry.Add(entry.FileId);
    else if (FileStore::CheckHandlerResult(results, kAnswerStaysHere) || !upstream)
        answers.available.Add(entry.FileId);
    else
        answers.upload.Add(entry.FileId);
}

void FileStoreHandleThread::ApplyAnswers(const Answers& answers, bool upstream) {
    for (const auto& [ids, status] :
         {std::pair(&answers.available, kStatusAvailable), std::pair(&answers.upload, kStatusToBeUploaded)})
        if (SetFileStatus(upstream, *ids, status, TakenUp::AtOnce)) rowsMovedOn_ += ids->Count();
    SetFileStatus(upstream, answers.retry, kStatusToBeHandled, TakenUp::AfterTimeout);
}
