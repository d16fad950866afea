#include "filestore/module/file_store.h"
#include "kelcore/error_codes.h"

namespace {

unsigned int NotAvailable(KelContainer& arguments, const char* action) {
    FileStore::debugFileStore.Detail("%s was called, but is not available on this device\n", action);
    arguments.Clear();
    arguments.SetString("Message", KelFormat("%s is not available on this device", action));
    return kKelErrorNotAvailable;
}

}  // namespace

unsigned int FileStore::ActionHandler_FileStoreDeletePackage(KelContainer* arguments) {
    return NotAvailable(*arguments, "FileStoreDeletePackage");
}

unsigned int FileStore::ActionHandler_FileStoreGetNotifiableFiles(KelContainer* arguments) {
    return NotAvailable(*arguments, "FileStoreGetNotifiableFiles");
}

unsigned int FileStore::ActionHandler_FileStoreIsPatchInventoryUploaded(KelContainer* arguments) {
    return NotAvailable(*arguments, "FileStoreIsPatchInventoryUploaded");
}
