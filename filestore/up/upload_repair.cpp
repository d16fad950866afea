#include "filestore/up/upload_repair.h"

#include "filestore/db/callback_table.h"
#include "filestore/db/files_selection.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "filestore/up/upload_archive.h"
#include "kel/directory.h"
#include "kel/file.h"

using namespace filestore;

namespace {

void RemoveEntries(const KelString& folder, const char* prefix) {
    for (const KelString& name : DirList(folder)) {
        if (!name.starts_with(prefix)) continue;
        const KelString path = folder + "/" + name;
        if (DirExists(path))
            DirDelete(path, true);
        else
            FileDelete(path);
    }
}

}  // namespace

void FileStoreRemoveLeftOvers() {
    DirDeleteTempFiles(ModuleWorkFolder());
    DirDeleteTempFiles(StoreWorkFolder());
    RemoveEntries(ModuleWorkFolder(), kArchiveNamePrefix);
    RemoveEntries(StoreWorkFolder(), kArchiveNamePrefix);  // indexes that earlier versions extracted
    RemoveEntries(FileStore::strStorageLocationToUse, kUnpackFolderPrefix);
}

/// A PUT appears under its name only when it is complete. This also replaces entries of the callback queue
/// that a power cut removed: that database is not synced at every change.
void FileStoreRepairUploads() {
    for (const FileStoreEntry& entry : SelectFilesBeingReceived())
        if (FileExists(ContentPath(entry, Side::Upstream)))
            EnqueueArrivedFile(StoredUrl(Side::Upstream, entry.Key(), StoredSourceOf(entry)));
}
