#include "filestore/threads/packed_upload.h"

#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/threads/stored_file.h"
#include "filestore/transfer/upload_policy.h"
#include "kel/file.h"
#include "kelcore/action_db.h"

namespace filestore {

namespace {

constexpr int kTries = 5;
constexpr std::uint64_t kPauseBetweenTries = 50;  // milliseconds

bool Extract(KelThread& thread, const FileStoreEntry& archive) {
    for (int number = 1;; ++number) {
        KelContainer call;
        call.SetString("FilePath", archive.FilePath);
        call.SetString("DestinationPath", FileStore::strStorageLocationToUse);
        const unsigned int error =
            ActionDbInvokeContainer(nullptr, "", "CoreUtilsExtractFile", call, 0, -1, -1, nullptr);
        if (error == 0) return true;
        if (number == kTries) {
            FileStore::debugFileStore.Error("CallbackThread: Failed to extract packedfile %S, error %u\n",
                                            archive.FilePath, error);
            return false;
        }
        FileStore::debugFileStore.Warning(
            "CallbackThread: Failed to extract packedfile %S, error %u (try number %d)\n", archive.FilePath,
            error, number);
        thread.Sleep(kPauseBetweenTries);
        if (thread.CheckCancelled(false)) return false;
    }
}

/// The index under a name of its own, so that archives do not overwrite each other's.
KelString TakeIndex(const FileStoreEntry& archive) {
    const KelString extracted = FileStore::strStorageLocationToUse + "/" + kPackingIndexEntry;
    const KelString kept = KelFormat("%S/Temp/%S.xml", FileStore::strStorageLocationToUse, archive.FileName);
    if (FileRename(extracted, kept)) return kept;
    FileStore::debugFileStore.Error("CallbackThread: Failed to retrieve %S from %S\n", extracted,
                                    archive.FileName);
    return {};
}

bool EnterPackedFile(const KelContainer& record, const FileStoreEntry& archive,
                     const KelString& targetStatus) {
    const KelString name = record.GetString(kFileName);
    const KelString checksum = record.GetString(kFileChecksum);
    FileStore::debugFileStore.Print("CallbackThread: Processing file %S (from %S)\n", name, archive.FileName);
    KelContainer offer = record;
    offer.SetBool(kUpstream, true);
    for (const char* path : {"MovePath", "CopyPath", "FilePath", "FileURL"})
        offer.Remove(path);
    if (ActionDbInvokeContainer(nullptr, "", "FileStoreReceiveFile", offer, 0, -1, -1, nullptr) == 0) {
        const auto row = FileStore::pDbConnectionUpstream->Query(KelFormat(
            "SELECT %s FROM %s WHERE %s = '%Q'", kFileId, kTableFiles, kFileUrl, offer.GetString(kFileUrl)));
        if (row && row->GetRowCount() != 0) {
            SetUpstreamStatus(static_cast<std::uint64_t>(row->GetInt64(0, kFileId)), targetStatus);
            return true;
        }
    }
    FileStore::debugFileStore.Error("CallbackThread: Failed to process file %S (from %S)\n", name,
                                    archive.FileName);
    return false;
}

}  // namespace

void UnpackUpload(KelThread& thread, const FileStoreEntry& archive, const KelString& targetStatus) {
    if (!Extract(thread, archive)) return;
    const KelString indexPath = TakeIndex(archive);
    if (indexPath.empty()) return;
    KelContainer index;
    const KelStatus loaded = index.LoadFromFile(indexPath);
    FileStore::debugFileStore.Print("Processing file %S\n", indexPath);
    if (!loaded || !index.Has("PackedFile"))
        FileStore::debugFileStore.Error("CallbackThread: %S file does not contains required data.\n",
                                        indexPath);
    const std::uint32_t count = index.Has("PackedFile") ? index.Count("PackedFile") : 0;
    for (std::uint32_t i = 0; i < count; ++i)
        if (!EnterPackedFile(index.GetContainer("PackedFile", i), archive, targetStatus)) return;
    FileStore::debugFileStore.Print("File %S processed\n", archive.FileName);
    FileDelete(indexPath);
    DeleteUpstreamRow(archive.FileId);
    DeleteFileAndFolder(archive.FilePath);
}

}  // namespace filestore
