#include <array>

#include "filestore/module/action_gate.h"
#include "filestore/state/file_store.h"
#include "kel/container.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/module.h"

namespace {

using Handler = unsigned int (*)(KelContainer*);

struct Action {
    const char* signature;
    Handler handler;
};

// The parameter lists are documentation: handlers read their values by name.
constexpr std::array kActions = {
    Action{"FileStoreGetValues ()", &FileStore::ActionHandler_FileStoreGetValues},
    Action{"FileStoreSetValues (container Values)", &FileStore::ActionHandler_FileStoreSetValues},
    Action{"FileStoreRequestFile (string FileType, string FileLabel, string FileName, string Checksum)",
           &FileStore::ActionHandler_FileStoreRequestFile},
    Action{"FileStoreRequestFileSize (string FileType, string FileLabel, string FileName, string Checksum)",
           &FileStore::ActionHandler_FileStoreRequestFileSize},
    Action{"FileStoreAcknowledgeFile (string FileType, string FileLabel, string FileName, string Checksum)",
           &FileStore::ActionHandler_FileStoreAcknowledgeFile},
    Action{"FileStoreReceiveFile (string FileType, string FileLabel, string FileName, string Checksum)",
           &FileStore::ActionHandler_FileStoreReceiveFile},
    Action{"FileStoreReceiveUnconnectedFile (string FileType, string FileLabel, string FileName, string "
           "Checksum)",
           &FileStore::ActionHandler_FileStoreReceiveUnconnectedFile},
    Action{"FileStoreHttpPutBegin (string URL, int64 Size)", &FileStore::ActionHandler_FileStoreHttpPutBegin},
    Action{"FileStoreHttpPutCheck (string URL, string ContentPath)",
           &FileStore::ActionHandler_FileStoreHttpPutCheck},
    Action{"FileStoreHttpPutCallback (container Values)", &FileStore::ActionHandler_FileStoreHttpPutCallback},
    Action{"FileStoreGUIDCallback (string GUID)", &FileStore::ActionHandler_FileStoreGUIDCallback},
    Action{"FileStoreIPCallback ()", &FileStore::ActionHandler_FileStoreIPCallback},
    Action{"FileStoreParentChange ()", &FileStore::ActionHandler_FileStoreParentChange},
    Action{"FileStoreParentInSync ()", &FileStore::ActionHandler_FileStoreParentInSync},
    Action{"FileStoreWithdrawFile (string FileType, string FileLabel, string FileName, string FileChecksum, "
           "container DevicePath, bool KeepContent, bool Removed)",
           &FileStore::ActionHandler_FileStoreWithdrawFile},
    Action{"FileStoreDeviceContact (string DeviceGUID, string ParentGuid)",
           &FileStore::ActionHandler_FileStoreDeviceContact},
    Action{"FileStoreTransferWindowCallback ()", &FileStore::ActionHandler_FileStoreTransferWindowCallback},
    Action{"FileStoreListFiles ()", &FileStore::ActionHandler_FileStoreListFiles},
    Action{"FileStoreGetFileInfo (string strFileType, string strFileName, string strChecksum)",
           &FileStore::ActionHandler_FileStoreGetFileInfo},
    Action{"FileStoreExplainFile (string FileType, string FileLabel, string FileName, string FileChecksum, "
           "container DevicePath, string GUID)",
           &FileStore::ActionHandler_FileStoreExplainFile},
    Action{"FileStoreGetWaiting ()", &FileStore::ActionHandler_FileStoreGetWaiting},
    Action{"FileStoreGetDeviceUrl ()", &FileStore::ActionHandler_FileStoreGetDeviceUrl},
    Action{"FileStoreGetMulticastStatus ()", &FileStore::ActionHandler_FileStoreGetMulticastStatus},
    Action{"FileStoreGetMulticastDetails ()", &FileStore::ActionHandler_FileStoreGetMulticastDetails},
    Action{"FileStoreResetMulticastStatus ()", &FileStore::ActionHandler_FileStoreResetMulticastStatus},
    Action{"FileStoreDeletePackage ()", &FileStore::ActionHandler_FileStoreDeletePackage},
    Action{"PackageSendSyncInfo ()", &FileStore::ActionHandler_PackageSendSyncInfo},
    Action{"FileStoreGetNotifiableFiles ()", &FileStore::ActionHandler_FileStoreGetNotifiableFiles},
    Action{"FileStoreGetUntakenFiles (container Taken)", &FileStore::ActionHandler_FileStoreGetUntakenFiles},
    Action{"FileStoreGetFileInformation ()", &FileStore::ActionHandler_FileStoreGetFileInformation},
    Action{"FileStorePerformManualUpload ()", &FileStore::ActionHandler_FileStorePerformManualUpload},
    Action{"FileStoreIsPatchInventoryUploaded ()",
           &FileStore::ActionHandler_FileStoreIsPatchInventoryUploaded},
};

struct Subscription {
    const char* event;
    const char* signature;
};

constexpr std::array kSubscriptions = {
    Subscription{"HttpProtocolCallbackPutBegin", "FileStoreHttpPutBegin (string URL, int64 Size)"},
    Subscription{"HttpProtocolCallbackPutCheck", "FileStoreHttpPutCheck (string URL, string ContentPath)"},
    Subscription{"HttpProtocolCallbackPut", "FileStoreHttpPutCallback (container Values)"},
    Subscription{"IdentityCallbackGUIDChange", "FileStoreGUIDCallback (string GUID)"},
    Subscription{"IdentityCallbackIPChange", "FileStoreIPCallback ()"},
    Subscription{"RelayCallbackParentChange", "FileStoreParentChange ()"},
    Subscription{"RelayCallbackParentInSync", "FileStoreParentInSync ()"},
    Subscription{"TransferWindowCallbackWindowChange", "FileStoreTransferWindowCallback ()"},
};

unsigned int CallThroughGate(Handler handler, KelContainer* arguments) {
    const FileStoreActionGate::Pass pass(FileStoreGetActionGate());
    if (pass.IsGranted()) return handler(arguments);
    arguments->Clear();
    arguments->SetString("Message", "The file store is not running");
    return kKelErrorNotAvailable;
}

/// For actions that other modules may look for, but that have no function on this device yet.
unsigned int NotAvailable(KelContainer& arguments, const char* action) {
    FileStore::debugFileStore.Detail("%s was called, but is not available on this device\n", action);
    arguments.Clear();
    arguments.SetString("Message", KelFormat("%s is not available on this device", action));
    return kKelErrorNotAvailable;
}

}  // namespace

