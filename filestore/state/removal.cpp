#include "filestore/state/removal.h"

#include <set>
#include <utility>

#include "filestore/db/files_selection.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "kel/format.h"
#include "kel/text.h"

namespace filestore {

namespace {

KelString RowPrefix(Side side) {
    return KelFormat("%s row ", SideName(side));
}

KelString RowName(Side side, std::uint64_t fileId) {
    return RowPrefix(side) + std::to_string(fileId);
}

KelMutex mutexPostponed;  ///< a leaf
std::set<KelString> postponed KEL_GUARDED_BY(mutexPostponed);

/// True when the content at `path` belongs to a row, or when that cannot be said.
bool HasRow(const KelString& path) {
    const KelString& root = FileStore::strStorageLocationToUse;
    const auto place = path.starts_with(root) ? ParseStoredPath(path.substr(root.size())) : std::nullopt;
    if (!place) return true;  // the store has moved
    if (place->side == Side::Downstream) {
        const auto rows = SelectFilesOfKey(place->key);
        return !rows || !rows->empty();
    }
    const auto rows = SelectUpstreamFiles(place->key);
    return !rows || !rows->empty();
}

}  // namespace

FileInUse::FileInUse(Side side, const FileStoreEntry& file)
    : row_(file.FileId == 0 ? KelString() : RowName(side, file.FileId)), content_(ContentPath(file, side)) {}

KelVector<std::uint64_t> FilesInUse(Side side) {
    const KelString prefix = RowPrefix(side);
    KelVector<std::uint64_t> fileIds;
    for (const KelString& name : KelFileLease::Names(prefix))
        fileIds.push_back(ParseUint64(name.substr(prefix.size())).value_or(0));
    return fileIds;
}

bool ContentRemoval::Claim(const FileStoreEntry& file) {
    KelFileClaim row(RowName(side_, file.FileId));
    KelFileClaim content(ContentPath(file, side_));
    if (!row || !content) return false;
    claims_.push_back(std::move(row));
    claims_.push_back(std::move(content));
    return true;
}

void ContentRemoval::Confirm(const FileStoreEntry& file) {
    if (!file.ExternalFile) paths_.push_back(ContentPath(file, side_));
}

void ContentRemoval::RemoveContent() {
    for (const KelString& path : std::exchange(paths_, {}))
        DeleteFileAndFolder(path);
}

void PostponeRemoval(const KelString& path) {
    const KelLock lock(mutexPostponed);
    postponed.insert(path);
}

void RemovePostponed() {
    std::set<KelString> paths;
    {
        const KelLock lock(mutexPostponed);
        paths.swap(postponed);
    }
    for (const KelString& path : paths) {
        const KelFileClaim claim(path);
        if (!claim)
            PostponeRemoval(path);
        else if (!HasRow(path))
            DeleteFileAndFolder(path);
    }
}

}  // namespace filestore
