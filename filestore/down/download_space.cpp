#include "filestore/down/download_space.h"

#include <algorithm>

#include "filestore/db/file_status.h"
#include "filestore/down/download_outcome.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_space.h"
#include "filestore/state/waiting_reasons.h"
#include "kel/file.h"

namespace filestore {

namespace {

constexpr unsigned int kPathNotFound = 3;  ///< DiskFree

/// Bytes that are accepted of a file whose size cannot be learnt.
constexpr std::uint64_t kLargestUnannounced = std::uint64_t{1} << 30;

unsigned int FreeSpace(const FileStoreEntry& file, std::uint64_t& bytes) {
    return SpaceFor(FileStore::StoreFolder(Side::Downstream, file.Key()), bytes);
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
    const std::uint64_t room = free + BytesOnDisk(file);
    if (largest <= room) return Space::Enough;
    if (file.FileSize > 0 || room == 0) return TooLittle(file, room, largest);
    largest = room;
    return Space::Enough;
}

}  // namespace

std::uint64_t BytesToFetch(const FileStoreEntry& file) {
    const auto whole = static_cast<std::uint64_t>(std::max<std::int64_t>(file.FileSize, 0));
    return whole - std::min(whole, BytesOnDisk(file));
}

Space ExamineSpace(FileStoreEntry& file, std::uint64_t& largest) {
    if (MayHaveAnyContent(file)) file.FileSize = 0;
    if (file.FileSize == 0) return ExamineUnannounced(file, largest);
    largest = static_cast<std::uint64_t>(file.FileSize);
    if (!FileStore::fCheckAvailableFreeSpaceBeforeDownloading && !IsSpaceLimited()) return Space::Enough;
    std::uint64_t free = 0;
    if (const unsigned int error = FreeSpace(file, free); error != 0)
        return error == kPathNotFound ? Space::Enough : Space::Unknown;
    const std::uint64_t needed = BytesToFetch(file);
    return needed <= free ? Space::Enough : TooLittle(file, free, needed);
}

}  // namespace filestore
