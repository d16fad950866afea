#include "filestore/up/archive_intake.h"

#include <algorithm>

#include "filestore/db/files_table.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "filestore/up/upload_archive.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/archive.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

constexpr int kTries = 5;
constexpr std::uint64_t kPauseBetweenTries = 50;  // milliseconds
/// Files whose rows get their status together: each change is a sync of the database.
constexpr std::size_t kFilesPerChange = 100;

bool IsPackedEntry(const KelString& name) {
    Side side = Side::Downstream;
    FileKey key;
    return name == kPackingIndexEntry || (ParseStoredPath(name, side, key) && side == Side::Upstream);
}

/// The archive is unpacked over the storage folder, which also holds the downstream files and may hold the
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

/// Entry names are the paths of the files below the storage folder, so that each lands in its place.
bool Extract(KelThread& thread, const KelString& path) {
    for (int number = 1;; ++number) {
        KelContainer call;
        call.SetString("FilePath", path);
        call.SetString("DestinationPath", FileStore::strStorageLocationToUse);
        const unsigned int error = CallLocal("CoreUtilsExtractFile", call);
        if (error == kKelOk) return true;
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

/// Renames the extracted index, so that the next archive does not overwrite it. Its path, empty on failure.
KelString SetIndexAside(const FileStoreEntry& archive) {
    const KelString extracted = FileStore::strStorageLocationToUse + "/" + kPackingIndexEntry;
    KelString kept = KelFormat("%S/Temp/%S.xml", FileStore::strStorageLocationToUse, archive.FileName);
    if (FileRename(extracted, kept)) return kept;
    FileStore::debugFileStore.Error("CallbackThread: Failed to retrieve %S from %S\n", extracted,
                                    archive.FileName);
    return {};
}

/// Offers an unpacked file to the store as if the child had announced it. The row that the store made, 0 when
/// it refused the offer.
std::uint64_t EnterPackedFile(const KelContainer& record, const FileStoreEntry& archive) {
    const KelString name = record.GetString(kValueFileName);
    FileStore::debugFileStore.Print("CallbackThread: Processing file %S (from %S)\n", name, archive.FileName);
    KelContainer offer = record;
    offer.SetBool(kValueUpstream, true);
    for (const char* path : {kValueMovePath, kValueCopyPath, kValueFilePath, kValueFileUrl})
        offer.Remove(path);
    if (CallLocal("FileStoreReceiveFile", offer) == kKelOk) {
        const std::uint64_t fileId = FindFileFromUrl(offer.GetString(kValueFileUrl));
        if (fileId != 0) return fileId;
    }
    FileStore::debugFileStore.Error("CallbackThread: Failed to process file %S (from %S)\n", name,
                                    archive.FileName);
    return 0;
}

/// Stops at the first file that the store refuses; those before it go on. False then, or when a status could
/// not be set.
bool EnterPackedFiles(const KelContainer& index, const FileStoreEntry& archive,
                      const KelString& targetStatus) {
    const std::uint32_t count = index.Has(kPackedFileValue) ? index.Count(kPackedFileValue) : 0;
    bool accepted = true;
    for (std::uint32_t next = 0; next < count && accepted;) {
        IdList entered;
        for (; next < count && accepted && entered.Count() < kFilesPerChange; ++next) {
            const std::uint64_t fileId = EnterPackedFile(index.GetContainer(kPackedFileValue, next), archive);
            accepted = fileId != 0;
            if (accepted) entered.Add(fileId);
        }
        if (!UpdateFileStatus(Side::Upstream, entered, targetStatus, NextTry::AtOnce)) return false;
    }
    return accepted;
}

}  // namespace

void UnpackArchive(KelThread& thread, const FileStoreEntry& archive, const KelString& targetStatus) {
    const KelString path = ContentPath(archive, Side::Upstream);
    if (!HoldsPackedFilesOnly(archive, path) || !Extract(thread, path)) return;
    const KelString indexPath = SetIndexAside(archive);
    if (indexPath.empty()) return;
    KelContainer index;
    const KelStatus loaded = index.LoadFromFile(indexPath);
    FileDelete(indexPath);
    FileStore::debugFileStore.Print("Processing file %S\n", indexPath);
    if (!loaded || !index.Has(kPackedFileValue))
        FileStore::debugFileStore.Error("CallbackThread: %S file does not contains required data.\n",
                                        indexPath);
    if (!EnterPackedFiles(index, archive, targetStatus)) return;
    FileStore::debugFileStore.Print("File %S processed\n", archive.FileName);
    DeleteFileRow(Side::Upstream, archive.FileId);
    DeleteFileAndFolder(path);
}

}  // namespace filestore
