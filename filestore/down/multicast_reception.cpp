#include "filestore/down/multicast_reception.h"

#include <algorithm>

#include "filestore/db/file_status.h"
#include "filestore/db/files_selection.h"
#include "filestore/db/files_table.h"
#include "filestore/state/file_store.h"
#include "kel/file.h"
#include "kelcore/callback_db.h"

namespace filestore {

namespace {

void MakeAvailable(std::uint64_t fileId, const KelString& localPath) {
    const std::int64_t size = std::max<std::int64_t>(FileGetSize64(localPath), 0);
    SetReceivedByMulticast(fileId, static_cast<std::uint64_t>(size));
}

/// While files are packed, the push thread sends them when its archive is due, not when one arrives.
void PassOn(std::uint64_t fileId) {
    const bool isHandledHere = CallbackDbGetActionCount("FileStoreCallbackCopyUpstream") != 0;
    UpdateFileStatus(Side::Downstream, fileId, isHandledHere ? kStatusToBeHandled : kStatusToBeUploaded,
                     NextTry::AtOnce);
    if (isHandledHere)
        FileStore::WakeWorker(Worker::Handler);
    else if (!FileStore::fConcatFiles)
        FileStore::WakeWorker(Worker::Push);
}

}  // namespace

void ReceiveMulticastFile(const KelString& url, const KelString& localPath) {
    // Rows may hold the path with or without the slash: they are matched by their end.
    const KelString path = url.starts_with('/') ? url.substr(1) : url;
    FileStore::debugFileStore.Print("PutCallback for multicast file: %S\n", path);
    const FileRows rows = SelectAwaitedFiles(path);
    if (rows.empty()) {
        FileStore::debugFileStore.Warning("Received unregistered file, deleting %S\n", path);
        FileDelete(localPath);
        return;
    }
    const FileStoreEntry& file = rows.front();
    if (file.FileStatus == kStatusMulticastListening) {
        MakeAvailable(file.FileId, localPath);
        FileStore::WakeWorker(Worker::Pull);  // which acknowledges it
    } else {
        PassOn(file.FileId);
    }
}

}  // namespace filestore
