#include "filestore/state/external_content.h"

#include "filestore/db/file_status.h"
#include "filestore/db/files_selection.h"
#include "filestore/db/files_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/state/file_store.h"
#include "filestore/state/waiting_reasons.h"
#include "kel/file.h"

namespace filestore {

namespace {

constexpr unsigned int kFilesAtOnce = 2000;

/// The row as it is now, if it still refers to the same content.
bool IsUnchanged(Side side, const FileStoreEntry& file) {
    FileStoreEntry now;
    return now.LoadFromDatabase(file.FileId, side) && now.ExternalFile && now.FilePath == file.FilePath &&
           now.FileStatus == file.FileStatus;
}

void LogGone(const FileStoreEntry& file) {
    FileStore::debugFileStore.Warning("%S is no longer offered: its content %S is gone\n", file.Key().Text(),
                                      file.FilePath);
}

/// A file that was sent needs its content no more, but its row would stay indefinitely.
bool ForgetSentIfGone(const FileStoreEntry& file) {
    const bool isSent = file.FileStatus == kStatusAvailable || file.FileStatus == kStatusPackedFile;
    if (!isSent || !FileIsMissing(file.FilePath)) return false;
    const KelLock lock(FileStore::mutexUpstream);
    return IsUnchanged(Side::Upstream, file) && DeleteFileRow(Side::Upstream, file.FileId);
}

}  // namespace

bool ForgetIfGone(const FileStoreEntry& file) {
    const bool isOffered = file.FileStatus == kStatusAvailable || file.FileStatus == kStatusNotRelaysChild;
    if (!file.ExternalFile || !isOffered || file.FilePath.empty() || !FileIsMissing(file.FilePath))
        return false;
    const KelLock lock(FileStore::mutexDownstream);
    if (!IsUnchanged(Side::Downstream, file)) return false;
    LogGone(file);
    Reasons().MovedOn(Side::Downstream, file.FileId);
    if (!HasTargets(file.FileId)) return DeleteFileRow(Side::Downstream, file.FileId);
    FileStore::WakeWorker(Worker::Handler);
    return SetExternalMissing(file.FileId);
}

void ExternalFilesCheck::Run() {
    Check(Side::Downstream, lastDownstream_);
    Check(Side::Upstream, lastUpstream_);
}

void ExternalFilesCheck::Check(Side side, std::uint64_t& last) {
    const FileRows files = SelectExternalFiles(side, last, kFilesAtOnce);
    for (const FileStoreEntry& file : files)
        side == Side::Downstream ? ForgetIfGone(file) : ForgetSentIfGone(file);
    last = files.size() < kFilesAtOnce ? 0 : files.back().FileId;
}

}  // namespace filestore
