#include "filestore/packages/managed_relay_package.h"

#include "filestore/db/file_status.h"
#include "filestore/db/files_table.h"
#include "filestore/exchange/file_record.h"
#include "filestore/exchange/local_source.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/removal.h"
#include "filestore/state/store_layout.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

namespace filestore {

namespace {

FileKey PackageKey(const FileStoreEntry& handled) {
    return {kRulePackageType, handled.FileLabel, handled.FileName, handled.FileChecksum};
}

/// Records the package as available to the devices below; false when that failed.
bool RecordPackage(const FileStoreEntry& handled, const KelString& path) {
    const KelLock lock(FileStore::mutexDownstream);
    const auto known = FindExactFile(Side::Downstream, PackageKey(handled));
    if (!known) {
        FileStore::debugFileStore.Error(
            "HandleThread: Could not fetch info from Files table on whether an entry for '%S' already exists "
            "or not.\n",
            handled.FileName);
        return false;
    }
    FileStoreEntry package(PackageKey(handled));
    if (*known != 0) {
        if (!package.LoadFromDatabase(*known, Side::Downstream)) return false;
    } else {
        // What belongs to the way up (URL, times, bypass) does not apply to the way down. Nor does the source
        // device: the devices below fetch from the one that is named, and the package lies here.
        package.FirstRelay = handled.FirstRelay;
        package.FileInfo = handled.FileInfo;
        package.Priority = handled.Priority;
        package.Acknowledged = true;
        package.TransportMode = kTransportLocal;
    }
    if (!package.ExternalFile) {
        package.FilePath = path;  // a row that was made by a request has neither path nor size
        package.FileSize = FileGetSize64(path);
    }
    package.FileStatus = kStatusAvailable;
    package.KeepCopy = static_cast<std::uint32_t>(FileStore::eKeepCopyMask.load());
    return *known != 0 ? package.SaveToDatabase(Side::Downstream)
                       : package.CreateInDatabase(Side::Downstream) != 0;
}

FileOffer PackageOffer(const FileStoreEntry& handled, const KelString& type) {
    FileOffer offer;
    offer.key = {type, handled.FileLabel, handled.FileName, {}};
    offer.sourceDevice = handled.SourceDevice;
    offer.upstream = true;
    return offer;
}

void HandToRelayModule(const FileStoreEntry& handled, const KelString& path, const KelContainer& info) {
    FileOffer offer = PackageOffer(handled, handled.FileType);
    offer.key.checksum = handled.FileChecksum;
    offer.filePath = path;
    offer.info = info;
    KelContainer call = offer.ToContainer();
    const unsigned int error = CallLocal("RelayReceiveFile", call);
    if (error != kKelOk)
        FileStore::debugFileStore.Warning(
            "HandleThread: The relay module refused package '%S', error %u; it has no copy of its own\n",
            path, error);
}

/// What goes further up is a copy: the package itself stays in the downstream store. False when the copy
/// could not be made or was refused.
bool OfferUpstream(const FileStoreEntry& handled, const KelString& path, KelContainer info) {
    KelString copy;
    const UniqueFd reserved = FileCreateTemp(ModuleWorkFolder(), copy);
    if (!reserved || !FileCopy(path, copy, false)) {
        FileStore::debugFileStore.Error(
            "HandleThread: Cannot copy package '%S' to offer it upstream: check the space\n", path);
        if (reserved) FileDelete(copy);
        return false;
    }
    info.SetInt32("SendingToMaster", 1);
    info.SetInt32("AdministratedRelayID", info.GetInt32("AdministratedRelayID", -1));
    FileOffer offer = PackageOffer(handled, "PackagerAdministratedPackage");
    offer.movePath = copy;
    offer.info = std::move(info);
    KelContainer call = offer.ToContainer();
    const unsigned int error = CallLocal("FileStoreReceiveFile", call);
    if (error == kKelOk) return true;
    FileStore::debugFileStore.Error(
        "HandleThread: Package '%S' could not be offered upstream, error %u; it is offered again later\n",
        path, error);
    FileDelete(copy);
    return false;
}

}  // namespace

bool IsManagedRelayPackage(const FileStoreEntry& entry) {
    // What comes from below is none whatever it says: it would be a package for all other devices below. Most
    // files are none: their information is not parsed.
    if (entry.Upstream && entry.TransportMode != kTransportLocal) return false;
    if (entry.FileInfo.find("AdministratedRelayGUID") == KelString::npos) return false;
    const KelContainer info = FileInfoOf(entry);
    const KelString relayGuid = info.GetString("AdministratedRelayGUID");
    return !relayGuid.empty() && info.GetInt32("SendingToMaster") == 0 && relayGuid == OurGuid();
}

bool RepublishManagedRelayPackage(const FileStoreEntry& entry, Side side) {
    FileStore::debugFileStore.Trace("HandleThread: Handling %S/%S/%S for Administrated Relay\n",
                                    entry.FileType, entry.FileLabel, entry.FileName);
    const KelString source =
        FileStore::strStorageLocationToUse +
        (side == Side::Upstream ? StoredPathOf(entry, side) : StoredPath(Side::Upstream, entry.Key()));
    const KelString path = FileStore::StorePath(Side::Downstream, PackageKey(entry));
    const FileInUse inUse(side, entry);
    const KelFileLease place(path);
    // After a restart the package may have been moved already.
    if (!PathCreate(FileStore::StoreFolder(Side::Downstream, PackageKey(entry))) ||
        (!FileRename(source, path) && !FileExists(path))) {
        FileStore::debugFileStore.Error("HandleThread: Could not move File %S to %S\n", source, path);
        return false;
    }
    if (!RecordPackage(entry, path)) return false;
    const KelContainer info = FileInfoOf(entry);
    // The row goes last: as long as it is there, whatever a stop or a full disk has interrupted is done
    // again. The offer may fail for a long time, so that it comes before the relay module's copy. An empty
    // package stays here: no device above accepts an empty file.
    if (CheckUpstreamSize(path, FileGetSize64(path)) && !OfferUpstream(entry, path, info)) return false;
    HandToRelayModule(entry, path, info);
    return DeleteFileRow(side, entry.FileId);
}

}  // namespace filestore
