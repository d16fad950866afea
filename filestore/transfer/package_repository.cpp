#include "filestore/transfer/package_repository.h"

#include "filestore/db/file_status.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/transfer/file_record.h"
#include "filestore/transfer/local_source.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/action_db.h"

namespace filestore {

namespace {

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
    KelContainer guid, address, http, description;
    ActionDbInvokeContainer(nullptr, "", "IdentityGetGUID", guid, 0, -1, -1, nullptr);
    ActionDbInvokeContainer(nullptr, "", "AgentGetIPAddress", address, 0, -1, -1, nullptr);
    ActionDbInvokeContainer(nullptr, "", "HttpProtocolGetParams", http, 0, -1, -1, nullptr);
    description.SetString("AdministratedRelayGUID", guid.GetString("GUID"));
    description.SetString(
        "AdministratedRelayAddrPort",
        KelFormat("%S:%u", address.GetString("IPAddress"),
                  static_cast<std::uint32_t>(http.GetContainer("Values").GetInt32("Port"))));
    description.SetInt32("SendingToMaster", 1);
    return description;
}

/// Tells those above of the package by sending it up as any upstream file. The repository keeps its file: a
/// copy travels.
void OfferUpstream(const FileStoreEntry& file, const KelString& path) {
    KelString copy;
    const UniqueFd descriptor = FileCreateTemp(FileStore::strModuleDataPath + "/Temp", copy);
    if (!descriptor || !FileCopy(path, copy, false)) {
        FileStore::debugFileStore.Error(
            "Cannot copy '%S' from the package repository: check the space of '%S'\n", path,
            FileStore::strModuleDataPath);
        if (descriptor) FileDelete(copy);
        return;
    }
    KelContainer info = FileInfoOf(file.FileInfo, file.FileName);
    info.SetContainer("PackagerAdministratedPackage", RelayDescription());
    KelContainer offer;
    offer.SetString(kFileType, file.FileType);
    offer.SetString(kFileLabel, file.FileLabel);
    offer.SetString(kFileName, file.FileName);
    offer.SetString(kFileChecksum, file.FileChecksum);
    offer.SetBool(kUpstream, true);
    offer.SetString("MovePath", copy);
    offer.SetContainer(kFileInfo, std::move(info));
    if (ActionDbInvokeContainer(nullptr, "", "FileStoreReceiveFile", offer, 0, -1, -1, nullptr) != 0)
        FileDelete(copy);
}

bool EnterInStore(const FileStoreEntry& file, const KelString& path) {
    FileStoreEntry entry = file;
    if (const unsigned long known =
            FileStore::FindFileInDatabase(*FileStore::pDbConnectionDownstream, file.FileType, file.FileLabel,
                                          file.FileName, file.FileChecksum))
        entry.LoadFromDatabase(known, false);
    entry.FileChecksum = file.FileChecksum;
    if (FileStore::fPackagesRepositoryCopy || !IsServedFromRepository(path, file.FileName)) {
        FileStore::debugFileStore.Print("Copy from repository\n");
        const KelString folder =
            FileStore::StoreFolder(false, file.FileType, file.FileLabel, file.FileChecksum);
        entry.FilePath = folder + "/" + file.FileName;
        entry.FileURL =
            FileStore::StoreUrl(false, file.FileType, file.FileLabel, file.FileChecksum, file.FileName);
        entry.ExternalFile = false;
        const KelString work = StoreWorkFolder();
        if (!PathCreate(folder) || !PathCreate(work) || !FileCopy(path, entry.FilePath, false, work)) {
            FileStore::debugFileStore.Error(
                "Cannot copy '%S' from the package repository to '%S': check space and permissions\n", path,
                entry.FilePath);
            return false;
        }
    } else {
        FileStore::debugFileStore.Print("Reference from repository\n");
        entry.FilePath = path;
        entry.FileURL = KelFormat("/%s/%S", "AlternativePackagesRepositoryPath", file.FileName);
        entry.ExternalFile = true;
    }
    entry.FileSize = FileGetSize64(entry.FilePath);
    entry.FileStatus = kStatusAvailable;
    entry.LastStatusChangeTime = 0;
    entry.Acknowledged = true;
    entry.TransportMode = kTransportLocal;
    return entry.FileId != 0 ? entry.SaveToDatabase(false) : entry.CreateInDatabase(false) != 0;
}

}  // namespace

RepositoryResult TakeFromRepository(const FileStoreEntry& file) {
    const KelString path = FindInRepository(file.FileName);
    if (path.empty()) return RepositoryResult::Absent;
    FileStore::debugFileStore.Print("File found in package repository\n");
    KelString checksum;
    if (!FileMd5(path, checksum)) return RepositoryResult::Absent;
    if (checksum != file.FileChecksum && !file.FileChecksum.empty()) {
        FileStore::debugFileStore.Warning("Bad checksum: '%S'\n", checksum);
        return RepositoryResult::BadChecksum;
    }
    FileStore::debugFileStore.Print("Checksum is valid for package from repository\n");
    FileStoreEntry taken = file;
    taken.FileChecksum = checksum;
    if (!EnterInStore(taken, path)) return RepositoryResult::Absent;
    OfferUpstream(taken, path);
    return RepositoryResult::Taken;
}

}  // namespace filestore
