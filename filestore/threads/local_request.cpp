#include "filestore/db/database.h"
#include "filestore/db/file_status.h"
#include "filestore/db/row_changes.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/threads/handle_thread.h"
#include "filestore/transfer/file_record.h"
#include "kelcore/action_db.h"
#include "kelcore/callback_db.h"

using namespace filestore;

namespace {

// What consumers answer to a request for a missing file.
constexpr unsigned int kAnswerWillProvide = 15;
constexpr unsigned int kAnswerRequestKnown = 16154;

KelContainer RequestArguments(const DBResult& row) {
    KelContainer arguments;
    arguments.SetContainer(kFileInfo, FileInfoOf(row.GetString(0, kFileInfo), row.GetString(0, kFileName)));
    for (const char* name : {kFileType, kFileLabel, kFileName, kFileChecksum})
        arguments.SetString(name, row.GetString(0, name));
    arguments.SetBool(kBypass, row.GetBool(0, kBypass));
    arguments.SetBool(kUpstream, row.GetBool(0, kUpstream));
    arguments.SetInt32(kPriority, static_cast<std::int32_t>(row.GetInt64(0, kPriority)));
    return arguments;
}

std::shared_ptr<const DBResult> SelectMissingFile(bool upstream) {
    return FileStoreGetDatabase(upstream).connection.Query(
        KelFormat("SELECT %s, %s, %s, %s, %s, %s, %s, %s, %s, %s FROM %s WHERE %s = '%s' LIMIT 1", kFileId,
                  kFileType, kFileLabel, kFileName, kFileChecksum, kBypass, kFileInfo, kUpstream, kPriority,
                  kFileStatus, kTableFiles, kFileStatus, kStatusMissing));
}

}  // namespace

bool FileStoreHandleThread::LocalRequestFile(bool upstream) {
    FileStore::debugFileStore.Trace("HandleThread: Looking for files to request locally\n");
    const auto row = SelectMissingFile(upstream);
    if (!row || row->GetRowCount() == 0) return false;
    const auto fileId = static_cast<std::uint64_t>(row->GetInt64(0, kFileId));

    KelContainer results;
    CallbackDbTrigger("FileStoreCallbackFileRequest", RequestArguments(*row), results);
    const FileStoreDatabase database = FileStoreGetDatabase(upstream);
    // From reading the status to what follows from it: an offer may arrive at any moment.
    const KelLock lock(database.mutex);
    if (FileStore::CheckHandlerResult(results, kAnswerWillProvide))
        database.connection.Query(KelFormat("UPDATE %s SET FileStatus = '%s', %s = 1 WHERE %s = %lu",
                                            kTableFiles, kStatusNotRelaysChild, kAcknowledged, kFileId,
                                            fileId));
    const KelString status = database.connection.ReadString(kTableFiles, kFileStatus, kFileId, fileId);
    if (status == kStatusMissing)
        return DecideMissing(fileId, upstream, FileStore::CheckHandlerResult(results, kAnswerRequestKnown));
    ++rowsMovedOn_;
    if (status == kStatusAvailable || status == kStatusNotRelaysChild) FileStore::threadNotify.WakeUp();
    return true;
}

/// No module of this device supplies the file: the parent is asked, or on the master, which has none, the
/// request ends. The caller holds the mutex of the database since it read the status.
bool FileStoreHandleThread::DecideMissing(std::uint64_t fileId, bool upstream, bool isKnownToConsumer) {
    if (ActionDbIsActionRegistered("QuarnelDbRunScript")) {
        if (DeleteFileRow(upstream, fileId)) ++rowsMovedOn_;
        if (!isKnownToConsumer)
            FileStore::debugFileStore.Error(
                "HandleThread: File request for non-existant file, deleting request\n");
        return false;
    }
    SetFileStatus(upstream, fileId, kStatusToBeRequested, TakenUp::AtOnce);
    if (FileStoreGetDatabase(upstream).connection.ReadString(kTableFiles, kFileStatus, kFileId, fileId) !=
        kStatusMissing)
        ++rowsMovedOn_;
    if (!FileStore::fConcatFiles) FileStore::threadPush.WakeUp();
    return true;
}
