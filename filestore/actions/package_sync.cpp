#include <ctime>

#include "filestore/db/schema.h"
#include "filestore/module/configuration.h"
#include "filestore/module/file_store.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

using namespace filestore;

namespace {

constexpr const char* kSection = "PackageSynchronization";
constexpr const char* kSyncType = "PackageSyncInfo";
constexpr int kDefaultSeconds = 4096;

KelContainer PackageList(const DBResult& packages) {
    KelContainer list;
    for (std::size_t row = 0; row < packages.GetRowCount(); ++row)
        for (const char* column : {kFileType, kFileLabel, kFileName, kFileChecksum})
            list.SetString(column, packages.GetString(row, column), static_cast<std::uint32_t>(row));
    return list;
}

/// Hands the list to the own upstream store, which takes it to the parent like any other file.
void SendList(const KelContainer& list) {
    KelString path;
    if (const KelStatus status = list.SaveToTempFile(path, FileStore::strModuleDataPath + "/Temp"); !status) {
        FileStore::debugFileStore.Error("Could not save the package list: %S\n", status.Error().message);
        return;
    }
    KelContainer file;
    file.SetString(kFileType, kSyncType);
    file.SetString(kFileLabel, kSyncType);
    file.SetString(kFileName, "");
    file.SetString(kFileChecksum, "");
    file.SetBool(kBypass, false);
    file.SetBool(kUpstream, true);
    file.SetString("MovePath", path);
    const unsigned int error =
        ActionDbInvokeContainer(nullptr, "", "FileStoreReceiveFile", file, 0, -1, -1, nullptr);
    if (error == kKelOk) return;
    FileStore::debugFileStore.Warning("The package list was not taken into the store, error %u\n", error);
    FileDelete(path);
}

void EndOfSynchronization() {
    FileStore::debugFileStore.Print("End of package synchonization process.\n");
}

}  // namespace

bool FileStore::IsGapOkForPackageSynchronization() {
    const auto gap =
        static_cast<unsigned int>(FileStoreReadInteger(kSection, "PackageSynchroGap", kDefaultSeconds));
    const auto last =
        static_cast<unsigned int>(FileStoreReadInteger(kSection, "LastPackageSynchro", kDefaultSeconds));
    return gap + last < static_cast<unsigned int>(std::time(nullptr));
}

void FileStore::ExecutePackageSynchroAtStartup() {
    if (!fRelayEnabled) {
        debugFileStore.Trace("Package synchronization is only available on Relays\n");
        return;
    }
    debugFileStore.Trace("Check the gap since last synchronization.\n");
    if (!IsGapOkForPackageSynchronization()) {
        debugFileStore.Trace("Gap since last synchronization is too short. Aborting...\n");
        return;
    }
    KelContainer container;
    ActionHandler_PackageSendSyncInfo(&container);
}

unsigned int FileStore::ActionHandler_PackageSendSyncInfo(KelContainer*) {
    debugFileStore.Print("Start package synchonization process\n");
    const auto packages = pDbConnectionDownstream->Query(
        KelFormat("SELECT %s, %s ,%s ,%s FROM %s WHERE %s='%s' ", kFileType, kFileLabel, kFileName,
                  kFileChecksum, kTableFiles, kFileType, "OperationalRulePackage"));
    if (!packages || packages->GetRowCount() == 0) {
        debugFileStore.Print("No package to synchronize.\n");
        EndOfSynchronization();
        return kKelOk;
    }
    SendList(PackageList(*packages));
    FileStoreWriteSetting(kSection, "LastPackageSynchro",
                          KelFormat("%u", static_cast<unsigned int>(std::time(nullptr))));
    EndOfSynchronization();
    return kKelOk;
}
