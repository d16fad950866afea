#include "filestore/threads/managed_relay_package.h"

#include "filestore/db/database.h"
#include "filestore/db/file_status.h"
#include "filestore/db/row_changes.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/transfer/file_record.h"
#include "filestore/transfer/local_source.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/action_db.h"

namespace filestore {

namespace {

constexpr const char* kPackageType = "OperationalRulePackage";

/// Records the package as available below; false when that failed.
bool RecordPackage(const FileStoreEntry& handled, const KelString& path) {
    DBConnection& connection = *FileStore::pDbConnectionDownstream;
    const KelLock lock(FileStore::mutexDownstream);
    const auto found = connection.Query(
        KelFormat("SELECT %s FROM %s WHERE %s = '%s' AND %s = '%Q' AND %s = '%Q' AND %s = '%Q' ", kFileId,
                  kTableFiles, kFileType, kPackageType, kFileLabel, handled.FileLabel, kFileName,
                  handled.FileName, kFileChecksum, handled.FileChecksum));
    if (!found) {
        FileStore::debugFileStore.Error(
            "HandleThread: Could not fetch info from Files table on whether an entry for '%S' already exists "
            "or not.\n",
            handled.FileName);
        return false;
    }
    FileStoreEntry package = handled;
    const bool known = found->GetRowCount() != 0;
    if (known) {
        if (!package.LoadFromDatabase(static_cast<unsigned long>(found->GetInt64(0, kFileId)), false))
            return false;
    } else {
        package.FileId = 0;
        package.FileType = kPackageType;
        package.ExternalFile = false;
        package.Upstream = false;
        package.Acknowledged = true;
        package.TransportMode = kTransportLocal;
    }
    if (!package.ExternalFile) {
        package.FilePath = path;  // a row that was made by a request knows neither
        package.FileSize = FileGetSize64(path);
    }
    package.FileStatus = kStatusAvailable;
    package.KeepCopy = static_cast<std::uint32_t>(FileStore::eKeepCopyMask.load());
    return known ? package.SaveToDatabase(false) : package.CreateInDatabase(false) != 0;
}

KelContainer PackageOffer(const FileStoreEntry& handled, const char* type) {
    KelContainer offer;
    offer.SetString(kFileType, type);
    offer.SetString(kFileLabel, handled.FileLabel);
    offer.SetString(kFileName, handled.FileName);
    offer.SetString(kSourceDevice, handled.SourceDevice);
    offer.SetBool(kUpstream, true);
    return offer;
}

void TellRelayModule(const FileStoreEntry& handled, const KelString& path, const KelContainer& info) {
    KelContainer call = PackageOffer(handled, handled.FileType.c_str());
    call.SetString(kFileChecksum, handled.FileChecksum);
    call.SetString(kFilePath, path);
    call.SetContainer(kFileInfo, info);
    const unsigned int error =
        ActionDbInvokeContainer(nullptr, "", "RelayReceiveFile", call, 0, -1, -1, nullptr);
    if (error != 0)
        FileStore::debugFileStore.Warning(
            "HandleThread: The relay module did not take package '%S', error %u; it has no copy of its own\n",
            path, error);
}

/// Further up goes a copy: the package itself stays in the downstream store. False when it was not taken.
bool OfferUpstream(const FileStoreEntry& handled, const KelString& path, KelContainer info) {
    KelString copy;
    const UniqueFd reserved = FileCreateTemp(FileStore::strModuleDataPath + "/Temp", copy);
    if (!reserved || !FileCopy(path, copy, false)) {
        FileStore::debugFileStore.Error(
            "HandleThread: Cannot copy package '%S' for its way up: check the space\n", path);
        if (reserved) FileDelete(copy);
        return false;
    }
    info.SetInt32("SendingToMaster", 1);
    info.SetInt32("AdministratedRelayID", info.GetInt32("AdministratedRelayID", -1));
    KelContainer offer = PackageOffer(handled, "PackagerAdministratedPackage");
    offer.SetString("MovePath", copy);
    offer.SetContainer(kFileInfo, std::move(info));
    const unsigned int error =
        ActionDbInvokeContainer(nullptr, "", "FileStoreReceiveFile", offer, 0, -1, -1, nullptr);
    if (error == 0) return true;
    FileStore::debugFileStore.Error(
        "HandleThread: The store did not take package '%S' for its way up, error %u; offered again later\n",
        path, error);
    FileDelete(copy);
    return false;
}

}  // namespace

bool IsManagedRelayPackage(const FileStoreEntry& entry) {
    if (entry.FileInfo.find("AdministratedRelayGUID") == KelString::npos) return false;
    const KelContainer info = FileInfoOf(entry.FileInfo, entry.FileName);
    const KelString relayGuid = info.GetString("AdministratedRelayGUID");
    if (relayGuid.empty() || info.GetInt32("SendingToMaster") != 0) return false;
    KelString ownGuid;
    FileStore::GetOurDeviceGUID(ownGuid, false);
    return relayGuid == ownGuid;
}

bool RepublishManagedRelayPackage(const FileStoreEntry& entry, bool upstream) {
    FileStore::debugFileStore.Trace("HandleThread: Handling %S/%S/%S for Administrated Relay\n",
                                    entry.FileType, entry.FileLabel, entry.FileName);
    const KelString source =
        FileStore::StorePath(true, entry.FileType, entry.FileLabel, entry.FileChecksum, entry.FileName);
    const KelString folder = FileStore::StoreFolder(false, kPackageType, entry.FileLabel, entry.FileChecksum);
    const KelString path = folder + "/" + entry.FileName;
    // A restart may find the package moved already.
    if (!PathCreate(folder) || (!FileRename(source, path) && !FileExists(path))) {
        FileStore::debugFileStore.Error("HandleThread: Could not move File %S to %S\n", source, path);
        return false;
    }
    if (!RecordPackage(entry, path)) return false;
    const KelContainer info = FileInfoOf(entry.FileInfo, entry.FileName);
    // The row is what remembers the package until it is on its way: it goes last, so that whatever a stop or
    // a full disk interrupts is done again; what may fail for long comes first. An empty package never goes
    // up.
    if (CheckUpstreamSize(path, FileGetSize64(path)) && !OfferUpstream(entry, path, info)) return false;
    TellRelayModule(entry, path, info);
    return DeleteFileRow(upstream, entry.FileId);
}

}  // namespace filestore
