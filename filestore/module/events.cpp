#include "filestore/db/callback_table.h"
#include "filestore/db/files_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/down/multicast_reception.h"
#include "filestore/exchange/input_checks.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/up/callback_thread.h"
#include "filestore/up/upload_check.h"
#include "filestore/up/upload_senders.h"
#include "kel/container.h"
#include "kelcore/call_origin.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"

using namespace filestore;

// Handlers of the events that the module subscribes to, except that of the transfer windows
// (state/transfer_windows.cpp).

namespace {

constexpr unsigned long kPutArrived = 5;  ///< shows in the log what woke the callback thread

}  // namespace

/// The HTTP server asks whether a device may fetch a file: one that the file is for, or for devices below it.
unsigned int FileStore::ActionHandler_FileStoreHttpGet(KelContainer* arguments) {
    const KelString guid = CallOriginOf(*arguments).deviceGuid;
    if (!IsGuid(guid)) return kKelAnswerNotExpected;
    const auto isTarget = IsTargetOfUrl(arguments->GetString("URL"), guid);
    if (!isTarget) return kKelErrorNotAvailable;
    return *isTarget ? kKelAnswerExpected : kKelAnswerNotExpected;
}

/// The HTTP server asks whether an upload may begin.
unsigned int FileStore::ActionHandler_FileStoreHttpPutBegin(KelContainer* arguments) {
    const KelString url = arguments->GetString("URL");
    if (const unsigned int error = CheckUploadSender(url, *arguments); error != kKelOk) return error;
    return ExpectUpload(url, arguments->GetInt64("Size"));
}

/// The HTTP server asks whether an upload may be put in place and acknowledged.
unsigned int FileStore::ActionHandler_FileStoreHttpPutCheck(KelContainer* arguments) {
    const KelString url = arguments->GetString("URL");
    if (const unsigned int error = CheckUploadSender(url, *arguments); error != kKelOk) return error;
    return CheckUpload(url, arguments->GetString("ContentPath"));
}

/// The HTTP server reports a file that has arrived whole: by PUT from a child, or by multicast.
unsigned int FileStore::ActionHandler_FileStoreHttpPutCallback(KelContainer* arguments) {
    const KelString url = arguments->GetString("URL");
    if (!IsUrlPath(url)) {
        debugFileStore.Warning("Refusing a report of a received file: URL '%S'\n", url);
        return kKelOk;
    }
    debugFileStore.Print("Received callback for %S\n", url);
    if (!arguments->GetString("MulticastAddress").empty()) {
        ReceiveMulticastFile(url, arguments->GetString("LocalPath"));
        return kKelOk;
    }
    if (!EnqueueArrivedFile(url)) return kKelErrorNotAvailable;  // the sender repeats the upload
    ForgetUploadSender(url);
    WakeWorker(Worker::Callback, kPutArrived);
    return kKelOk;
}

unsigned int FileStore::ActionHandler_FileStoreGUIDCallback(KelContainer* arguments) {
    const KelString guid = arguments->GetString("GUID");
    if (!IsGuid(guid)) {
        debugFileStore.Warning("Refused to take over the GUID '%S'\n", guid);
        return kKelErrorBadInput;
    }
    if (!AdoptGuid(guid)) {
        debugFileStore.Detail("GUID has not really changed\n");
        return kKelOk;
    }
    debugFileStore.Print("Received new GUID %S\n", guid);
    SetMissingSourceDevices(OurDeviceUrl());
    return kKelOk;
}

unsigned int FileStore::ActionHandler_FileStoreIPCallback(KelContainer* arguments) {
    const KelString address = arguments->GetString("NewIPAddress");
    if (!IpAddress::Parse(address)) {
        debugFileStore.Warning("Refused to take over the IP address '%S'\n", address);
        return kKelErrorBadInput;
    }
    const KelLock lock(mutexGUID);
    strOurIPAddress = address;
    return kKelOk;
}
