#include "filestore/state/removal.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "filestore/db/files_selection.h"
#include "filestore/db/removed_content_table.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "kel/format.h"
#include "kel/text.h"

namespace filestore {

namespace {

KelString RowPrefix(Side side) {
    return KelFormat("%s row ", SideName(side));
}

KelString RowName(Side side, std::uint64_t fileId) {
    return RowPrefix(side) + std::to_string(fileId);
}

/// Whether the content at `path` belongs to a row; nothing when that cannot be said.
std::optional<bool> HasRow(Side side, const FileKey& key, const KelString& path) {
    const auto rows = side == Side::Downstream ? SelectFilesOfKey(key) : SelectUpstreamFiles(key);
    if (!rows) return std::nullopt;
    return std::ranges::any_of(*rows,
                               [&](const FileStoreEntry& row) { return ContentPath(row, side) == path; });
}

/// False when it is in use, or when the database does not answer: a later pass tries again.
bool RemoveUnlessOwned(Side side, const FileStoreEntry& removed) {
    const KelString path = ContentPath(removed, side);
    const KelFileClaim claim(path);
    const auto hasRow = claim ? HasRow(side, removed.Key(), path) : std::nullopt;
    if (!hasRow) return false;
    if (!*hasRow) DeleteFileAndFolder(path);
    return true;
}

}  // namespace

FileInUse::FileInUse(Side side, const FileStoreEntry& file)
    : row_(file.FileId == 0 ? KelString() : RowName(side, file.FileId)), content_(ContentPath(file, side)) {}

KelVector<std::uint64_t> FilesInUse(Side side) {
    const KelString prefix = RowPrefix(side);
    KelVector<std::uint64_t> fileIds;
    for (const KelString& name : KelFileLease::Names(prefix))
        fileIds.push_back(ParseUint64(name.substr(prefix.size())).value_or(0));
    return fileIds;
}

bool ContentRemoval::Claim(const FileStoreEntry& file) {
    KelFileClaim row(RowName(side_, file.FileId));
    KelFileClaim content(ContentPath(file, side_));
    if (!row || !content) return false;
    claims_.push_back(std::move(row));
    claims_.push_back(std::move(content));
    return true;
}

void ContentRemoval::Confirm(const FileStoreEntry& file) {
    if (file.ExternalFile) return;
    paths_.push_back(ContentPath(file, side_));
    removed_.Add(file.FileId);
}

void ContentRemoval::RemoveContent() {
    for (const KelString& path : std::exchange(paths_, {}))
        DeleteFileAndFolder(path);
    ForgetRemovedContent(side_, std::exchange(removed_, {}));
}

void RemoveLeftContent(Side side, const std::function<bool()>& isCancelled) {
    constexpr unsigned int kAtOnce = 200;
    FileRows rows = SelectRemovedContent(side, 0, kAtOnce);
    for (; !rows.empty() && !isCancelled(); rows = SelectRemovedContent(side, rows.back().FileId, kAtOnce)) {
        IdList done;
        for (const FileStoreEntry& removed : rows)
            if (RemoveUnlessOwned(side, removed)) done.Add(removed.FileId);
        ForgetRemovedContent(side, done);
    }
}

}  // namespace filestore
