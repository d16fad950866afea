#include "filestore/db/database.h"
#include "filestore/db/file_status.h"
#include "filestore/db/files_selection.h"
#include "filestore/exchange/file_record.h"
#include "filestore/state/file_store.h"
#include "filestore/up/handle_thread.h"
#include "kelcore/action_db.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"

using namespace filestore;

namespace {

KelContainer RequestFor(const FileStoreEntry& missing) {
    FileOffer request;
    request.key = missing.Key();
    request.info = FileInfoOf(missing);
    request.bypass = missing.Bypass;
    request.upstream = missing.Upstream;
    request.priority = static_cast<std::int32_t>(missing.Priority);
    return request.ToContainer();
}

}  // namespace

bool FileStoreHandleThread::LocalRequestFile(Side side) {
    FileStore::debugFileStore.Trace("HandleThread: Looking for files to request locally\n");
    const FileRows rows = SelectMissingFile(side);
    if (rows.empty()) return false;
    const std::uint64_t fileId = rows.front().FileId;

    KelContainer results;
    CallbackDbTrigger("FileStoreCallbackFileRequest", RequestFor(rows.front()), results);
    // A consumer may supply the file during the call, and an offer may arrive at any moment: the status is
    // read again and changed under the lock.
    const KelLock lock(FileStoreGetDatabase(side).mutex);
    if (FileStore::CheckHandlerResult(results, kKelAnswerWillProvide)) SetSuppliedByConsumer(side, fileId);
    const KelString status = ReadFileStatus(side, fileId);
    if (status == kStatusMissing)
        return DecideMissing(fileId, side, FileStore::CheckHandlerResult(results, kKelAnswerRequestKnown));
    ++rowsMovedOn_;
    if (status == kStatusAvailable || status == kStatusNotRelaysChild) FileStore::WakeWorker(Worker::Notify);
    return true;
}

/// No module of this device supplies the file: the parent is asked, or on the master, which has none, the
/// request ends. The caller has held the mutex of the database since it read the status.
bool FileStoreHandleThread::DecideMissing(std::uint64_t fileId, Side side, bool isKnownToConsumer) {
    if (ActionDbIsActionRegistered("QuarnelDbRunScript")) {
        if (DeleteFileRow(side, fileId)) ++rowsMovedOn_;
        if (!isKnownToConsumer)
            FileStore::debugFileStore.Error(
                "HandleThread: File request for non-existant file, deleting request\n");
        return false;
    }
    if (UpdateFileStatus(side, fileId, kStatusToBeRequested, NextTry::AtOnce)) ++rowsMovedOn_;
    if (!FileStore::fConcatFiles) FileStore::WakeWorker(Worker::Push);
    return true;
}
