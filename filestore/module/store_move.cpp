#include "filestore/module/store_move.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <optional>

#include "filestore/db/files_table.h"
#include "filestore/db/information_table.h"
#include "filestore/state/file_store.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/tree_copy.h"
#include "kelcore/db/connection.h"
#include "kelcore/stopping.h"

namespace filestore {

namespace {

constexpr std::array kStoreFolders = {"downstream", "upstream"};
constexpr std::uint64_t kMiB = 1 << 20;
/// What a file takes at most on the disk besides its content, for its last block and its entries.
constexpr std::uint64_t kBytesBesides = 8192;
constexpr std::chrono::seconds kReportInterval{10};

KelDebug& Log() {
    return FileStore::debugFileStore;
}

/// True when a path is a folder or lies below it, once links are followed.
bool LiesWithin(const KelString& path, const KelString& folder) {
    // What cannot be resolved becomes "/": a folder that holds everything, so that it is not deleted.
    std::error_code failure;
    const auto resolved = [&](const KelString& text) -> KelString {
        return std::filesystem::weakly_canonical(text, failure).string() + "/";
    };
    return resolved(path).starts_with(resolved(folder));
}

/// The store's folder at `location` that holds one of those at `inner`; empty when there is none. What was
/// copied there would be deleted with it.
KelString FolderThatHolds(const KelString& location, const KelString& inner) {
    for (const char* folder : kStoreFolders)
        for (const char* source : kStoreFolders)
            if (LiesWithin(inner + folder, location + source)) return location + source;
    return {};
}

/// A file, or anything else, in the place of a folder; empty when there is none.
KelString ObstacleAt(const KelString& location) {
    for (const char* folder : kStoreFolders)
        if (FileExists(location + folder)) return location + folder;
    return {};
}

bool IsEmpty(const KelString& location) {
    return std::ranges::all_of(kStoreFolders,
                               [&](const char* folder) { return DirList(location + folder).empty(); });
}

/// What is to be copied: all files, and the bytes of those that cannot become links.
std::optional<TreeSize> MeasureStore(const KelString& previous, const KelString& location) {
    TreeSize size;
    for (const char* folder : kStoreFolders) {
        const auto found = TreeMeasure(previous + folder);
        if (!found) {
            Log().Error("%S. The store stays where it is; its move is tried again at the next start\n",
                        found.Error().message);
            return std::nullopt;
        }
        size.files += found->files;
        if (!TreesShareFileSystem(previous + folder, location)) size.bytes += found->bytes;
    }
    return size;
}

bool HasRoom(const TreeSize& size, const KelString& location) {
    const std::uint64_t needed = size.bytes + size.files * kBytesBesides;
    std::uint64_t free = 0;
    if (size.bytes == 0 || (DiskFree(location, free) == 0 && free >= needed)) return true;
    Log().Error(
        "The store cannot be moved to %S: it needs %gu MiB there, and %gu MiB are free. It stays where it "
        "is; make room, or choose another folder, and start the agent again\n",
        location, needed / kMiB + 1, free / kMiB);
    return false;
}

/// Logs now and then how far the copy is.
class Progress {
  public:
    explicit Progress(const TreeSize& whole) : whole_(whole) {}

    /// `copied`: of the present folder.
    void Report(const TreeSize& copied) {
        const auto now = std::chrono::steady_clock::now();
        if (now - last_ < kReportInterval) return;
        last_ = now;
        Log().Print("Moving the store: %gu of %gu files, %gu MiB\n", before_.files + copied.files,
                    whole_.files, (before_.bytes + copied.bytes) / kMiB);
    }
    void FolderIsDone(const TreeSize& copied) {
        before_.files += copied.files;
        before_.bytes += copied.bytes;
    }

