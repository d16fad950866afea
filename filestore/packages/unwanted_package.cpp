#include "filestore/packages/unwanted_package.h"

#include <array>
#include <utility>

#include "filestore/db/files_table.h"
#include "filestore/exchange/file_record.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/error_codes.h"
#include "kelcore/http/url.h"

namespace filestore {

namespace {

// Seconds; short, because other uploads wait.
constexpr int kConnectTimeout = 3;
constexpr int kCallTimeout = 15;

/// The action of the relay's packager that takes the rejection; empty for an unknown type of package.
KelString RejectingAction(const KelString& packageType) {
    constexpr std::array<std::pair<const char*, const char*>, 4> kActions = {{
        {"CUSTOM", "PackagerCustomPublishIncorrectTarget"},
        {"MSI", "PackagerMsiPublishIncorrectTarget"},
        {"SNP", "PackagerSnpPublishIncorrectTarget"},
        {"RPM", "PackagerRpmPublishIncorrectTarget"},
    }};
    for (const auto& [type, action] : kActions)
        if (packageType == type) return action;
    return {};
}

}  // namespace

PackageOwner OwnerOfPackage(const FileStoreEntry& entry) {
    FileStore::debugFileStore.Trace("CallbackThread: Checking if the File is held in by a Relay: %S\n",
                                    entry.FileName);
    const KelString relayGuid = FileInfoOf(entry).GetString("AdministratedRelayGUID");
    if (relayGuid.empty()) return PackageOwner::None;
    if (relayGuid == OurGuid()) return PackageOwner::ThisDevice;
    FileStore::debugFileStore.Warning(
        "CallbackThread: Received file for device with a GUID which is not ours: %S\n", relayGuid);
    return PackageOwner::Other;
}

bool RejectPackage(const FileStoreEntry& entry) {
    const KelContainer info = FileInfoOf(entry);
    const KelString action = RejectingAction(info.GetString("PackageType"));
    const KelString path = ContentPath(entry, Side::Upstream);
    if (action.empty()) {
        FileStore::debugFileStore.Error(
            "CallbackThread: Package %S has the unknown type '%S': its relay cannot be informed, so it "
            "stays\n",
            path, info.GetString("PackageType"));
        return true;
    }
    const KelString address = info.GetString("AdministratedRelayAddrPort");
    const KelString guid = info.GetString("AdministratedRelayGUID");
    KelContainer call;
    call.SetString("PackageRelativePath", info.GetString("PackageRelativePath"));
    call.SetString("AdministratedRelayAddrPort", address);
    call.SetString("AdministratedRelayGUID", guid);
    const KelString url = UrlForAgent(KelAgentGetName(), KelAgentGetHttpPassword(), address + "/" + guid);
    const unsigned int error =
        ActionDbInvokeContainer(nullptr, url, action, call, 0, kConnectTimeout, kCallTimeout, nullptr);
    if (error != kKelOk) {
        FileStore::debugFileStore.Error("CallbackThread: Failed to call %S, error %u\n", action, error);
        return false;
    }
    FileStore::debugFileStore.Warning(
        "CallbackThread: Received administrated package which is not for us, deleting %S\n", path);
    if (!DeleteFileRow(Side::Upstream, entry.FileId)) return false;
    DeleteFileAndFolder(path);
    return true;
}

}  // namespace filestore
