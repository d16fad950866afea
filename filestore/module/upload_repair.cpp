#include "filestore/module/upload_repair.h"

#include "filestore/db/file_status.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/threads/callback_thread.h"
#include "filestore/transfer/file_record.h"
#include "filestore/transfer/local_source.h"
#include "kel/directory.h"
#include "kel/file.h"

using namespace filestore;

namespace {

constexpr const char* kArchive = "PACKEDFILES_";
constexpr const char* kHalfUnpacked = ".extract-";

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
    const KelString temp = FileStore::strModuleDataPath + "/Temp";
    DirDeleteTempFiles(temp);
    DirDeleteTempFiles(StoreWorkFolder());
    RemoveEntries(temp, kArchive);
    RemoveEntries(StoreWorkFolder(), kArchive);  // indexes taken out of archives
    RemoveEntries(FileStore::strStorageLocationToUse, kHalfUnpacked);
}

/// A PUT appears under its name only when it is complete. This makes up for entries of the callback queue,
/// too, which is not synced.
void FileStoreRepairUploads() {
    const auto rows = FileStore::pDbConnectionUpstream->Query(KelFormat(
        "SELECT %s, %s, %s, %s, %s, %s, %s FROM %s WHERE %s = '%s'", kFileUrl, kFileType, kFileLabel,
        kFileName, kFileChecksum, kFilePath, kExternalFile, kTableFiles, kFileStatus, kStatusReceiving));
    for (std::size_t row = 0; rows && row < rows->GetRowCount(); ++row) {
        FileStoreEntry entry;
        entry.LoadFromResult(*rows, row);
        if (FileExists(ContentPath(entry, true))) FileStoreCallbackThread::Enqueue(entry.FileURL);
    }
}
