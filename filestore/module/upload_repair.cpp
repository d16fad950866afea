#include "filestore/module/upload_repair.h"

#include "filestore/db/file_status.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/threads/callback_thread.h"
#include "kel/directory.h"
#include "kel/file.h"

using namespace filestore;

namespace {

/// A PUT appears under its name only when it is complete. This makes up for entries of the callback queue,
/// too, which is not synced.
void QueueArrivedFiles() {
    const auto rows = FileStore::pDbConnectionUpstream->Query(
        KelFormat("SELECT %s, %s FROM %s WHERE %s = '%s'", kFileUrl, kFilePath, kTableFiles, kFileStatus,
                  kStatusReceiving));
    for (std::size_t row = 0; rows && row < rows->GetRowCount(); ++row) {
        if (!FileExists(rows->GetString(row, kFilePath))) continue;
        FileStoreCallbackThread::Enqueue(rows->GetString(row, kFileUrl));
    }
}

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

void FileStoreRepairUploads() {
    RemoveEntries(FileStore::strModuleDataPath + "/Temp", "PACKEDFILES_");
    RemoveEntries(FileStore::strStorageLocationToUse, ".extract-");
    QueueArrivedFiles();
}
