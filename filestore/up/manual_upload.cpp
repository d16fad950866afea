#include "filestore/up/manual_upload.h"

#include "filestore/db/files_selection.h"
#include "filestore/exchange/http_transfer.h"
#include "filestore/state/file_store.h"
#include "kel/container.h"
#include "kelcore/error_codes.h"

namespace filestore {

bool StartRequestedManualUpload() {
    if (!FileStore::fManualUploadRequested) return true;
    FileStore::fProcessManualUpload = true;
    FileStore::fManualUploadRequested = false;
    // Those that a closed window holds back are meant, too.
    const auto files = CountFilesToUpload();
    if (!files) {
        FileStore::debugFileStore.Error(
            "PushThread: Failed to get the current number of files to be uploaded.\n");
        return false;
    }
    FileStore::uLimit = *files;
    FileStore::uCurrent = 0;
    FileStore::debugFileStore.Print("Start manual upload process (%u files to upload).\n",
                                    FileStore::uLimit.load());
    return true;
}

void LogManualUpload() {
    if (FileStore::fProcessManualUpload && FileStore::uCurrent != 0)
        FileStore::debugFileStore.Print("Manual upload: %u/%u files processed\n", FileStore::uCurrent.load(),
                                        FileStore::uLimit.load());
}

void CountManualUpload(unsigned int files) {
    if (FileStore::fProcessManualUpload) FileStore::uCurrent += files;
}

/// A manual upload lasts until it has packed more files than it counted, so it outlasts a closed window and
/// failed transfers. Some that it counted are never packed (archives, large files, and files whose content is
/// gone): with nothing left to send but archives it is over as well.
void FinishManualUpload() {
    if (!FileStore::fProcessManualUpload) return;
    if (FileStore::uCurrent <= FileStore::uLimit && HasFilesToUpload()) return;
    FileStore::debugFileStore.Print("Manual upload process finished.\n");
    FileStore::fProcessManualUpload = false;
    FileStore::uCurrent = 0;
    FileStore::uLimit = 0;
}

}  // namespace filestore

unsigned int FileStore::ActionHandler_FileStorePerformManualUpload(KelContainer* arguments) {
    arguments->Clear();
    debugFileStore.Print("Receive request for manual upload process.\n");
    {
        const KelLock lock(mutexUpstream);
        fManualUploadRequested = true;
    }
    WakeWorker(Worker::Push);
    return kKelOk;
}
