#include "filestore/up/arrived_files.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include "filestore/db/database.h"
#include "filestore/db/file_status.h"
#include "filestore/exchange/offer.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "filestore/state/store_space.h"
#include "filestore/up/receive_offer.h"
#include "filestore/up/upload_policy.h"
#include "filestore/up/upstream_file.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_lease.h"

namespace filestore {

namespace {

bool IsConsoleHere() {
    return ActionDbIsActionRegistered("QuarnelDbRunScript");
}

/// Fewer files are synced one by one: the file system may have much to write that is not theirs.
constexpr std::size_t kManyFiles = 5;

bool SyncContents(std::span<const CompleteFile> files) {
    if (files.size() >= kManyFiles) return DirSyncFileSystem(FileStore::strStorageLocationToUse);
    return std::ranges::all_of(files, [](const CompleteFile& file) { return FileSync(file.content); });
}

/// Asked once for all: what is wrong with one of them is said when it is offered by itself.
bool IsRoomFor(std::span<const CompleteFile> files) {
    if (files.empty() || !IsSpaceLimited()) return true;
    std::uint64_t bytes = 0, room = 0;
    for (const CompleteFile& file : files)
        bytes += static_cast<std::uint64_t>(file.entry.FileSize);
    return SpaceFor(FileStore::strStorageLocationToUse, room) != 0 || bytes <= room;
}

/// A file on its way into its place.
struct Placing {
    CompleteFile* file;
    KelString path;
    KelFileLease inUse;
};

/// The places of the files that the store does not know yet.
KelVector<Placing> FindPlaces(std::span<CompleteFile> files) {
    KelVector<Placing> places;
    std::set<KelString> paths;
    for (CompleteFile& file : files) {
        const auto known = FindUpstreamFile(file.entry.Key(), file.entry.SourceDevice);
        if (!known || known->row || !PathCreate(known->Folder())) continue;
        if (!paths.insert(known->Path()).second) continue;
        places.push_back({&file, known->Path(), KelFileLease(known->Path())});
    }
    return places;
}

/// False when not all that is in place is on the disk.
bool PutInPlace(KelVector<Placing>& places) {
    std::erase_if(places, [](const Placing& placing) {
        std::error_code error;
        std::filesystem::rename(placing.file->content, placing.path, error);
        return static_cast<bool>(error);
    });
    if (places.size() >= kManyFiles) return DirSyncFileSystem(FileStore::strStorageLocationToUse);
    return std::ranges::all_of(places, [](const Placing& placing) { return FileSync(placing.path); });
}

/// True when the file may have the place that was found for it, and is there: no other thread has recorded
/// it, or an equal file of another device, in the meantime, or has removed what it had put in the same place.
bool IsStillFree(const Placing& placing, std::optional<UpstreamFile>& file) {
    file = FindUpstreamFile(placing.file->entry.Key(), placing.file->entry.SourceDevice);
    return file && !file->row && file->Path() == placing.path && FileExists(placing.path);
}

/// All rows or none.
bool Record(KelVector<Placing>& places) {
    const FileStoreDatabase database = FileStoreGetDatabase(Side::Upstream);
    const KelLock lock(database.mutex);
    DBTransaction transaction(database.connection);
    if (!transaction.IsOpen()) return false;
    KelVector<CompleteFile*> recorded;
    for (const Placing& placing : places) {
        std::optional<UpstreamFile> file;
        if (!IsStillFree(placing, file)) continue;
        placing.file->entry.FilePath = placing.path;
        placing.file->entry.FileURL = file->Url();
        if (placing.file->entry.CreateInDatabase(Side::Upstream) == 0) return false;
        recorded.push_back(placing.file);
    }
    if (!transaction.Commit()) return false;
    for (CompleteFile* file : recorded)
        file->isTaken = true;
    return true;
}

/// Removes what was put in place for files that were not taken, unless a row has got that place, or another
/// thread is about to record one.
void RemoveUntaken(KelVector<Placing>& places) {
    std::erase_if(places, [](const Placing& placing) { return placing.file->isTaken; });
    const KelLock lock(FileStore::mutexUpstream);
    for (Placing& placing : places) {
        placing.inUse.Release();
        const KelFileClaim claim(placing.path);
        std::optional<UpstreamFile> file;
        if (claim && IsStillFree(placing, file)) DeleteFileAndFolder(placing.path);
    }
}

void WakeWorkers(std::span<const CompleteFile> files) {
    bool isHandedOver = false;
    for (const CompleteFile& file : files) {
        if (!file.isTaken) continue;
        if (file.entry.FileStatus == kStatusToBeUploaded)
            WakeToSend(file.entry.FileType);
        else
            isHandedOver = true;
    }
    if (isHandedOver) FileStore::WakeWorker(Worker::Handler);
}

}  // namespace

const char* StatusOfArrived() {
    const bool isHandledHere =
        IsConsoleHere() || CallbackDbGetActionCount("FileStoreCallbackCopyUpstream") != 0;
    return isHandledHere ? kStatusToBeHandled : kStatusToBeUploaded;
}

bool IsArrivalSpecial(const KelString& type) {
    if (type == kPackedFilesType) return true;
    return !IsConsoleHere() && (type == "PackagerZIPPackage" || type == "UpgradePackage");
}

bool ReadArrived(const KelContainer& arguments, FileStoreEntry& entry) {
    const Offer offer = ReadOffer(arguments);
    if (!offer.upstream || offer.local || offer.unconnected || IsArrivalSpecial(offer.key.type) ||
        !CheckOffer(arguments, offer) || ReadUpstreamRemote(arguments, offer, entry) != kKelOk ||
        entry.FileSize < 0)
        return false;
    entry.FileStatus = StatusOfArrived();
    return true;
}

void TakeOver(std::span<CompleteFile> files, bool synced) {
    if (!IsRoomFor(files)) return;
    // The contents come first: after a power cut, a name never stands for less than its file.
    if (!synced && !SyncContents(files)) return;
    KelVector<Placing> places = FindPlaces(files);
    if (places.empty()) return;
    if (PutInPlace(places)) Record(places);
    RemoveUntaken(places);
    WakeWorkers(files);
}

}  // namespace filestore
