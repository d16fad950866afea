#include "filestore/up/upload_archive.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "filestore/db/file_status.h"
#include "filestore/exchange/file_record.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

namespace filestore {

namespace {

constexpr int kLevel = 6;  ///< of compression

// The limits of size. Receivers refuse an archive that unpacks to more than they are set to accept, and a
// container of more than 64 MiB, such as the index, cannot be read.
constexpr std::int64_t kMaxContentBytes = std::int64_t{1} << 30;  ///< unpacked
constexpr std::size_t kMaxIndexBytes = std::size_t{32} << 20;
constexpr std::size_t kRecordBytes = 2048;  ///< of a file's entry in the index, without its FileInfo

/// The row has the size that a child announced; the content may be larger.
std::int64_t ContentBytes(const FileStoreEntry& entry) {
    return std::max(entry.FileSize, FileGetSize64(ContentPath(entry, Side::Upstream)));
}

std::size_t IndexBytes(const FileStoreEntry& entry) {
    return entry.FileInfo.size() + kRecordBytes;
}

KelString NewArchivePath() {
    return KelFormat("%S/%s%u_%u.zip", ModuleWorkFolder(), kArchiveNamePrefix,
                     static_cast<std::uint32_t>(std::rand()), static_cast<std::uint32_t>(std::time(nullptr)));
}

bool OfferToStore(const KelString& path, bool bypass) {
    FileStore::debugFileStore.Print("PushThread: Sending archive file %S upstream.\n", path);
    KelString folder, name;
    SplitPath(path, folder, name);
    FileOffer offer;
    offer.key = {kPackedFilesType, kPackedFilesType, name, ""};  // the store computes the checksum
    offer.sourceDevice = OurDeviceUrl();
    offer.bypass = bypass;
    offer.upstream = true;
    offer.movePath = path;
    KelContainer call = offer.ToContainer();
    const unsigned int error = CallLocal("FileStoreReceiveFile", call);
    if (error != kKelOk)
        FileStore::debugFileStore.Error("PushThread: The store did not take archive %S, error %u\n", path,
                                        error);
    return error == kKelOk;
}

}  // namespace

bool UploadArchive::CanPack(const FileStoreEntry& entry) {
    // A device that holds the content of a repeated offer does not need it again.
    return entry.FileType != kPackedFilesType && !entry.Repeated && UploadArchive().HasRoomFor(entry);
}

bool UploadArchive::Suits(const FileStoreEntry& entry) const {
    return listed_.empty() ||
           (entry.Bypass == bypass_ && !entryNames_.contains(StoredPathOf(entry, Side::Upstream)));
}

bool UploadArchive::HasRoomFor(const FileStoreEntry& entry) const {
    return ContentBytes(entry) <= kMaxContentBytes - contentBytes_ &&
           IndexBytes(entry) <= kMaxIndexBytes - indexBytes_;
}

void UploadArchive::Add(const FileStoreEntry& entry) {
    KelContainer record = FileRecordOf(entry).ToContainer();
    record.SetString(kPackedEntryValue, StoredPathOf(entry, Side::Upstream));
    index_.SetContainer(kPackedFileValue, record, static_cast<std::uint32_t>(listed_.size()));
    listed_.insert(entry.FileId);
    inUse_.emplace_back(Side::Upstream, entry);
    entryNames_.insert(StoredPathOf(entry, Side::Upstream));
    bypass_ = entry.Bypass;
    contentBytes_ += ContentBytes(entry);
    indexBytes_ += IndexBytes(entry);
}

bool UploadArchive::Create() {
    if (!FileStore::strArchiveFilePath.empty()) FileDelete(FileStore::strArchiveFilePath);
    FileStore::strArchiveFilePath = NewArchivePath();
    KelString indexPath;
    if (const KelStatus saved = index_.SaveToTempFile(indexPath, ModuleWorkFolder()); !saved) {
        FileStore::debugFileStore.Error("PushThread: Cannot write the index of an archive: %S\n",
                                        saved.Error().message);
        return false;
    }
    GenericArchive archive(FileStore::eArchiveType);
    const bool created = archive.Create(FileStore::strArchiveFilePath) == kArchiveDone &&
                         archive.AddEntry(kPackingIndexEntry, indexPath, kLevel) == kArchiveDone &&
                         archive.Close() == kArchiveDone;
    FileDelete(indexPath);
    if (!created)
        FileStore::debugFileStore.Error(
            "PushThread: Cannot create archive %S: %S; check the space of its folder\n",
            FileStore::strArchiveFilePath, archive.GetErrorText());
    index_.Clear();
    return created;
}

bool UploadArchive::Open() {
    if (file_) return true;
    if (FileStore::strArchiveFilePath.empty() || !FileExists(FileStore::strArchiveFilePath)) return false;
    auto archive = std::make_unique<GenericArchive>(FileStore::eArchiveType);
    if (archive->Open(FileStore::strArchiveFilePath) != kArchiveDone) return false;
    file_ = std::move(archive);
    return true;
}

bool UploadArchive::AddContents(const FileStoreEntry& entry, const KelString& path) {
    if (!Open()) {
        FileStore::debugFileStore.Error("PushThread: archive file %S cannot be found\n",
                                        FileStore::strArchiveFilePath);
        return false;
    }
    FileStore::debugFileStore.Print("PushThread: Adding file %S to archive %S\n", entry.FileName,
                                    FileStore::strArchiveFilePath);
    const bool added = file_->AddEntry(StoredPathOf(entry, Side::Upstream), path, kLevel) == kArchiveDone;
    if (!added)
        FileStore::debugFileStore.Error("PushThread: Failed to add file %S to archive %S\n", entry.FileName,
                                        FileStore::strArchiveFilePath);
    return added;
}

bool UploadArchive::Write() {
    const bool written = file_->Close() == kArchiveDone;
    if (!written)
        FileStore::debugFileStore.Error(
            "PushThread: Cannot write archive %S: %S; check the space of its folder\n",
            FileStore::strArchiveFilePath, file_->GetErrorText());
    return written;
}

bool UploadArchive::EnterStore() {
    const bool entered = Write() && OfferToStore(FileStore::strArchiveFilePath, bypass_);
    if (!entered) {
        Drop();
        return false;
    }
    *this = UploadArchive();
    FileStore::strArchiveFilePath.clear();
    return true;
}

void UploadArchive::Drop() {
    *this = UploadArchive();  // closes the file, unchanged, before it is removed
    if (!FileStore::strArchiveFilePath.empty()) FileDelete(FileStore::strArchiveFilePath);
    FileStore::strArchiveFilePath.clear();
}

}  // namespace filestore
