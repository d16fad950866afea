#include "filestore/up/archive_intake.h"

#include <filesystem>
#include <utility>

#include "filestore/db/file_status.h"
#include "filestore/db/files_table.h"
#include "filestore/exchange/file_record.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "filestore/up/arrived_files.h"
#include "filestore/up/unpacked_archive.h"
#include "filestore/up/upload_archive.h"
#include "filestore/up/upstream_file.h"
#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_offer.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

/// Files whose rows get their status together: each change is a sync of the database.
constexpr std::size_t kFilesPerChange = 250;
/// Records of an archive without content that are logged one by one.
constexpr std::uint32_t kAbsentLogged = 5;
constexpr const char* kOwnFilesOnly = "OwnFilesOnly";

Intake Refuse(const FileOffer& file, const FileStoreEntry& archive, const char* reason) {
    FileStore::debugFileStore.Error("CallbackThread: Failed to process file %S (from %S): %s\n",
                                    file.key.name, archive.FileName, reason);
    return Intake::Refused;
}

/// Compares a record with the content. The archive is what its sender made: a file of the sender itself that
/// is not what its record says was changed after it had been listed, and enters as what it is now. A file
/// that the sender passes on has come with this checksum and is damaged otherwise.
Intake CheckContent(const KelString& path, FileOffer& file, const FileStoreEntry& archive) {
    const std::int64_t size = FileGetSize64(path);
    KelString checksum;
    if (size < 0 || !FileMd5(path, checksum)) {
        Refuse(file, archive, "its content cannot be read; it is tried again");
        return Intake::Failed;
    }
    if (IsEqualTo(checksum, file.key.checksum, false)) return Intake::Done;
    const KelString firstRelay = file.firstRelay.value_or("");
    if (!firstRelay.empty()) return Refuse(file, archive, "its content is damaged; send it again");
    FileStore::debugFileStore.Warning(
        "CallbackThread: File %S (from %S) was changed while it was packed; it has the checksum %S now\n",
        file.key.name, archive.FileName, checksum);
    file.key.checksum = checksum;
    file.size = size;
    return Intake::Done;
}

bool HoldsOwnFilesOnly(const FileStoreEntry& archive) {
    return FileInfoOf(archive).GetBool(kOwnFilesOnly);
}

/// An unpacked file on its way into the store.
struct UnpackedFile {
    FileOffer file;
    KelString path;
};

/// Reads a record and compares it with the content.
Intake ReadRecord(const KelContainer& record, const FileStoreEntry& archive, UnpackedFile& unpacked) {
    FileOffer& file = unpacked.file;
    file = FileOffer::Read(record);
    FileStore::debugFileStore.Print("CallbackThread: Processing file %S (from %S)\n", file.key.name,
                                    archive.FileName);
    // One that names no device would be taken for a file of this device.
    if (HoldsOwnFilesOnly(archive) &&
        GuidOfDevice(file.sourceDevice.value_or("")) != GuidOfDevice(archive.SourceDevice))
        return Refuse(file, archive, "its sender is a client, and the file is of another device");
    if (const Intake checked = CheckContent(unpacked.path, file, archive); checked != Intake::Done)
        return checked;
    file.upstream = true;
    for (auto* path : {&file.movePath, &file.copyPath, &file.filePath, &file.url})
        path->reset();
    return Intake::Done;
}

/// Offers an unpacked file to the store as if the child had announced it, and puts its content in the place
/// that the store gives it. `fileId` receives the row when it waits for the content.
Intake EnterSingly(const UnpackedFile& unpacked, const FileStoreEntry& archive, std::uint64_t& fileId) {
    const FileOffer& file = unpacked.file;
    KelContainer offer = file.ToContainer();
    const unsigned int error = CallLocal("FileStoreReceiveFile", offer);
    if (error == kKelErrorBadInput || error == kKelErrorGuidScheme)
        return Refuse(file, archive, "the store refuses it");
    const auto known = FindUpstreamFileOfUrl(offer.GetString(kValueFileUrl));
    if (error != kKelOk || !known || !known->row) {
        Refuse(file, archive, "the store does not take it now; it is tried again");
        return Intake::Failed;
    }
    if (known->row->FileStatus != kStatusReceiving) return Intake::Done;  // it is on its way already
    std::error_code renamed;  // the disk is synced once for many files
    std::filesystem::rename(unpacked.path, known->Path(), renamed);
    if (renamed) {
        Refuse(file, archive, "its content cannot be put in place; it is tried again");
        return Intake::Failed;
    }
    fileId = known->row->FileId;
    return Intake::Done;
}

/// The files of a part of the index that the archive has, and that agree with their records.
class PartOfArchive {
  public:
    PartOfArchive(const FileStoreEntry& archive, const UnpackedArchive& contents)
        : archive_(archive), contents_(contents) {}