  private:
    TreeSize whole_;
    TreeSize before_;
    std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

/// Copies the store and puts the copy on the disk.
KelStatus CopyStore(const KelString& previous, const KelString& location, const TreeSize& size) {
    Progress progress(size);
    for (const char* folder : kStoreFolders) {
        TreeSize copied;
        const auto step = [&](const TreeSize& now) {
            progress.Report(copied = now);
            return !KelAgentIsStopping();
        };
        if (KelStatus status = TreeCopy(previous + folder, location + folder, step); !status) return status;
        progress.FolderIsDone(copied);
        if (!DirSyncFileSystem(location + folder))
            return SystemError("A folder cannot be put on the disk:", location + folder);
    }
    return DirSyncFileSystem(location) ? KelStatus()
                                       : SystemError("A folder cannot be put on the disk:", location);
}

/// Location, paths and what is to be removed change together or not at all.
bool PutInForce(const KelString& previous, const KelString& location) {
    const KelLock lock(FileStore::mutexDownstream);
    DBTransaction transaction(*FileStore::pDbConnectionDownstream);
    return transaction.IsOpen() && WriteInformation(kStorageLocationField, location) &&
           MoveContentPaths(Side::Downstream, previous, location) &&
           WriteInformation(kStoreToRemoveField, previous) && transaction.Commit();
}

/// A commit that failed may be found complete at the next start unless something else is written in its
/// place. Until that is done, the copy must stay.
bool PutOutOfForce(const KelString& toRemove) {
    const KelLock lock(FileStore::mutexDownstream);
    DBTransaction transaction(*FileStore::pDbConnectionDownstream);
    return transaction.IsOpen() && DeleteInformation(kStoreToRemoveField) &&
           WriteInformation(kStoreToRemoveField, toRemove) && transaction.Commit();
}

bool RemoveStore(const KelString& location) {
    bool isGone = true;
    for (const char* folder : kStoreFolders) {
        if (DirDelete(location + folder, true)) continue;
        isGone = false;
        Log().Warning(
            "The store is no longer in %S%s, but this folder could not be removed; remove it, or correct its "
            "rights: it is tried again at the next start\n",
            location, folder);
    }
    return isGone;
}

void LogEnd(const KelError& error) {
    if (error.code == kTreeCopyEnded)
        Log().Print("The agent stops: the store stays where it is; it is moved at the next start\n");
    else
        Log().Error(
            "The store could not be copied: %S. It stays where it is; its move is tried again at the next "
            "start\n",
            error.message);
}

void LogUnrecorded(const KelString& previous) {
    Log().Error(
        "The database does not take the new location of the store. It stays in %S; its move is tried again "
        "at "
        "the next start\n",
        previous);
}

/// False, logged, when the store cannot lie at `location`, which is created.
bool IsUsable(const KelString& location, const KelString& previous) {
    if (const KelString holder = FolderThatHolds(previous, location); !holder.empty())
        Log().Error(
            "FileStorage leads to %S, which lies in the store's own folder %S: the store stays where it is; "
            "choose another folder\n",
            location, holder);
    else if (!PathCreate(location))
        Log().Error("%S. The store stays where it is; correct FileStorage\n",
                    SystemError("A folder cannot be created:", location).message);
    else if (const KelString obstacle = ObstacleAt(location); !obstacle.empty())
        Log().Error("%S is no folder: the store stays where it is; remove it, or choose another folder\n",
                    obstacle);
    else
        return true;
    return false;
}

}  // namespace

bool MoveStore(const KelString& previous, const KelString& location) {
    if (!IsUsable(location, previous)) return false;
    const auto size = MeasureStore(previous, location);
    if (!size || !HasRoom(*size, location)) return false;
    // Only folders that held nothing before are removed when the copy fails.
    const bool isOwn = IsEmpty(location);
    if (isOwn && !WriteInformation(kStoreToRemoveField, location)) {
        LogUnrecorded(previous);
        return false;
    }
    Log().Print("Moving the store from %S to %S: %gu files, %gu MiB to copy\n", previous, location,
                size->files, size->bytes / kMiB);
    if (const KelStatus copied = CopyStore(previous, location, *size); !copied) {
        LogEnd(copied.Error());
        FinishEarlierMove(previous);
        return false;
    }
    if (!PutInForce(previous, location)) {
        LogUnrecorded(previous);
        if (PutOutOfForce(isOwn ? location : KelString())) FinishEarlierMove(previous);
        return false;
    }
    Log().Print("The store has moved to %S\n", location);
    FinishEarlierMove(location);
    return true;
}

void FinishEarlierMove(const KelString& location) {
    const KelString left = ReadInformation(kStoreToRemoveField).value_or("");
    if (left.empty()) return;
    // One that holds the store in force, because somebody has changed links since, is not touched.
    if (FolderThatHolds(left, location).empty() &&
        (!MoveContentPaths(Side::Upstream, left, location) || !RemoveStore(left)))
        return;
    DeleteInformation(kStoreToRemoveField);
}

}  // namespace filestore
