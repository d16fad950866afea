#include "filestore/packages/unused_packages.h"

#include "filestore/db/files_selection.h"
#include "filestore/exchange/file_record.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

constexpr std::int64_t kDay = 86400;
constexpr const char* kClearAction = "RelayClearPackage";
constexpr const char* kNetworkPath = "PathForNetworkInstall";

bool IsForNetworkInstallation(const FileStoreEntry& package) {
    return package.FileType == "OperationalRuleNetworkPackage" ||
           package.FileType == "OperationalRelayPackage";
}

/// The relay module keeps one copy for each label and name: that of another content under the same name
/// stays.
bool IsCopyStillUsed(const FileStoreEntry& package) {
    FileKey anyContent = package.Key();
    anyContent.checksum.clear();
    const auto others = SelectFilesOfKey(anyContent);
    return !others || !others->empty();
}

void ClearCopy(const FileStoreEntry& package) {
    if (!IsForNetworkInstallation(package)) return;
    const KelContainer info = FileInfoOf(package);
    const KelString path = info.GetString(kNetworkPath);
    const KelString relayGuid = info.GetString("AdministratedRelayGUID");
    const bool isOurs = relayGuid.empty() || relayGuid == OurGuid();
    if (path.empty() || !isOurs || IsCopyStillUsed(package)) return;
    KelContainer call;
    package.Key().Write(call);
    call.SetString(kNetworkPath, path);
    if (const unsigned int error = CallLocal(kClearAction, call); error != kKelOk)
        FileStore::debugFileStore.Warning(
            "DeleteThread: The relay module did not remove its copy of package %S (%S), error %u: remove "
            "it\n",
            package.Key().Text(), path, error);
}

}  // namespace

void KillPackages(std::int64_t now, bool waitsForConsumers, const PassHost& host) {
    const std::int64_t days = FileStore::ulPackageTTL;
    if (days == 0) return;
    FileStore::debugFileStore.Trace("DeleteThread: Looking for out-of-date package files to kill\n");
    RunPass({.rule = RemovalRule::UnusedPackages(now - days * kDay, waitsForConsumers),
             .text = "Killing package",
             .hasTargets = true,
             .onRemoved =
                 [](const FileRows& packages) {
                     for (const FileStoreEntry& package : packages)
                         ClearCopy(package);
                 }},
            host);
}

}  // namespace filestore
