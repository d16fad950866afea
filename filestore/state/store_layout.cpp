#include "filestore/state/store_layout.h"

#include "filestore/state/file_store.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"

KelString FileStore::StoreFolder(Side side, const FileKey& key) {
    return strStorageLocationToUse + filestore::StoredFolder(side, key);
}

KelString FileStore::StorePath(Side side, const FileKey& key) {
    return strStorageLocationToUse + filestore::StoredPath(side, key);
}

namespace filestore {

KelString ContentPath(const FileStoreEntry& entry, Side side) {
    return entry.ExternalFile ? entry.FilePath : FileStore::StorePath(side, entry.Key());
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
    DirDelete(folder, false);
}

}  // namespace filestore
