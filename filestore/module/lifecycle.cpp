#include <array>

#include "filestore/db/file_status.h"
#include "filestore/db/schema.h"
#include "filestore/module/action_gate.h"
#include "filestore/module/configuration.h"
#include "filestore/module/file_store.h"
#include "filestore/module/http_aliases.h"
#include "filestore/module/upload_repair.h"
#include "kel/format.h"
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
    if (ActionDbInvokeContainer(nullptr, "", "RelayGetValues", container, 0, -1, -1, nullptr) != kKelOk)
        return;
    FileStore::fRelayEnabled = container.GetContainer("Values").GetBool("IsEnabled");
    if (FileStore::fRelayEnabled) FileStore::eKeepCopyMask = kRoleRelay;
}

void ReadAddressPreference() {
    KelContainer container;
    ActionDbInvokeContainer(nullptr, "", "IdentityGetValues", container, 0, -1, -1, nullptr);
    if (container.IsContainer("Values"))
        FileStore::fPreferIPAddresses = container.GetContainer("Values").GetBool("PreferIPAddresses");
}

/// A restart has ended every multicast transfer: what waited for one is asked for again.
void RepairMulticast() {
    KelLock lock(FileStore::mutexDownstream);
    DBConnection& connection = *FileStore::pDbConnectionDownstream;
    connection.Query(KelFormat("UPDATE %s SET %s = %u", kTableFiles, kMulticastTransferToBeStarted, 0U));
    connection.Query(KelFormat("UPDATE %s SET %s = 0, %s = '%s', %s = 0, %s = 0 WHERE %s = '%s'", kTableFiles,
                               kFileSize, kFileStatus, kStatusToBeRequested, kLastStatusChangeTime,
                               kAcknowledged, kFileStatus, kStatusMulticastListening));
}

/// What was being taken in when the agent ended is asked for again: at the modules here, then at the parent.
void RepairLocalOffers() {
    const KelLock lock(FileStore::mutexDownstream);
    FileStore::pDbConnectionDownstream->Query(
        KelFormat("UPDATE %s SET %s = '%s', %s = 0 WHERE %s = '%s'", kTableFiles, kFileStatus, kStatusMissing,
                  kLastStatusChangeTime, kFileStatus, kStatusReceiving));
}

void StopThreads() {
    const std::array<FileThreadBase*, 7> threads = {&FileStore::threadDelete,   &FileStore::threadPush,
                                                    &FileStore::threadPull,     &FileStore::threadNotify,
                                                    &FileStore::threadCallback, &FileStore::threadHandler,
                                                    &FileStore::threadMulticast};
    for (FileThreadBase* thread : threads) {
        thread->Cancel(0, false);
        thread->Join();
    }
}

}  // namespace

unsigned int FileStore::ModuleInitialise() {
    debugFileStore.Detail("Module Initialise starting\n");
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
    strStorageLocationToUse = GetFileStorageDirectory();
    ChangeFileStoragePath();
    FileStoreRemoveLeftOvers();
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
    ReadAddressPreference();
    FileStoreRepairUploads();
    RepairLocalOffers();

    threadDelete.Start();
    threadPush.Start();
    threadPull.Start();
    threadNotify.Start();
    threadCallback.LoadSqlList();
    threadCallback.Start();
    threadHandler.Start();
    RepairMulticast();
    threadMulticast.Start();

    UpdateScriptAndPackageStatus(0);
    if (FileStoreReadFlag("PackageSynchronization", "PackageSynchroAtStartup", false))
        ExecutePackageSynchroAtStartup();
    return kModuleSuccess;
}

unsigned int FileStore::ModuleCleanup(unsigned int) {
    debugFileStore.Detail("Module Cleanup starting\n");
    bmTrackUsageUp.CancelAllTransfers();
    bmTrackUsageDown.CancelAllTransfers();
    bmTrackUsageMulticast.CancelAllTransfers();
    StopThreads();
    // Handlers use the connections too: none may be left inside when they go.
    FileStoreGetActionGate().Close();
    CleanupDatabases();
    return kModuleSuccess;
}

unsigned int FileStore::ModuleSuspend() {
    return kModuleSuccess;
}
