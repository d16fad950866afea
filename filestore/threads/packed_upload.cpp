#include "filestore/threads/packed_upload.h"

#include "filestore/db/row_changes.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/threads/stored_file.h"
#include "filestore/transfer/file_record.h"
#include "filestore/transfer/upload_policy.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/archive.h"

#include <algorithm>

namespace filestore {

namespace {

constexpr int kTries = 5;
constexpr std::uint64_t kPauseBetweenTries = 50;  // milliseconds
/// Files whose rows get their status together: each change is a sync of the database.
constexpr std::size_t kFilesPerChange = 100;

/// "upstream/type/label/checksum/name" or the index.
bool IsPackedEntry(const KelString& name) {
    if (name == kPackingIndexEntry) return true;
    const KelVector<KelString> parts = SplitText(name, '/');
    return parts.size() == 5 && parts[0] == "upstream" &&
           std::all_of(parts.begin(), parts.end(),
                       [](const KelString& part) { return IsSafePathElement(part); });
}

/// The archive is unpacked over the storage folder, which also holds what goes down the tree and may hold the
/// databases: a sender must not replace those. An archive that cannot be listed is left to the extraction.
bool HoldsPackedFilesOnly(const FileStoreEntry& archive, const KelString& path) {
    const auto names = ListArchiveEntries(path);
    if (!names) return true;
    const auto foreign = std::find_if_not(names->begin(), names->end(), IsPackedEntry);
    if (foreign == names->end()) return true;
    FileStore::debugFileStore.Error(
        "CallbackThread: Refusing packedfile %S from %S: its entry '%S' is no upstream file\n", path,
        archive.SourceDevice, *foreign);
    return false;
}

bool Extract(KelThread& thread, const KelString& path) {
    for (int number = 1;; ++number) {
        KelContainer call;
        call.SetString("FilePath", path);
        call.SetString("DestinationPath", FileStore::strStorageLocationToUse);
        const unsigned int error =
            ActionDbInvokeContainer(nullptr, "", "CoreUtilsExtractFile", call, 0, -1, -1, nullptr);
        if (error == 0) return true;
        if (number == kTries) {
            FileStore::debugFileStore.Error("CallbackThread: Failed to extract packedfile %S, error %u\n",
                                            path, error);
            return false;
        }
        FileStore::debugFileStore.Warning(
            "CallbackThread: Failed to extract packedfile %S, error %u (try number %d)\n", path, error,
            number);
        thread.Sleep(kPauseBetweenTries);
        if (thread.CheckCancelled(false)) return false;
    }
}

/// The index under a name of its own, so that archives do not overwrite each other's.
KelString TakeIndex(const FileStoreEntry& archive) {
    const KelString extracted = FileStore::strStorageLocationToUse + "/" + kPackingIndexEntry;
    KelString kept = KelFormat("%S/Temp/%S.xml", FileStore::strStorageLocationToUse, archive.FileName);
    if (FileRename(extracted, kept)) return kept;
    FileStore::debugFileStore.Error("CallbackThread: Failed to retrieve %S from %S\n", extracted,
                                    archive.FileName);
    return {};
}

/// The row that the store made for a file of the archive; 0 when it did not take it.
std::uint64_t EnterPackedFile(const KelContainer& record, const FileStoreEntry& archive) {
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
        if (row && row->GetRowCount() != 0) return static_cast<std::uint64_t>(row->GetInt64(0, kFileId));
    }
    FileStore::debugFileStore.Error("CallbackThread: Failed to process file %S (from %S)\n", name,
                                    archive.FileName);
    return 0;
}

/// Stops at the first file that is not taken; those before it go their way.
bool EnterPackedFiles(const KelContainer& index, const FileStoreEntry& archive,
                      const KelString& targetStatus) {
    const std::uint32_t count = index.Has("PackedFile") ? index.Count("PackedFile") : 0;
    bool taken = true;
    for (std::uint32_t next = 0; next < count && taken;) {
        IdList entered;
        for (; next < count && taken && entered.Count() < kFilesPerChange; ++next) {
            const std::uint64_t fileId = EnterPackedFile(index.GetContainer("PackedFile", next), archive);
            taken = fileId != 0;
            if (taken) entered.Add(fileId);
        }
        if (!SetFileStatus(true, entered, targetStatus, TakenUp::AtOnce)) return false;
    }
    return taken;
}

}  // namespace

void UnpackUpload(KelThread& thread, const FileStoreEntry& archive, const KelString& targetStatus) {
    const KelString path = ContentPath(archive, true);
    if (!HoldsPackedFilesOnly(archive, path) || !Extract(thread, path)) return;
    const KelString indexPath = TakeIndex(archive);
    if (indexPath.empty()) return;
    KelContainer index;
    const KelStatus loaded = index.LoadFromFile(indexPath);
    FileDelete(indexPath);
    FileStore::debugFileStore.Print("Processing file %S\n", indexPath);
    if (!loaded || !index.Has("PackedFile"))
        FileStore::debugFileStore.Error("CallbackThread: %S file does not contains required data.\n",
                                        indexPath);
    if (!EnterPackedFiles(index, archive, targetStatus)) return;
    FileStore::debugFileStore.Print("File %S processed\n", archive.FileName);
    DeleteFileRow(true, archive.FileId);
    DeleteFileAndFolder(path);
}

}  // namespace filestore
