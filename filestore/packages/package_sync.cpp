#include <ctime>

#include "filestore/db/files_selection.h"
#include "filestore/state/file_store.h"
#include "filestore/state/settings.h"
#include "filestore/state/store_layout.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_offer.h"
#include "kelcore/file_values.h"

using namespace filestore;

namespace {

constexpr const char* kSection = "PackageSynchronization";
constexpr const char* kSyncType = "PackageSyncInfo";

/// The keys of the packages: the i-th value of each name belongs to the i-th package.
KelContainer PackageList(const FileRows& packages) {
    KelContainer list;
    std::uint32_t i = 0;
    for (const FileStoreEntry& package : packages) {
        list.SetString(kValueFileType, package.FileType, i);
        list.SetString(kValueFileLabel, package.FileLabel, i);
        list.SetString(kValueFileName, package.FileName, i);
        list.SetString(kValueFileChecksum, package.FileChecksum, i);
        ++i;
    }
    return list;
}

/// Offers the list to the own upstream store, which sends it to the parent like any other file. The store
/// makes up its name.
void SendList(const KelContainer& list) {
    KelString path;
    if (const KelStatus status = list.SaveToTempFile(path, ModuleWorkFolder()); !status) {
        FileStore::debugFileStore.Error("Could not save the package list: %S\n", status.Error().message);
        return;
    }
    FileOffer offer;
    offer.key = {kSyncType, kSyncType, {}, {}};
    offer.bypass = false;
    offer.upstream = true;
    offer.movePath = path;
    KelContainer call = offer.ToContainer();
    const unsigned int error = CallLocal("FileStoreReceiveFile", call);
    if (error == kKelOk) return;
    FileStore::debugFileStore.Warning("The package list could not be offered upstream, error %u\n", error);
    FileDelete(path);
}

void EndOfSynchronization() {
    FileStore::debugFileStore.Print("End of package synchonization process.\n");
}

}  // namespace

bool FileStore::IsGapOkForPackageSynchronization() {
    const std::uint32_t gap = FileStoreReadNumber(kSection, "PackageSynchroGap");
    const std::uint32_t last = FileStoreReadNumber(kSection, "LastPackageSynchro");
    const auto now = static_cast<unsigned int>(std::time(nullptr));
    return gap + last < now || last > now;  // written before the clock was set back
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
    const FileRows packages = SelectPackages();
    if (packages.empty()) {
        debugFileStore.Print("No package to synchronize.\n");
        EndOfSynchronization();
        return kKelOk;
    }
    SendList(PackageList(packages));
    FileStoreWriteSetting(kSection, "LastPackageSynchro",
                          KelFormat("%u", static_cast<unsigned int>(std::time(nullptr))));
    EndOfSynchronization();
    return kKelOk;
}