unsigned int FileStore::ModuleRegister(const char* handle) {
    debugFileStore.SetContext(KelAgentGetDebugContext());
    debugFileStore.Detail("Module Register starting\n");
    for (const Action& action : kActions)
        ActionDbRegisterAction(
            action.signature,
            [handler = action.handler](KelContainer* arguments) {
                return CallThroughGate(handler, arguments);
            },
            handle);
    for (const Subscription& subscription : kSubscriptions)
        CallbackDbRegisterAction(subscription.event, subscription.signature, "", 0);
    return kModuleSuccess;
}

unsigned int FileStore::ModuleUnregister(unsigned int) {
    debugFileStore.Detail("Module Unregister starting\n");
    for (const Subscription& subscription : kSubscriptions)
        CallbackDbDeleteAction(subscription.event, subscription.signature, "");
    return kModuleSuccess;
}

unsigned int FileStore::ActionHandler_FileStoreDeletePackage(KelContainer* arguments) {
    return NotAvailable(*arguments, "FileStoreDeletePackage");
}

unsigned int FileStore::ActionHandler_FileStoreGetNotifiableFiles(KelContainer* arguments) {
    return NotAvailable(*arguments, "FileStoreGetNotifiableFiles");
}

unsigned int FileStore::ActionHandler_FileStoreIsPatchInventoryUploaded(KelContainer* arguments) {
    return NotAvailable(*arguments, "FileStoreIsPatchInventoryUploaded");
}
