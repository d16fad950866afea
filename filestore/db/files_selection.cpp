#include "filestore/db/files_selection.h"

#include <ctime>
#include <utility>

#include "filestore/db/database.h"
#include "filestore/db/file_status.h"
#include "kel/format.h"
#include "kel/text.h"

namespace filestore {

namespace {

// Each begins with the columns of FileStoreEntry. The shipped indexes serve these statements: one that
// changes may need another index; the query plan test checks them.

constexpr char kDownload[] =
    "SELECT %s FROM Files WHERE FileStatus = '%s' AND LastStatusChangeTime = 0 %s ORDER BY Priority DESC, "
    "FileId ASC LIMIT 1";
constexpr char kAcknowledgement[] =
    "SELECT %s FROM Files WHERE FileStatus = '%s' AND Upstream = 0 AND Acknowledged = 0 AND %S %s LIMIT 1";
constexpr char kToRequest[] =
    "SELECT %s FROM Files WHERE FileStatus = '%s' AND %S %s ORDER BY LastStatusChangeTime LIMIT 1";
constexpr char kMissing[] = "SELECT %s FROM Files WHERE FileStatus = '%s' LIMIT 1";
constexpr char kToHandleUpstream[] =
    "SELECT %s, 1 FROM Files WHERE FileStatus = '%s' AND (LastStatusChangeTime, FileId) > (%ld, %lu) "
    "ORDER BY LastStatusChangeTime, FileId LIMIT %u";
constexpr char kToHandleDownstream[] =
    "SELECT %s, Targets.TargetId IS NULL FROM Files LEFT JOIN Targets ON Files.FileId = Targets.FileId AND "
    "DeviceGUID = '' WHERE FileStatus = '%s' AND (LastStatusChangeTime, Files.FileId) > (%ld, %lu) "
    "ORDER BY LastStatusChangeTime, Files.FileId LIMIT %u";

constexpr char kOfName[] =
    "SELECT %s FROM Files WHERE FileType = '%Q' AND FileLabel = '%Q' AND FileName = '%Q'%S";
constexpr char kWithChecksum[] = " AND FileChecksum = '%Q'";
constexpr char kOfContent[] = "SELECT %s FROM Files WHERE FileName = '%Q' AND FileChecksum = '%Q'";
constexpr char kOfLabel[] = "SELECT %s FROM Files WHERE FileLabel = '%Q' AND FileChecksum = '%Q'";
constexpr char kAwaited[] = "SELECT %s FROM Files WHERE FileURL LIKE '%%%Q' AND FileStatus IN ('%s', '%s')";
constexpr char kPackages[] = "SELECT %s FROM Files WHERE FileType = 'OperationalRulePackage'";
constexpr char kHeldPackages[] =
    "SELECT %s FROM Files WHERE (FileType = 'OperationalRulePackage' OR FileType = 'OperationalRuleScript') "
    "AND "
    "(FileStatus = '%s' OR FileStatus = '%s')";
constexpr char kExternal[] =
    "SELECT %s FROM Files INDEXED BY FilesExternal WHERE ExternalFile <> 0 AND Files.FileId > %lu ORDER BY "
    "Files.FileId LIMIT %u";
constexpr char kSourceDevices[] = "SELECT FileId, SourceDevice FROM Files";

constexpr char kWaiting[] = "SELECT %s FROM Files WHERE FileStatus IN ('%s', '%s') %s AND %S %S %s LIMIT %u";
constexpr char kOfKnownSource[] = "AND Upstream <> 0 AND SourceDevice <> ''";
constexpr char kCountToUpload[] =
    "SELECT COUNT (*) FROM Files WHERE FileStatus = '%s' AND Upstream <> 0 AND SourceDevice <> ''";
constexpr char kNotSent[] =
    "SELECT FileId FROM Files WHERE FileStatus IN ('%s', '%s', '%s') AND Upstream <> 0 AND SourceDevice <> "
    "'' AND "
    "FileType <> '%s' LIMIT 1";
constexpr char kArchives[] =
    "SELECT FileId FROM Files WHERE FileStatus IN ('%s', '%s') AND FileType = '%s' LIMIT 1";
constexpr char kNewestOwn[] =
    "SELECT %s, MAX (CreateTime) FROM Files WHERE FileType = '%Q' AND FirstRelay = '' GROUP BY FileType";
constexpr char kWithStatus[] = "SELECT %s FROM Files WHERE FileStatus = '%s'";
constexpr char kOfKey[] =
    "SELECT %s FROM Files WHERE FileType = ? AND FileLabel = ? AND FileName = ? AND FileChecksum = ?";

constexpr char kSumOfSizes[] =
    "SELECT SUM(FileSize) FROM Files INDEXED BY FilesHeld WHERE ExternalFile = 0 AND FileStatus IN (%S)";

constexpr char kListed[] =
    "SELECT FileId, FileType, FileLabel, FileName, FileChecksum, FileStatus, FileSize, FilePath, "
    "Acknowledged FROM Files "
    "WHERE "
    "FileStatus != '%s'%S ORDER BY %S, FileId LIMIT %u OFFSET %lu";
/// The order of an index, which no page has to sort.
constexpr char kListedOrder[] = "FileType, FileLabel, FileName, FileChecksum";
/// Finds its place in that index, so that a page costs the same wherever it is.
constexpr char kListedAfter[] =
    " AND (FileType, FileLabel, FileName, FileChecksum, FileId) > (SELECT FileType, FileLabel, FileName, "
    "FileChecksum, FileId FROM Files WHERE FileId = %lu)";
constexpr char kCounted[] =
    "SELECT FileStatus, Files, Bytes, Unacknowledged FROM FileCounts WHERE Files > 0 ORDER BY FileStatus";
// The first row of the status, which the index on the status knows by its number: rows are numbered in the
// order in which they come.
constexpr char kFirstInStatus[] =
    "SELECT CreateTime FROM Files WHERE FileId = (SELECT MIN(FileId) FROM Files INDEXED BY FilesStatus WHERE "
    "FileStatus = '%S')";
constexpr char kFirstUnacknowledged[] =
    "SELECT CreateTime FROM Files INDEXED BY WorkAcknowledge WHERE FileStatus = '%s' AND Upstream = 0 AND "
    "Acknowledged = 0 AND LastStatusChangeTime >= 0 ORDER BY LastStatusChangeTime LIMIT 1";

std::shared_ptr<const DBResult> Query(Side side, const KelString& statement) {
    return FileStoreGetDatabase(side).connection.Query(statement);
}

FileRows ReadFiles(const std::shared_ptr<const DBResult>& result) {
    FileRows files(result ? result->GetRowCount() : 0);
    for (std::size_t i = 0; i < files.size(); ++i) {
        RowReader row(*result, i);
        files[i].Read(row);
    }
    return files;
}

FileRows SelectDownstream(const KelString& statement) {
    return ReadFiles(Query(Side::Downstream, statement));
}

FileRows SelectUpstream(const KelString& statement) {
    return ReadFiles(Query(Side::Upstream, statement));
}

/// The rows of two searches of an index instead of one that reads it whole: the times that no clock can have
/// written, which are normally none, come first, then those that `others` describes.
template <class Select>
FileRows SelectByTime(const KelString& others, std::size_t limit, Select select) {
    FileRows files =
        select(KelFormat("LastStatusChangeTime > %ld", LatestPossibleTime(std::time(nullptr))), limit);
    if (files.size() < limit)
        for (FileStoreEntry& file : select(others, limit - files.size()))
            files.push_back(std::move(file));
    return files;
}

const char* Condition(Passing passing) {
    return passing == Passing::BypassOnly ? "AND Bypass = 1" : "";
}

KelString Condition(const UploadFilter& filter) {
    if (filter.archivesOnly) return KelFormat("AND FileType = '%s'", kPackedFilesType);
    if (filter.types.empty()) return {};
    KelString condition = "AND (";
    const char* separator = "";
    for (const KelString& type : filter.types) {
        condition += KelFormat("%sFileType = '%Q'", separator, type);
        separator = " OR ";
    }
    return condition + ")";
}

/// At most one row.
template <class Select>
FileRows SelectBefore(std::int64_t before, Select select) {
    return SelectByTime(KelFormat("LastStatusChangeTime < %ld", before), 1, select);
}

/// Files of a status, or that wait to be packed, in the order of their last change.
FileRows SelectWaiting(const char* status, const char* condition, const UploadFilter& filter) {
    const KelString possible =
        KelFormat("LastStatusChangeTime <= %ld", LatestPossibleTime(std::time(nullptr)));
    return SelectByTime(possible, filter.limit, [&](const KelString& time, std::size_t limit) {
        return SelectUpstream(KelFormat(kWaiting, FileStoreEntry::kColumns, status, kStatusToBePacked,
                                        condition, time, Condition(filter), Condition(filter.passing),
                                        static_cast<unsigned int>(limit)));
    });
}

}  // namespace

FileRows SelectDownload(Passing passing) {
    return SelectDownstream(
        KelFormat(kDownload, FileStoreEntry::kColumns, kStatusDownloading, Condition(passing)));
}

FileRows SelectAcknowledgement(std::int64_t before, Passing passing) {
    return SelectBefore(before, [passing](const KelString& time, std::size_t) {
        return SelectDownstream(KelFormat(kAcknowledgement, FileStoreEntry::kColumns, kStatusAvailable, time,
                                          Condition(passing)));
    });
}

FileRows SelectFileToRequest(std::int64_t before, Passing passing) {
    return SelectBefore(before, [passing](const KelString& time, std::size_t) {
        return SelectDownstream(
            KelFormat(kToRequest, FileStoreEntry::kColumns, kStatusToBeRequested, time, Condition(passing)));
    });
}

FileRows SelectMissingFile(Side side) {
    return ReadFiles(Query(side, KelFormat(kMissing, FileStoreEntry::kColumns, kStatusMissing)));
}

KelVector<FileToHandle> SelectFilesToHandle(Side side, unsigned int limit, const FileStoreEntry* after) {
    const std::int64_t time = after != nullptr ? after->LastStatusChangeTime : -1;
    const std::uint64_t fileId = after != nullptr ? after->FileId : 0;
    const auto result =
        Query(side, side == Side::Upstream ? KelFormat(kToHandleUpstream, FileStoreEntry::kColumns,
                                                       kStatusToBeHandled, time, fileId, limit)
                                           : KelFormat(kToHandleDownstream, FileStoreEntry::kColumns,
                                                       kStatusToBeHandled, time, fileId, limit));
    KelVector<FileToHandle> files(result ? result->GetRowCount() : 0);
    for (std::size_t i = 0; i < files.size(); ++i) {
        RowReader row(*result, i);
        files[i].file.Read(row);
        files[i].isLocal = row.Flag();
    }
    return files;
}

FileRows SelectFilesOfContent(const KelString& name, const KelString& checksum) {
    return SelectDownstream(KelFormat(kOfContent, FileStoreEntry::kColumns, name, checksum));
}

std::optional<FileRows> SelectFilesOfKey(const FileKey& key) {
    const KelString content = key.checksum.empty() ? KelString() : KelFormat(kWithChecksum, key.checksum);
    const auto result = FileStoreGetDatabase(Side::Downstream)
                            .connection.Query(KelFormat(kOfName, FileStoreEntry::kColumns, key.type,
                                                        key.label, key.name, content));
    if (!result) return std::nullopt;
    FileRows files(result->GetRowCount());
    for (std::size_t i = 0; i < files.size(); ++i) {
        RowReader row(*result, i);
        files[i].Read(row);
    }
    return files;
}

FileRows SelectFilesOfLabel(const KelString& label, const KelString& checksum) {
    return SelectDownstream(KelFormat(kOfLabel, FileStoreEntry::kColumns, label, checksum));
}

FileRows SelectAwaitedFiles(const KelString& url) {
    return SelectDownstream(
        KelFormat(kAwaited, FileStoreEntry::kColumns, url, kStatusMulticastListening, kStatusReceiving));
}

FileRows SelectPackages() {
    return SelectDownstream(KelFormat(kPackages, FileStoreEntry::kColumns));
}

FileRows SelectHeldPackages(std::uint64_t fileId) {
    KelString statement =
        KelFormat(kHeldPackages, FileStoreEntry::kColumns, kStatusAvailable, kStatusNotRelaysChild);
    if (fileId != 0) statement += KelFormat(" AND FileId = %lu", fileId);
    return SelectDownstream(statement);
}

FileRows SelectExternalFiles(Side side, std::uint64_t after, unsigned int limit) {
    return ReadFiles(Query(side, KelFormat(kExternal, FileStoreEntry::kColumns, after, limit)));
}

KelVector<FileSource> SelectSourceDevices() {
    const auto result = Query(Side::Downstream, kSourceDevices);
    KelVector<FileSource> sources(result ? result->GetRowCount() : 0);
    for (std::size_t i = 0; i < sources.size(); ++i) {
        RowReader row(*result, i);
        sources[i].fileId = row.Unsigned();
        sources[i].sourceDevice = row.Text();
    }
    return sources;
}

FileRows SelectFilesToSend(const UploadFilter& filter) {
    return SelectWaiting(kStatusToBeUploaded, kOfKnownSource, filter);
}

FileRows SelectFilesToUpload(const UploadFilter& filter) {
    return SelectWaiting(kStatusUploading, "", filter);
}

FileRows SelectFilesBeingUploaded() {
    return SelectUpstream(KelFormat(kWithStatus, FileStoreEntry::kColumns, kStatusUploading));
}

std::optional<std::uint32_t> CountFilesToUpload() {
    const auto result = Query(Side::Upstream, KelFormat(kCountToUpload, kStatusToBeUploaded));
    if (!result || result->GetRowCount() == 0) return std::nullopt;
    return static_cast<std::uint32_t>(result->GetInt64(0, std::size_t{0}));
}

bool HasFilesToUpload() {
    const auto result = Query(Side::Upstream, KelFormat(kNotSent, kStatusToBeUploaded, kStatusToBePacked,
                                                        kStatusUploading, kPackedFilesType));
    return result && result->GetRowCount() != 0;
}

bool HasArchivesToUpload() {
    const auto result =
        Query(Side::Upstream, KelFormat(kArchives, kStatusToBeUploaded, kStatusUploading, kPackedFilesType));
    return result && result->GetRowCount() != 0;
}

FileRows SelectNewestOwnFile(const KelString& type) {
    return SelectUpstream(KelFormat(kNewestOwn, FileStoreEntry::kColumns, type));
}

FileRows SelectFilesBeingReceived() {
    return SelectUpstream(KelFormat(kWithStatus, FileStoreEntry::kColumns, kStatusReceiving));
}

std::optional<FileRows> SelectUpstreamFiles(const FileKey& key) {
    static const KelString statement = KelFormat(kOfKey, FileStoreEntry::kColumns);
    const DBValue values[] = {key.type, key.label, key.name, key.checksum};
    const auto result = FileStoreGetDatabase(Side::Upstream).connection.Query(statement, values);
    if (!result) return std::nullopt;
    return ReadFiles(result);
}

bool HasFiles(Side side) {
    const auto result = FileStoreGetDatabase(side).connection.Query("SELECT FileId FROM Files LIMIT 1");
    return !result || result->GetRowCount() != 0;
}

static std::uint64_t SumOfSizes(Side side, const KelVector<KelString>& statuses) {
    const auto result = Query(side, KelFormat(kSumOfSizes, QuotedList(statuses)));
    return result && result->GetRowCount() != 0
               ? static_cast<std::uint64_t>(result->GetInt64(0, std::size_t{0}))
               : 0;
}

std::uint64_t SumOfSizes(Side side) {
    return SumOfSizes(side,
                      {kStatusAvailable, kStatusUnicastAvailable, kStatusNotRelaysChild, kStatusToBeHandled,
                       kStatusToBeUploaded, kStatusToBePacked, kStatusPackedFile, kStatusUploading});
}

std::uint64_t SumOfListening() {
    return SumOfSizes(Side::Downstream, {kStatusMulticastListening});
}

std::optional<ListOrder> MakeListOrder(const KelString& column, const KelString& direction) {
    if (!IsEqualTo(direction, "ASC", false) && !IsEqualTo(direction, "DESC", false)) return std::nullopt;
    if (column.empty()) return ListOrder{};
    for (const KelString& known : SplitText(FileStoreEntry::kColumns, ',')) {
        const KelString name = Trim(known);
        if (IsEqualTo(column, name.substr(name.rfind('.') + 1), false)) return ListOrder{column, direction};
    }
    return std::nullopt;
}

KelVector<ListedFile> SelectListedFiles(Side side, const ListOrder& order, const ListRange& range) {
    const KelString clause =
        order.column.empty() ? KelString(kListedOrder) : order.column + " " + order.direction;
    const KelString after = range.after == 0 ? KelString() : KelFormat(kListedAfter, range.after);
    const auto result =
        Query(side, KelFormat(kListed, kStatusObsolete, after, clause, range.limit, range.offset));
    KelVector<ListedFile> files(result ? result->GetRowCount() : 0);
    for (std::size_t i = 0; i < files.size(); ++i) {
        RowReader row(*result, i);
        ListedFile& file = files[i];
        file.fileId = row.Unsigned();
        file.key.type = row.Text();
        file.key.label = row.Text();
        file.key.name = row.Text();
        file.key.checksum = row.Text();
        file.status = row.Text();
        file.size = row.Number();
        file.path = row.Text();
        file.acknowledged = row.Flag();
    }
    return files;
}

KelVector<StatusCount> CountFiles(Side side) {
    const auto result = Query(side, kCounted);
    KelVector<StatusCount> counts(result ? result->GetRowCount() : 0);
    for (std::size_t i = 0; i < counts.size(); ++i) {
        RowReader row(*result, i);
        counts[i].status = row.Text();
        counts[i].count = row.Number();
        counts[i].bytes = row.Number();
        counts[i].unacknowledged = row.Number();
    }
    return counts;
}

KelVector<StatusCount> CountListedFiles(Side side) {
    KelVector<StatusCount> counts = CountFiles(side);
    std::erase_if(counts, [](const StatusCount& counted) { return counted.status == kStatusObsolete; });
    return counts;
}

static std::int64_t FirstNumber(const std::shared_ptr<const DBResult>& result) {
    return result && result->GetRowCount() != 0 ? result->GetInt64(0, std::size_t{0}) : 0;
}

std::int64_t FirstTimeInStatus(Side side, const KelString& status) {
    return FirstNumber(Query(side, KelFormat(kFirstInStatus, status)));
}

std::int64_t FirstTimeUnacknowledged() {
    return FirstNumber(Query(Side::Downstream, KelFormat(kFirstUnacknowledged, kStatusAvailable)));
}

}  // namespace filestore
