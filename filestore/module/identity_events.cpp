#include "filestore/db/files_table.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "kel/container.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"

unsigned int FileStore::ActionHandler_FileStoreGUIDCallback(KelContainer* arguments) {
    const KelString guid = arguments->GetString("GUID");
    if (!ActionIsFromThisDevice(*arguments) || !filestore::IsUsableGuid(guid)) {
        debugFileStore.Warning("Refused to take over the GUID '%S'\n", guid);
        return kKelErrorBadInput;
    }
    if (!filestore::AdoptGuid(guid)) {
        debugFileStore.Detail("GUID has not really changed\n");
        return kKelOk;
    }
    debugFileStore.Print("Received new GUID %S\n", guid);
    filestore::SetMissingSourceDevices(filestore::OurDeviceUrl());
    return kKelOk;
}

unsigned int FileStore::ActionHandler_FileStoreIPCallback(KelContainer* arguments) {
    const KelString address = arguments->GetString("NewIPAddress");
    if (!ActionIsFromThisDevice(*arguments) || !IpAddress::Parse(address)) {
        debugFileStore.Warning("Refused to take over the IP address '%S'\n", address);
        return kKelErrorBadInput;
    }
    const KelLock lock(mutexGUID);
    strOurIPAddress = address;
    return kKelOk;
}
