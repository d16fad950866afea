#include <ctime>

#include "filestore/db/files_table.h"
#include "filestore/db/multicast_table.h"
#include "filestore/down/multicast_thread.h"
#include "filestore/module/action_gate.h"
#include "filestore/module/http_aliases.h"
#include "filestore/module/orphans.h"
#include "filestore/state/bandwidth_manager.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/parent.h"
#include "filestore/state/settings.h"
#include "filestore/state/waiting_reasons.h"
#include "filestore/state/worker_loop.h"
#include "filestore/up/callback_thread.h"
#include "filestore/up/lost_store.h"
#include "filestore/up/push_thread.h"
#include "filestore/up/upload_repair.h"
#include "kel/container.h"
#include "kel/ini_file.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/error_codes.h"
#include "kelcore/module.h"

using namespace filestore;

namespace {

constexpr int kInitialFrameSize = 1400;
constexpr std::int32_t kRoleMaster = 1;
constexpr std::int32_t kRoleRelay = 2;
constexpr std::int32_t kRoleClient = 4;

void SetUpBandwidthManagers() {
    FileStore::bmTrackUsageUp.SetDirection(TransferWindowDirectionUp);
    FileStore::bmTrackUsageUp.SetFrameSize(kInitialFrameSize);
    FileStore::bmTrackUsageDown.SetDirection(TransferWindowDirectionDown);
    FileStore::bmTrackUsageDown.SetFrameSize(kInitialFrameSize);
    FileStore::bmTrackUsageMulticast.SetDirection(TransferWindowDirectionMulticast);
    FileStore::bmTrackUsageMulticast.SetFrameSize(static_cast<int>(FileStore::ulMulticastBlockSize.load()));
    FileStore::UpdateAllTransferWindows();
    FileStoreApplyFrameSize();
}

void DetermineRole() {
    FileStore::eKeepCopyMask = kRoleClient;
    FileStore::fRelayEnabled = false;
    if (ActionDbIsActionRegistered("QuarnelDbObjectListTypes")) {
        FileStore::eKeepCopyMask = kRoleMaster;
        return;
    }
    KelContainer container;
    if (CallLocal("RelayGetValues", container) != kKelOk) return;
    FileStore::fRelayEnabled = container.GetContainer("Values").GetBool("IsEnabled");
    if (FileStore::fRelayEnabled) FileStore::eKeepCopyMask = kRoleRelay;
}

/// A restart has ended every multicast transfer: files that waited for one are requested again, and devices
/// that listened for one get a new announcement, before the multicast thread looks for work.
void RepairMulticast() {
    {
        const KelLock lock(FileStore::mutexMulticastVector);
        FileStore::vecMulticastAddressInUse.clear();
    }
    const KelLock lock(FileStore::mutexDownstream);
    ResetAllMulticast();
    ResetAllMulticastReceptions();
}

/// False, logged, when one cannot be started.
bool StartWorkers() {
    FileStore::threadCallback.LoadSqlList();
    for (FileThreadBase* worker : FileStore::Workers()) {
        if (worker == &FileStore::threadMulticast) RepairMulticast();
        if (worker->Start()) continue;
        FileStore::debugFileStore.Error(
            "A worker thread could not be started: raise the limits on processes and memory and start the "
            "agent again\n");
        return false;
    }
    return true;
}

/// What an earlier run has left over is not to wait for an interval. The threads that work with the parent
/// are woken once it answers.
void WakeWorkers() {
    for (const Worker worker : {Worker::Notify, Worker::Callback, Worker::Handler})
        FileStore::WakeWorker(worker);
    Parent parent;
    if (!ReadParent(parent) || !parent.IsKnown()) return;
    FileStore::WakeWorker(Worker::Pull);
    FileStore::WakeWorker(Worker::Push);
}

void StopWorkers() {
    for (FileThreadBase* worker : FileStore::Workers()) {
        worker->Cancel(0, false);
        worker->Join();
    }
}

}  // namespace

unsigned int FileStore::ModuleInitialise() {
    debugFileStore.Detail("Module Initialise starting\n");
    failures.Clear();
    strModuleIniFile = KelAgentGetConfigDir() + "FileStore" + ".ini";
    strModuleDataPath = KelAgentGetDataDir() + "FileStore";
    // Defaults in place of what stands there would move the whole store to the default folder.
    if (!IniFile().Open(strModuleIniFile)) {
        debugFileStore.Error("%S is malformed or cannot be read; correct it and start again\n",
                             strModuleIniFile);
        return kModuleFailure;
    }
    if (!PathCreate(strModuleDataPath) || !PathCreate(strModuleDataPath + "/Temp"))
        debugFileStore.Error("Could not create the folder %S/Temp; check its parent's permissions\n",
                             strModuleDataPath);
    FileStoreReadVacuumSetting();
    if (!SetupDatabases()) {
        debugFileStore.Error("The databases in %S could not be set up\n", strModuleDataPath);
        CleanupDatabases();
        return kModuleFailure;
    }
    ReadSettings();
    Reasons().Clear();
    threadPush.InitCurrentTimeout();
    strStorageLocationToUse = GetFileStorageDirectory();
    ChangeFileStoragePath();
    // What an earlier run has left. Once the gate is open, offers of this run look the same.
    FileStoreRemoveLeftOvers();
    FileStoreRepairUploads();
    NoteNewDatabase();
    ForgetUnfinishedOffers();
    FileStoreGetActionGate().Open();
    return kModuleSuccess;
}

unsigned int FileStore::ModuleActivate() {
    debugFileStore.Detail("Module Activate starting\n");
    FileStorePublishAliases();
    SetUpBandwidthManagers();
    DetermineRole();
    if (fRelayEnabled && !ActionDbIsActionRegistered("QuarnelDbRunScript")) FileStoreReadUploadPolicy();
    UpdateHttpPort();
    NoteStoreIsKnown(std::time(nullptr));
    RefreshAddressPreference();
    if (!StartWorkers()) {
        // What was taken now would not move: the other devices keep it.
        StopWorkers();
        FileStoreGetActionGate().Close();
        return kModuleFailure;
    }

    WakeWorkers();
    UpdateScriptAndPackageStatus(0);
    if (FileStoreReadFlag("PackageSynchronization", "PackageSynchroAtStartup"))
        ExecutePackageSynchroAtStartup();
    return kModuleSuccess;
}

unsigned int FileStore::ModuleCleanup(unsigned int) {
    debugFileStore.Detail("Module Cleanup starting\n");
    bmTrackUsageUp.CancelAllTransfers();
    bmTrackUsageDown.CancelAllTransfers();
    bmTrackUsageMulticast.CancelAllTransfers();
    StopWorkers();
    // Handlers use the connections too: none may be left inside when they go.
    FileStoreGetActionGate().Close();
    CleanupDatabases();
    return kModuleSuccess;
}

unsigned int FileStore::ModuleSuspend() {
    return kModuleSuccess;
}
