#include "filestore/db/file_status.h"
#include "filestore/db/row_changes.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/threads/callback_thread.h"
#include "kel/file.h"
#include "kel/text.h"
#include "kelcore/call_origin.h"
#include "kelcore/callback_db.h"

using namespace filestore;

namespace {

constexpr unsigned long kPutArrived = 5;  ///< tells the callback thread in the log who woke it

void MakeAvailable(unsigned long fileId, const KelString& localPath) {
    const std::int64_t size = FileGetSize64(localPath);
    const KelLock lock(FileStore::mutexDownstream);
    FileStore::pDbConnectionDownstream->Query(KelFormat(
        "UPDATE %s SET %s = %gu, %s = '%s', %s = 0, %s = 0, %s = '%s' WHERE %s = %lu", kTableFiles, kFileSize,
        static_cast<std::uint64_t>(size < 0 ? 0 : size), kFileStatus, kStatusAvailable, kLastStatusChangeTime,
        kAcknowledged, kTransportMode, kTransportMulticast, kFileId, fileId));
}

void PassOn(unsigned long fileId) {
    const bool isHandledHere = CallbackDbGetActionCount("FileStoreCallbackCopyUpstream") != 0;
    SetFileStatus(false, fileId, isHandledHere ? kStatusToBeHandled : kStatusToBeUploaded, TakenUp::AtOnce);
    if (isHandledHere)
        FileStore::threadHandler.WakeUp();
    else if (!FileStore::fConcatFiles)
        FileStore::threadPush.WakeUp();
}

void ReceiveMulticastFile(KelString url, const KelString& localPath) {
    if (url.starts_with('/')) url.erase(0, 1);
    FileStore::debugFileStore.Print("PutCallback for multicast file: %S\n", url);
    const auto row = FileStore::pDbConnectionDownstream->Query(
        KelFormat("SELECT %s, %s FROM %s WHERE %s LIKE '%%%Q' AND %s IN ('%s', '%s')", kFileId, kFileStatus,
                  kTableFiles, kFileUrl, url, kFileStatus, kStatusMulticastListening, kStatusReceiving));
    if (!row || row->GetRowCount() == 0) {
        FileStore::debugFileStore.Warning("Received unregistered file, deleting %S\n", url);
        FileDelete(localPath);
        return;
    }
    const auto fileId = static_cast<unsigned long>(row->GetInt64(0, kFileId));
    if (row->GetString(0, kFileStatus) == kStatusMulticastListening)
        MakeAvailable(fileId, localPath);
    else
        PassOn(fileId);
}

}  // namespace

unsigned int FileStore::ActionHandler_FileStoreHttpPutCallback(KelContainer* arguments) {
    const KelString url = arguments->GetString("URL");
    // It names local paths: only this device's HTTP server may report.
    if (!ActionIsFromThisDevice(*arguments) || url.empty() || HasControlCharacter(url)) {
        debugFileStore.Warning("Refusing a report of a received file from '%S': URL '%S'\n",
                               ActionRequestAddress(*arguments), url);
        return 0;
    }
    debugFileStore.Print("Received callback for %S\n", url);
    if (!arguments->GetString("MulticastAddress").empty()) {
        ReceiveMulticastFile(url, arguments->GetString("LocalPath"));
        return 0;
    }
    FileStoreCallbackThread::Enqueue(url);
    threadCallback.WakeUp(kPutArrived);
    return 0;
}
