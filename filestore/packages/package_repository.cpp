#include "filestore/packages/package_repository.h"

#include <algorithm>

#include "filestore/db/file_status.h"
#include "filestore/db/files_table.h"
#include "filestore/exchange/file_record.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/removal.h"
#include "filestore/state/store_layout.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

namespace filestore {

namespace {

/// Held while content of the repository is hashed and copied: calls for the same package would otherwise copy
/// it side by side. Taken before mutexDownstream.
KelMutex mutexRepository;

/// True when the HTTP alias, which is published for the setting as it stands, serves the file: not with
/// several folders.
bool IsServedFromRepository(const KelString& path, const KelString& fileName) {
    const KelLock lock(FileStore::mutexSettings);
    return path == FileStore::strPackagesRepositoryPath + "/" + fileName;
}

KelString FindInRepository(const KelString& fileName) {
    KelString folders;
    {
        const KelLock lock(FileStore::mutexSettings);
        folders = FileStore::strPackagesRepositoryPath;
    }
    for (const KelString& folder : SplitText(folders, ',')) {
        KelString path = Trim(folder) + "/" + fileName;
        if (path.size() > fileName.size() + 1 && FileExists(path)) return path;
    }
    return {};
}

KelContainer RelayDescription() {
    KelContainer description;
    description.SetString("AdministratedRelayGUID", OurGuid());
    description.SetString(
        "AdministratedRelayAddrPort",
        KelFormat("%S:%u", AskIpAddress(), static_cast<std::uint32_t>(std::max(AskHttpPort(), 0))));
    description.SetInt32("SendingToMaster", 1);
    return description;
}

/// Sends the package up as any upstream file. The repository keeps its file: a copy travels.
void OfferUpstream(const FileStoreEntry& file, const KelString& path) {
    KelString copy;
    const UniqueFd reserved = FileCreateTemp(ModuleWorkFolder(), copy);
    if (!reserved || !FileCopy(path, copy, false)) {
        FileStore::debugFileStore.Error(
            "Cannot copy '%S' from the package repository: check the space of '%S'\n", path,
            FileStore::strModuleDataPath);
        if (reserved) FileDelete(copy);
        return;
    }
    FileOffer offer;
    offer.key = file.Key();
    offer.upstream = true;
    offer.movePath = copy;
    offer.info = FileInfoOf(file);
    offer.info->SetContainer("PackagerAdministratedPackage", RelayDescription());
    KelContainer call = offer.ToContainer();
    if (CallLocal("FileStoreReceiveFile", call) != kKelOk) FileDelete(copy);
}

/// Where devices find the content of a repository file.
struct Place {
    KelString path;
    KelString url;
    bool isExternal = false;
};

/// Copies the content into the store, or refers to it; false when it could not be copied.
bool PlaceRepositoryFile(const FileKey& key, const KelString& source, Place& place) {
    if (!FileStore::fPackagesRepositoryCopy && IsServedFromRepository(source, key.name)) {
        FileStore::debugFileStore.Print("Reference from repository\n");
        place = {source, "/AlternativePackagesRepositoryPath/" + key.name, true};
        return true;
    }
    FileStore::debugFileStore.Print("Copy from repository\n");
    place = {FileStore::StorePath(Side::Downstream, key), StoredUrl(Side::Downstream, key), false};
    const KelString work = StoreWorkFolder();
    if (PathCreate(FileStore::StoreFolder(Side::Downstream, key)) && PathCreate(work) &&
        FileCopy(source, place.path, false, work))
        return true;
    FileStore::debugFileStore.Error(
        "Cannot copy '%S' from the package repository to '%S': check space and permissions\n", source,
        place.path);
    return false;
}

/// True when another call has brought the file to an end since `before` was read.
bool HasBeenCompleted(const FileStoreEntry& before, const FileStoreEntry& now) {
    const bool isComplete = now.FileStatus == kStatusAvailable || now.FileStatus == kStatusObsolete;
    const bool isOtherRow = before.FileId != 0 && before.FileId != now.FileId;
    return isComplete && !isOtherRow && before.FileStatus != now.FileStatus;
}

enum class Entering { Failed, Entered, NotNeeded };

/// Enters `file`, whose content lies at `place`, in its row or in a new one. `before` is the row as it was
/// before the content was read.
Entering EnterInStore(const FileStoreEntry& file, const FileStoreEntry& before, const Place& place) {
    const KelLock lock(FileStore::mutexDownstream);
    // Under the lock: until the row says otherwise, the pull thread may remove what lies at the same place.
    const std::int64_t size = FileGetSize64(place.path);
    if (size < 0) return Entering::Failed;
    FileStoreEntry entry = file;
    if (LoadKnownFile(Side::Downstream, entry) && HasBeenCompleted(before, entry)) return Entering::NotNeeded;
    // A file that the parent has announced is acknowledged to it, as after a download.
    const bool isAnnounced =
        entry.FileStatus == kStatusDownloading || entry.FileStatus == kStatusMulticastListening;
    entry.FileChecksum = file.FileChecksum;
    entry.FilePath = place.path;
    entry.FileURL = place.url;
    entry.ExternalFile = place.isExternal;
    entry.FileSize = size;
    entry.FileStatus = kStatusAvailable;
    entry.LastStatusChangeTime = 0;
    entry.Acknowledged = !isAnnounced;
    entry.TransportMode = kTransportLocal;
    const bool isEntered = entry.FileId != 0 ? entry.SaveToDatabase(Side::Downstream)
                                             : entry.CreateInDatabase(Side::Downstream) != 0;
    if (isEntered && isAnnounced) FileStore::WakeWorker(Worker::Pull);
    return isEntered ? Entering::Entered : Entering::Failed;
}

}  // namespace

RepositoryResult TakeFromRepository(const FileStoreEntry& file) {
    const KelString path = FindInRepository(file.FileName);
    if (path.empty()) return RepositoryResult::Absent;
    FileStore::debugFileStore.Print("File found in package repository\n");
    const KelLock oneAtATime(mutexRepository);
    FileStoreEntry before(file.Key());
    if (LoadKnownFile(Side::Downstream, before) && before.FileStatus == kStatusAvailable)
        return RepositoryResult::InStore;
    KelString checksum;
    if (!FileMd5(path, checksum)) return RepositoryResult::Absent;
    if (checksum != file.FileChecksum && !file.FileChecksum.empty()) {
        FileStore::debugFileStore.Warning("Bad checksum: '%S'\n", checksum);
        return RepositoryResult::BadChecksum;
    }
    FileStore::debugFileStore.Print("Checksum is valid for package from repository\n");
    FileStoreEntry taken = file;
    taken.FileChecksum = checksum;
    Place place;
    const KelFileLease inUse(FileStore::StorePath(Side::Downstream, taken.Key()));
    if (!PlaceRepositoryFile(taken.Key(), path, place)) return RepositoryResult::Absent;
    const Entering entering = EnterInStore(taken, before, place);
    if (entering == Entering::Entered) OfferUpstream(taken, path);
    return entering == Entering::Failed ? RepositoryResult::Absent : RepositoryResult::Taken;
}

}  // namespace filestore
