#include "filestore/state/store_layout.h"

#include <algorithm>

#include "filestore/state/file_store.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/http/part_file.h"

KelString FileStore::StoreFolder(Side side, const FileKey& key) {
    return strStorageLocationToUse + filestore::StoredFolder(side, key);
}

KelString FileStore::StorePath(Side side, const FileKey& key) {
    return strStorageLocationToUse + filestore::StoredPath(side, key);
}

namespace filestore {

KelString ContentPath(const FileStoreEntry& entry, Side side) {
    return entry.ExternalFile ? entry.FilePath
                              : FileStore::strStorageLocationToUse + StoredPathOf(entry, side);
}

KelString StoredPathOf(const FileStoreEntry& entry, Side side) {
    return StoredPath(side, entry.Key(), side == Side::Upstream ? StoredSourceOf(entry) : KelString());
}

KelString StoredSourceOf(const FileStoreEntry& entry) {
    if (entry.ExternalFile) return {};
    constexpr std::size_t kParts = 6;
    const KelVector<KelString> parts = SplitText(entry.FilePath, '/');
    if (parts.size() < kParts) return {};
    KelString path;
    for (std::size_t i = parts.size() - kParts; i < parts.size(); ++i)
        path += (path.empty() ? "" : "/") + parts[i];
    const auto place = ParseStoredPath(path);
    return place && place->key == entry.Key() ? place->source : KelString();
}

KelString StoreWorkFolder() {
    return FileStore::strStorageLocationToUse + "Temp";
}

KelString ModuleWorkFolder() {
    return FileStore::strModuleDataPath + "/Temp";
}

void DeleteFileAndFolder(const KelString& path) {
    FileDelete(path);
    KelString folder, name;
    SplitPath(path, folder, name);
    if (DirDelete(folder, false)) return;
    const KelVector<KelString> left = DirList(folder);
    // What has come of interrupted uploads goes with the last file of its folder.
    if (!std::ranges::all_of(left, [](const KelString& entry) { return entry.starts_with(kPartFilePrefix); }))
        return;
    for (const KelString& entry : left)
        FileDelete(folder + "/" + entry);
    DirDelete(folder, false);
}

}  // namespace filestore
