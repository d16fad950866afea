#include "filestore/up/resumed_upload.h"

#include <algorithm>

#include "filestore/db/files_selection.h"
#include "filestore/state/file_store.h"
#include "kel/file.h"
#include "kel/text.h"

namespace filestore {

namespace {

/// Of smaller files, receivers keep nothing.
constexpr std::int64_t kLeastSize = 64 << 10;

/// Rows may go in other ways than by an upload; to forget one costs at most that its file is sent whole.
constexpr std::size_t kMostInterrupted = 10'000;

constexpr unsigned int kHttpUnprocessable = 422;

/// The position in the file behind what the parent says it holds. The last byte is sent in any case: a
/// request needs a body. A parent that keeps nothing does not know the header.
std::uint64_t OffsetOf(const HttpMessage& answer, const KelString& path) {
    const auto held = ParseUint64(answer.GetHeader("upload-offset"));
    const std::int64_t size = FileGetSize64(path);
    if (!held || size < 1) return 0;
    return std::min(*held, static_cast<std::uint64_t>(size) - 1);
}

}  // namespace

unsigned int ResumedUploads::Put(HttpTransfer& transfer, const FileStoreEntry& entry, const KelString& path,
                                 const std::shared_ptr<std::atomic<std::uint64_t>>& sent,
                                 HttpMessage& answer) {
    HttpFileMessage request;
    request.SetResourcePath(entry.FileURL);
    if (MayBeHeldInPart(entry)) {
        request.SetMethod(HttpMethod::Head);
        const unsigned int result = transfer.Run(request, answer, entry.Bypass);
        if (result != kHttpCompleted || answer.GetStatus() == kHttpStatusUnavailable) return result;
        request.SetBodyOffset(OffsetOf(answer, path));
        if (request.GetBodyOffset() > 0)
            FileStore::debugFileStore.Print("PushThread: Going on with %S behind the first %gu bytes\n",
                                            entry.Key().Text(), request.GetBodyOffset());
    }
    request.SetMethod(HttpMethod::Put);
    request.SetBodyFile(path);
    request.SetProgress(sent);
    const unsigned int result = transfer.Run(request, answer, entry.Bypass);
    Note(entry, result, answer.GetStatus());
    return result;
}

bool ResumedUploads::MayBeHeldInPart(const FileStoreEntry& entry) {
    if (!hasStarted_) {
        hasStarted_ = true;
        for (const FileStoreEntry& row : SelectFilesBeingUploaded())
            if (row.FileSize > kLeastSize) interrupted_.insert(row.FileId);
    }
    return interrupted_.contains(entry.FileId);
}

void ResumedUploads::Note(const FileStoreEntry& entry, unsigned int result, unsigned int status) {
    const bool isOver = result == kHttpCompleted && (status / 100 == 2 || status == kHttpUnprocessable);
    if (isOver || entry.FileSize <= kLeastSize) {
        interrupted_.erase(entry.FileId);
        return;
    }
    if (interrupted_.size() >= kMostInterrupted) interrupted_.clear();
    interrupted_.insert(entry.FileId);
}

}  // namespace filestore
