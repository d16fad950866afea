#include "filestore/down/multicast_reception.h"

#include <algorithm>
#include <optional>

#include "filestore/db/file_status.h"
#include "filestore/db/files_selection.h"
#include "filestore/db/files_table.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "filestore/state/waiting_reasons.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/callback_db.h"

namespace filestore {

namespace {

bool MakeAvailable(std::uint64_t fileId, const KelString& localPath) {
    const std::int64_t size = std::max<std::int64_t>(FileGetSize64(localPath), 0);
    Reasons().MovedOn(Side::Downstream, fileId);
    return SetReceivedByMulticast(fileId, static_cast<std::uint64_t>(size));
}

/// The row that waits for a file whose URL path ends with `path`.
std::optional<FileStoreEntry> FindAwaited(const KelString& path) {
    for (const FileStoreEntry& file : SelectAwaitedFiles(path))
        if (file.FileURL.ends_with(path)) return file;  // the selection takes "_" for any character
    return std::nullopt;
}

/// True when some row has its content, or is to have it, at this path: a local offer, an order or a download
/// has taken it over in the meantime.
bool IsContentOfRow(const KelString& localPath) {
    KelString folder, name, parent, checksum;
    SplitPath(localPath, folder, name);
    SplitPath(folder.substr(0, folder.size() - 1), parent, checksum);
    const FileRows rows = SelectFilesOfContent(name, checksum);
    return std::ranges::any_of(rows, [&localPath](const FileStoreEntry& file) {
        return ContentPath(file, Side::Downstream) == localPath;
    });
}

/// The lock spans the question and the removal, so that an offer cannot put its content there in between.
void RemoveUnregistered(const KelString& path, const KelString& localPath) {
    const KelLock lock(FileStore::mutexDownstream);
    if (IsContentOfRow(localPath)) {
        FileStore::debugFileStore.Detail("%S arrived by multicast, but is no longer waited for\n", path);
        return;
    }
    FileStore::debugFileStore.Warning("Received unregistered file, deleting %S\n", path);
    FileDelete(localPath);
}

/// While files are packed, the push thread sends them when its archive is due, not when one arrives.
void PassOn(std::uint64_t fileId) {
    const bool isHandledHere = CallbackDbGetActionCount("FileStoreCallbackCopyUpstream") != 0;
    UpdateFileStatus(Side::Downstream, fileId, isHandledHere ? kStatusToBeHandled : kStatusToBeUploaded,
                     NextTry::AtOnce);
    if (isHandledHere)
        FileStore::WakeWorker(Worker::Handler);
    else if (!FileStore::fConcatFiles)
        FileStore::WakeWorker(Worker::Push);
}

}  // namespace

void ReceiveMulticastFile(const KelString& url, const KelString& localPath) {
    // Rows may hold the path with or without the slash: they are matched by their end.
    const KelString path = url.starts_with('/') ? url.substr(1) : url;
    FileStore::debugFileStore.Print("PutCallback for multicast file: %S\n", path);
    const auto file = FindAwaited(path);
    if (!file) return RemoveUnregistered(path, localPath);
    if (file->FileStatus == kStatusMulticastListening) {
        if (MakeAvailable(file->FileId, localPath))
            FileStore::WakeWorker(Worker::Pull);  // which acknowledges it
    } else {
        PassOn(file->FileId);
    }
}

}  // namespace filestore
