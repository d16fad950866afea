#include "filestore/down/multicast_reception.h"
#include "filestore/state/file_store.h"
#include "filestore/up/callback_thread.h"
#include "kel/container.h"
#include "kel/text.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"

namespace {

constexpr unsigned long kPutArrived = 5;  ///< shows in the log what woke the callback thread

}  // namespace

/// The HTTP server reports a file that has arrived whole: by PUT from a child, or by multicast.
unsigned int FileStore::ActionHandler_FileStoreHttpPutCallback(KelContainer* arguments) {
    const KelString url = arguments->GetString("URL");
    // The report names local paths: only this device's HTTP server may make it.
    if (!ActionIsFromThisDevice(*arguments) || url.empty() || HasControlCharacter(url)) {
        debugFileStore.Warning("Refusing a report of a received file from '%S': URL '%S'\n",
                               ActionRequestAddress(*arguments), url);
        return kKelOk;
    }
    debugFileStore.Print("Received callback for %S\n", url);
    if (!arguments->GetString("MulticastAddress").empty()) {
        filestore::ReceiveMulticastFile(url, arguments->GetString("LocalPath"));
        return kKelOk;
    }
    FileStoreCallbackThread::Enqueue(url);
    WakeWorker(Worker::Callback, kPutArrived);
    return kKelOk;
}
