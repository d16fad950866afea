#include "filestore/up/unpacked_archive.h"

#include <algorithm>

#include "filestore/exchange/file_record.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "filestore/up/upload_archive.h"
#include "filestore/up/upload_repair.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/archive.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

/// From here on the codes of the extraction find fault with the archive: limits, paths, damage.
constexpr unsigned int kFirstArchiveFault = 16001;
constexpr int kTries = 5;
constexpr std::uint64_t kPauseBetweenTries = 50;  // milliseconds

bool IsUpstreamEntry(const KelString& name) {
    const auto place = ParseStoredPath(name);
    return place && place->side == Side::Upstream;
}

bool IsPackedEntry(const KelString& name) {
    return name == kPackingIndexEntry || IsUpstreamEntry(name);
}

}  // namespace

UnpackedArchive::UnpackedArchive(const FileStoreEntry& archive)
    : archive_(archive),
      path_(ContentPath(archive, Side::Upstream)),
      folder_(KelFormat("%S%s%lu", FileStore::strStorageLocationToUse, kUnpackFolderPrefix, archive.FileId)) {
    DirDelete(folder_, true);
}

UnpackedArchive::~UnpackedArchive() {
    DirDelete(folder_, true);
}

Intake UnpackedArchive::Open(KelThread& thread, KelContainer& index) {
    // An archive that cannot be listed is left to the extraction, which says why.
    const auto names = ListArchiveEntries(path_);
    if (names && !HoldsPackedFilesOnly(*names)) return Intake::Refused;
    if (const Intake extracted = Extract(thread); extracted != Intake::Done) return extracted;
    if (!names) return Intake::Failed;
    for (std::size_t number = 0; number < names->size(); ++number)
        numbers_.emplace((*names)[number], number);
    return ReadIndex(index);
}

KelString UnpackedArchive::PathOf(const KelContainer& record) const {
    const KelString entry = record.GetString(kPackedEntryValue);
    // An archive of an older agent does not name the entry.
    return PathOfEntry(IsUpstreamEntry(entry) ? entry : StoredPath(Side::Upstream, FileKey::Read(record)));
}

bool UnpackedArchive::HoldsPackedFilesOnly(const KelVector<KelString>& names) const {
    const auto foreign = std::find_if_not(names.begin(), names.end(), IsPackedEntry);
    if (foreign == names.end()) return true;
    FileStore::debugFileStore.Error(
        "CallbackThread: Refusing packedfile %S from %S: its entry '%S' is no upstream file\n", path_,
        archive_.SourceDevice, *foreign);
    return false;
}

Intake UnpackedArchive::Extract(KelThread& thread) const {
    for (int number = 1;; ++number) {
        KelContainer call;
        call.SetString("FilePath", path_);
        call.SetString("DestinationPath", folder_);
        call.SetBool("Numbered", true);
        const unsigned int error = CallLocal("CoreUtilsExtractFile", call);
        if (error == kKelOk) return Intake::Done;
        if (number == kTries) {
            FileStore::debugFileStore.Error("CallbackThread: Failed to extract packedfile %S, error %u\n",
                                            path_, error);
            return error < kFirstArchiveFault ? Intake::Failed : Intake::Refused;
        }
        FileStore::debugFileStore.Warning(
            "CallbackThread: Failed to extract packedfile %S, error %u (try number %d)\n", path_, error,
            number);
        thread.Sleep(kPauseBetweenTries);
        if (thread.CheckCancelled(false)) return Intake::Failed;
    }
}

/// Failed when the index cannot be read, Refused when there is none.
Intake UnpackedArchive::ReadIndex(KelContainer& index) const {
    const KelString path = PathOfEntry(kPackingIndexEntry);
    if (path.empty() || !FileExists(path)) {
        FileStore::debugFileStore.Error("CallbackThread: Failed to retrieve %s from %S\n", kPackingIndexEntry,
                                        archive_.FileName);
        return Intake::Refused;
    }
    const KelResult<KelString> text = FileReadText(path, KelContainer::kMaxXmlBytes);
    if (!text) {
        FileStore::debugFileStore.Error("CallbackThread: Cannot read the index of %S: %S\n",
                                        archive_.FileName, text.Error().message);
        return Intake::Failed;
    }
    FileStore::debugFileStore.Print("Processing file %S\n", path);
    if (!index.LoadFromXML(*text) || !index.Has(kPackedFileValue))
        FileStore::debugFileStore.Error("CallbackThread: %S file does not contains required data.\n", path);
    return Intake::Done;
}

KelString UnpackedArchive::PathOfEntry(const KelString& name) const {
    const auto entry = numbers_.find(name);
    return entry == numbers_.end() ? KelString() : folder_ + "/" + std::to_string(entry->second);
}

bool IsPackedArchive(const KelString& path) {
    const auto names = ListArchiveEntries(path);
    return names && std::find(names->begin(), names->end(), kPackingIndexEntry) != names->end() &&
           std::all_of(names->begin(), names->end(), IsPackedEntry);
}

}  // namespace filestore
