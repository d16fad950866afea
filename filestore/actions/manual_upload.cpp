#include "filestore/module/file_store.h"
#include "kelcore/error_codes.h"

unsigned int FileStore::ActionHandler_FileStorePerformManualUpload(KelContainer* arguments) {
    arguments->Clear();
    debugFileStore.Print("Receive request for manual upload process.\n");
    {
        const KelLock lock(mutexUpstream);
        fManualUploadRequested = true;
    }
    threadPush.WakeUp();
    return kKelOk;
}
