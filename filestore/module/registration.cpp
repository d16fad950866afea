#include <array>

#include "filestore/module/action_gate.h"
#include "filestore/module/action_table.h"
#include "filestore/module/metrics.h"
#include "filestore/state/file_store.h"
#include "kel/container.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/metrics/metrics.h"
#include "kelcore/module.h"

namespace {

struct Subscription {
    const char* event;
    const char* signature;
};

constexpr std::array kSubscriptions = {
    Subscription{"HttpProtocolCallbackGet", "FileStoreHttpGet (string URL)"},
    Subscription{"HttpProtocolCallbackPutBegin", "FileStoreHttpPutBegin (string URL, int64 Size)"},
    Subscription{"HttpProtocolCallbackPutCheck", "FileStoreHttpPutCheck (string URL, string ContentPath)"},
    Subscription{"HttpProtocolCallbackPut", "FileStoreHttpPutCallback (container Values)"},
    Subscription{"IdentityCallbackGUIDChange", "FileStoreGUIDCallback (string GUID)"},
    Subscription{"IdentityCallbackIPChange", "FileStoreIPCallback ()"},
    Subscription{"RelayCallbackParentChange", "FileStoreParentChange ()"},
    Subscription{"RelayCallbackParentInSync", "FileStoreParentInSync ()"},
    Subscription{"TransferWindowCallbackWindowChange", "FileStoreTransferWindowCallback ()"},
};

unsigned int CallThroughGate(unsigned int (*handler)(KelContainer*), KelContainer* arguments) {
    const FileStoreActionGate::Pass pass(FileStoreGetActionGate());
    if (pass.IsGranted()) return handler(arguments);
    arguments->Clear();
    arguments->SetString("Message", "The file store is not running");
    return kKelErrorNotAvailable;
}

}  // namespace

unsigned int FileStore::ModuleRegister(const char* handle) {
    debugFileStore.SetContext(KelAgentGetDebugContext());
    debugFileStore.Detail("Module Register starting\n");
    for (const FileStoreAction& action : FileStoreActions())
        ActionDbRegisterAction(
            action.description,
            [handler = action.handler](KelContainer* arguments) {
                return CallThroughGate(handler, arguments);
            },
            handle);
    KelMetricsRegister(handle, &FileStoreCollectMetrics);
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