    /// Reads one record.
    void Add(const KelContainer& record) {
        UnpackedFile unpacked{{}, contents_.PathOf(record)};
        if (unpacked.path.empty() || !FileExists(unpacked.path)) {
            if (++absent_ <= kAbsentLogged)
                Refuse(FileOffer::Read(record), archive_, "the archive has no content of it");
            return;
        }
        const Intake read = ReadRecord(record, archive_, unpacked);
        complete_ &= read != Intake::Failed;
        if (read == Intake::Done) files_.push_back(std::move(unpacked));
    }

    std::size_t Count() const { return files_.size(); }

    /// Takes over what was read: together where the store does not know it, the others one by one. False when
    /// disk or database failed.
    bool Enter(const KelString& targetStatus) {
        IdList entered;
        for (const UnpackedFile& unpacked : EnterTogether()) {
            std::uint64_t fileId = 0;
            complete_ &= EnterSingly(unpacked, archive_, fileId) != Intake::Failed;
            if (fileId != 0) entered.Add(fileId);
        }
        return entered.IsEmpty() ||
               (DirSyncFileSystem(FileStore::strStorageLocationToUse) &&
                UpdateFileStatus(Side::Upstream, entered, targetStatus, NextTry::AtOnce));
    }

    bool IsComplete() const { return complete_; }
    std::uint32_t Absent() const { return absent_; }

  private:
    /// Returns the files that are left.
    KelVector<UnpackedFile> EnterTogether() {
        KelVector<CompleteFile> together;
        KelVector<UnpackedFile> candidates, left;
        for (UnpackedFile& unpacked : std::exchange(files_, {})) {
            CompleteFile file;
            const bool isReadable = ReadArrived(unpacked.file.ToContainer(), file.entry);
            file.content = unpacked.path;
            if (isReadable) together.push_back(std::move(file));
            (isReadable ? candidates : left).push_back(std::move(unpacked));
        }
        TakeOver(together, true);  // the extraction has synced the contents
        for (std::size_t i = 0; i < together.size(); ++i)
            if (!together[i].isTaken) left.push_back(std::move(candidates[i]));
        return left;
    }

    const FileStoreEntry& archive_;
    const UnpackedArchive& contents_;
    KelVector<UnpackedFile> files_;
    std::uint32_t absent_ = 0;
    bool complete_ = true;
};

/// False when disk or database failed; the files before the failure go on all the same.
bool EnterPackedFiles(const KelContainer& index, const UnpackedArchive& contents,
                      const FileStoreEntry& archive, const KelString& targetStatus) {
    const std::uint32_t count = index.Has(kPackedFileValue) ? index.Count(kPackedFileValue) : 0;
    PartOfArchive part(archive, contents);
    for (std::uint32_t next = 0; next < count;) {
        for (; next < count && part.Count() < kFilesPerChange; ++next)
            part.Add(index.GetContainer(kPackedFileValue, next));
        if (!part.Enter(targetStatus)) return false;
    }
    if (part.Absent() > kAbsentLogged)
        FileStore::debugFileStore.Error(
            "CallbackThread: %S has no content of %u of the %u files in its index\n", archive.FileName,
            part.Absent(), count);
    return part.IsComplete();
}

/// Ends the work on an archive that can never be unpacked. Its row stays as it is; with its content, it would
/// be unpacked again at every repair of the uploads, and take up space indefinitely.
bool RefuseArchive(const FileStoreEntry& archive, const KelString& path) {
    FileStore::debugFileStore.Error(
        "CallbackThread: The packedfile %S from %S cannot be used and is removed\n", archive.FileName,
        archive.SourceDevice);
    DeleteFileAndFolder(path);
    return true;
}

}  // namespace

KelString InfoOfOwnFiles() {
    KelContainer info;
    info.SetBool(kOwnFilesOnly, true);
    return info.SaveToXML();
}

bool UnpackArchive(KelThread& thread, const FileStoreEntry& archive, const KelString& targetStatus) {
    const KelString path = ContentPath(archive, Side::Upstream);
    UnpackedArchive contents(archive);
    KelContainer index;
    const Intake opened = contents.Open(thread, index);
    if (opened == Intake::Refused) return RefuseArchive(archive, path);
    if (opened == Intake::Failed) return false;
    if (!EnterPackedFiles(index, contents, archive, targetStatus)) return false;
    FileStore::debugFileStore.Print("File %S processed\n", archive.FileName);
    if (!DeleteFileRow(Side::Upstream, archive.FileId)) return false;
    DeleteFileAndFolder(path);
    return true;
}

}  // namespace filestore
