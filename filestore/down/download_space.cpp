#include "filestore/down/download_space.h"

#include <algorithm>

#include "filestore/db/file_status.h"
#include "filestore/down/download_outcome.h"
#include "filestore/state/file_store.h"
#include "filestore/state/waiting_reasons.h"
#include "kel/directory.h"
#include "kel/file.h"

namespace filestore {

namespace {

constexpr unsigned int kPathNotFound = 3;  ///< DiskFree

/// Bytes that a file of unknown size leaves free: databases and acknowledgements need them.
constexpr std::uint64_t kReserve = std::uint64_t{64} << 20;

/// Bytes that are accepted of a file whose size cannot be learnt.
constexpr std::uint64_t kLargestUnannounced = std::uint64_t{1} << 30;

/// Bytes free where the file's folder is or will be made. 0, or the error of DiskFree.
unsigned int FreeSpace(const FileStoreEntry& file, std::uint64_t& bytes) {
    const unsigned int error = DiskFree(FileStore::StoreFolder(Side::Downstream, file.Key()), bytes);
    return error == kPathNotFound ? DiskFree(FileStore::strStorageLocationToUse, bytes) : error;
}

/// Bytes that the download overwrites or goes on from.
std::uint64_t BytesOnDisk(const FileStoreEntry& file) {
    return static_cast<std::uint64_t>(std::max<std::int64_t>(FileGetSize64(file.FilePath), 0));
}

Space TooLittle(const FileStoreEntry& file, std::uint64_t available, std::uint64_t needed) {
    LogDownloadFailure(
        file, KelDebugLevel::Error,
        KelFormat("PullThread: Not enough available free space to download the file %S. Only %gu bytes "
                  "available. %gu bytes needed.",
                  file.FileName, available, needed),
        "make room in " + FileStore::strStorageLocationToUse);
    Reasons().Note(Side::Downstream, file.FileId, WaitingStep::Download,
                   {.code = Waiting::DiskFull, .bytes = available, .whole = needed});
    return Space::TooLittle;
}

/// `largest` receives the file's size, once it is known.
Space ExamineUnannounced(FileStoreEntry& file, std::uint64_t& largest) {
    largest = kLargestUnannounced;
    // What the parent holds of a file that may change is not what its source sends.
    if (!MayHaveAnyContent(file)) {
        long long size = 0;
        FileStore::RequestFileSize(file.Key(), size);
        if (size > 0) largest = static_cast<std::uint64_t>(file.FileSize = size);
    }
    std::uint64_t free = 0;
    // A storage folder that does not exist is reported when the file's folder is made.
    if (const unsigned int error = FreeSpace(file, free); error != 0)
        return error == kPathNotFound ? Space::Enough : Space::Unknown;
    const std::uint64_t room = free + BytesOnDisk(file) - std::min(free, kReserve);
    if (largest <= room) return Space::Enough;
    if (file.FileSize > 0 || room == 0) return TooLittle(file, room, largest);
    largest = room;
    return Space::Enough;
}

}  // namespace

Space ExamineSpace(FileStoreEntry& file, std::uint64_t& largest) {
    if (MayHaveAnyContent(file)) file.FileSize = 0;
    if (file.FileSize == 0) return ExamineUnannounced(file, largest);
    largest = static_cast<std::uint64_t>(file.FileSize);
    if (!FileStore::fCheckAvailableFreeSpaceBeforeDownloading) return Space::Enough;
    std::uint64_t free = 0;
    if (const unsigned int error = FreeSpace(file, free); error != 0)
        return error == kPathNotFound ? Space::Enough : Space::Unknown;
    const std::uint64_t needed = largest - std::min(largest, BytesOnDisk(file));
    return needed <= free ? Space::Enough : TooLittle(file, free, needed);
}

}  // namespace filestore
