#include "filestore/db/content_rows.h"

#include "filestore/db/database.h"
#include "filestore/db/file_status.h"
#include "kel/format.h"

namespace filestore {

namespace {

constexpr char kOfKey[] =
    "SELECT FileId FROM Files WHERE FileType = '%Q' AND FileLabel = '%Q' AND FileName = '%Q' AND "
    "FileChecksum IN ('', '%Q')%S LIMIT 1";
constexpr char kLiesAt[] = " AND substr(FilePath, -length('%Q')) = '%Q'";
constexpr char kExternal[] =
    "SELECT FilePath FROM Files WHERE ExternalFile <> 0 AND substr(FilePath, 1, length('%Q')) = '%Q'";
constexpr char kLike[] =
    "SELECT %s FROM Files INDEXED BY FilesChecksum WHERE FileChecksum = ? AND FileSize = ? AND ExternalFile "
    "= 0 AND FileStatus <> ? AND Files.FileId <> ? LIMIT 4";
// "+": in the order of the rows, not by way of an index on the status.
constexpr char kWithContent[] =
    "SELECT %s FROM Files WHERE FileId > %lu AND +FileStatus IN (%s) ORDER BY FileId LIMIT %u";

DBConnection& Connection(Side side) {
    return FileStoreGetDatabase(side).connection;
}

FileRows Read(const std::shared_ptr<const DBResult>& found) {
    FileRows rows(found ? found->GetRowCount() : 0);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        RowReader row(*found, i);
        rows[i].Read(row);
    }
    return rows;
}

KelString StatusesWithContent(Side side) {
    if (side == Side::Downstream) return QuotedList({kStatusAvailable});
    return QuotedList({kStatusToBeHandled, kStatusToBeUploaded, kStatusUploading});
}

}  // namespace

bool HasRowFor(const StoredPlace& place) {
    const KelString path = "/" + StoredPath(place.side, place.key, place.source);
    const KelString condition = place.source.empty() ? KelString() : KelFormat(kLiesAt, path, path);
    const FileKey& key = place.key;
    for (const Side side : {Side::Downstream, Side::Upstream}) {
        const auto found =
            Connection(side).Query(KelFormat(kOfKey, key.type, key.label, key.name, key.checksum, condition));
        if (!found || found->GetRowCount() != 0) return true;
    }
    return false;
}

std::optional<std::set<KelString>> SelectExternalPaths(Side side, const KelString& folder) {
    const auto found = Connection(side).Query(KelFormat(kExternal, folder, folder));
    if (!found) return std::nullopt;
    std::set<KelString> paths;
    for (std::size_t i = 0; i < found->GetRowCount(); ++i)
        paths.insert(found->GetString(i, std::size_t{0}));
    return paths;
}

FileRows SelectRowsWithContent(Side side, std::uint64_t fileId, unsigned int limit) {
    return Read(Connection(side).Query(
        KelFormat(kWithContent, FileStoreEntry::kColumns, fileId, StatusesWithContent(side).c_str(), limit)));
}

FileRows SelectFilesLike(const FileStoreEntry& file) {
    static const KelString statement = KelFormat(kLike, FileStoreEntry::kColumns);
    const DBValue values[] = {file.FileChecksum, file.FileSize, KelString(kStatusReceiving),
                              static_cast<std::int64_t>(file.FileId)};
    return Read(Connection(Side::Upstream).Query(statement, values));
}

}  // namespace filestore
