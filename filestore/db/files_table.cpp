#include "filestore/db/files_table.h"

#include <ctime>

#include "filestore/db/database.h"
#include "filestore/db/file_status.h"
#include "kel/format.h"

namespace filestore {

namespace {

constexpr char kFindByKey[] =
    "SELECT FileId FROM Files WHERE FileType = '%Q' AND FileLabel = '%Q' AND FileName = '%Q' AND "
    "(FileChecksum = "
    "'%Q' OR FileChecksum = '') ORDER BY FileChecksum DESC";
constexpr char kFindByName[] =
    "SELECT FileId FROM Files WHERE FileType = '%Q' AND FileLabel = '%Q' AND FileName = '%Q' ORDER BY "
    "FileChecksum ASC";
constexpr char kFindExact[] =
    "SELECT FileId FROM Files WHERE FileType = '%Q' AND FileLabel = '%Q' AND FileName = '%Q' AND "
    "FileChecksum = "
    "'%Q'";
constexpr char kFindByUrl[] = "SELECT FileId FROM Files WHERE FileURL = '%Q'";

constexpr char kStatus[] = "SELECT FileStatus FROM Files WHERE FileId = %lu";

constexpr char kSetStatus[] =
    "UPDATE Files SET FileStatus = '%Q', LastStatusChangeTime = %ld WHERE FileId = %lu";
constexpr char kSetStatusAndUnicast[] =
    "UPDATE Files SET FileStatus = '%Q', TransportMode = '%s', LastStatusChangeTime = %ld WHERE FileId = %lu";
constexpr char kSetStatusIf[] =
    "UPDATE Files SET FileStatus = '%Q', LastStatusChangeTime = %ld WHERE FileId = %lu AND FileStatus = '%Q'";
constexpr char kSetStatuses[] =
    "UPDATE Files SET FileStatus = '%Q', LastStatusChangeTime = %ld WHERE FileId IN (%S)";
constexpr char kSetSupplied[] = "UPDATE Files SET FileStatus = '%s', Acknowledged = 1 WHERE FileId = %lu";
constexpr char kDeleteTargets[] = "DELETE FROM Targets WHERE FileId IN (%S)";
constexpr char kDeleteHandedOver[] = "DELETE FROM HandedOver WHERE FileId IN (%S)";
constexpr char kDelete[] = "DELETE FROM Files WHERE FileId IN (%S)";

constexpr char kSetDownloadPath[] =
    "UPDATE Files SET FilePath = '%Q' WHERE FileId = %lu AND FileStatus = '%s'";
constexpr char kSetTransferredBytes[] =
    "UPDATE Files SET TransferredBytes = %lu, LastStatusChangeTime = %ld WHERE FileId = %lu AND FileStatus = "
    "'%s'";
constexpr char kStartUnicastRecovery[] =
    "UPDATE Files SET TransportMode = '%s' WHERE FileId = %lu AND FileStatus = '%s'";
constexpr char kRestartDownload[] =
    "UPDATE Files SET LastStatusChangeTime = %ld, Acknowledged = 0 WHERE FileId = %lu AND FileStatus = '%s'";
constexpr char kSetDownloaded[] =
    "UPDATE Files SET FileSize = %lu, FileStatus = '%s', LastStatusChangeTime = 0, Acknowledged = 0 WHERE "
    "FileId = "
    "%lu AND FileStatus = '%s'";

constexpr char kSetAcknowledged[] =
    "UPDATE Files SET Acknowledged = 1 WHERE FileId = %lu AND FileStatus = '%s'";
constexpr char kSetNotRelaysChild[] =
    "UPDATE Files SET FileStatus = '%s', Acknowledged = 1 WHERE FileName = '%Q' AND FileChecksum = '%Q' AND "
    "FileStatus != '%s'";
constexpr char kSetLastRequestTime[] = "UPDATE Files SET LastRequestTime = %ld WHERE FileId = %lu";
constexpr char kMarkDueDownloads[] =
    "UPDATE Files SET LastStatusChangeTime = 0 WHERE FileStatus = '%s' AND LastStatusChangeTime %s %ld";
constexpr char kMakeDownloadsDue[] =
    "UPDATE Files SET LastStatusChangeTime = 0 WHERE FileStatus IN ('%s', '%s') AND LastStatusChangeTime <> "
    "0 "
    "AND SourceDevice = ''";
constexpr char kMakeAcknowledgementsDue[] =
    "UPDATE Files SET LastStatusChangeTime = 0 WHERE FileStatus = '%s' AND Upstream = 0 AND Acknowledged = 0 "
    "AND "
    "LastStatusChangeTime > 0";
constexpr char kMakeUploadsDue[] =
    "UPDATE Files SET LastStatusChangeTime = 0 WHERE FileStatus IN ('%s', '%s', '%s') AND "
    "LastStatusChangeTime "
    "<> 0";
// What has been downloaded so far stays. A multicast of the former parent is not to be joined any more.
constexpr char kRequestDownloads[] =
    "UPDATE Files SET FileStatus = '%s', LastStatusChangeTime = 0, MulticastPort = 0 WHERE FileStatus = '%s' "
    "AND SourceDevice = ''";
constexpr char kOfferUploads[] =
    "UPDATE Files SET FileStatus = '%s', LastStatusChangeTime = 0 WHERE FileStatus = '%s'";
constexpr char kSetMissing[] = "UPDATE Files SET FileStatus = '%s' WHERE FileId = %lu";
constexpr char kSetExternalMissing[] =
    "UPDATE Files SET FileStatus = '%s', LastStatusChangeTime = 0, ExternalFile = 0, FilePath = '', FileURL "
    "= "
    "'' WHERE FileId = %lu";
constexpr char kSetReceivedByMulticast[] =
    "UPDATE Files SET FileSize = %lu, FileStatus = '%s', LastStatusChangeTime = 0, Acknowledged = 0, "
    "TransportMode "
    "= '%s' WHERE FileId = %lu AND FileStatus = '%s'";
constexpr char kResetMulticastOfUrl[] =
    "UPDATE Files SET FileSize = 0, FileStatus = '%s', LastStatusChangeTime = 0, Acknowledged = 0, "
    "MulticastAddress = '', MulticastPort = 0 WHERE FileURL = '%Q' AND FileStatus = '%s'";
constexpr char kResetMulticast[] =
    "UPDATE Files SET FileSize = 0, FileStatus = '%s', LastStatusChangeTime = 0, Acknowledged = 0, "
    "MulticastAddress = '', MulticastPort = 0 WHERE FileStatus = '%s'";
constexpr char kBackToUnicast[] =
    "UPDATE Files SET FileStatus = '%s', LastStatusChangeTime = 0, MulticastAddress = '', MulticastPort = 0, "
    "TransportMode = '%s' WHERE FileId = %lu AND FileStatus = '%s'";
constexpr char kForgetUnfinished[] =
    "UPDATE Files SET FileStatus = '%s', LastStatusChangeTime = 0 WHERE FileStatus = '%s'";
constexpr char kMovePaths[] =
    "UPDATE Files SET FilePath = '%Q' || substr(FilePath, length('%Q') + 1) WHERE substr(FilePath, 1, "
    "length('%Q')) = '%Q' AND %s";
constexpr char kIsOwn[] = "ExternalFile = 0";
constexpr char kIsExternal[] = "ExternalFile <> 0";
constexpr char kRecordRequestAnswer[] =
    "UPDATE Files SET FileStatus = '%Q', LastStatusChangeTime = %ld, FileURL = '%Q', KeepCopy = %u, "
    "FileChecksum = '%Q', FileInfo = '%Q', MulticastAddress = '', MulticastPort = 0 WHERE FileId = %lu AND "
    "FileStatus = '%s'";

constexpr char kSetReceivingAgain[] =
    "UPDATE Files SET FileStatus = '%s', TransportMode = '%s', FileSize = %ld, FileURL = '%Q', Repeated = %u "
    "WHERE FileId = %lu";
constexpr char kHandleAgain[] =
    "UPDATE Files SET FileStatus = '%s', LastStatusChangeTime = 0, Repeated = 0 WHERE FileId = %lu AND "
    "FileStatus IN "
    "('%s', "
    "'%s', '%s')";
constexpr char kSetSourceDevice[] = "UPDATE Files SET SourceDevice = '%Q' WHERE FileId = %lu";
constexpr char kSetMissingSourceDevices[] = "UPDATE Files SET SourceDevice = '%Q' WHERE SourceDevice = ''";
constexpr char kRecordSent[] =
    "UPDATE Files SET FileURL = ?, FileStatus = ?, LastStatusChangeTime = 0 WHERE FileId = ?";

constexpr char kRepeatSent[] =
    "UPDATE Files SET FileStatus = '%s', LastStatusChangeTime = 0, Repeated = 1 WHERE FileStatus IN ('%s', "
    "'%s') "
    "AND FileType <> '%s'";

std::int64_t Now() {
    return std::time(nullptr);
}

std::int64_t StatusTime(NextTry next) {
    return next == NextTry::AtOnce ? 0 : Now();
}

bool ChangeDownstream(const KelString& statement) {
    return Change(Side::Downstream, statement);
}

bool ChangeUpstream(const KelString& statement) {
    return Change(Side::Upstream, statement);
}

/// The first row's FileId, 0 when there is no row; nothing when the statement failed.
std::optional<std::uint64_t> FirstFileId(Side side, const KelString& statement) {
    const auto result = FileStoreGetDatabase(side).connection.Query(statement);
    if (!result) return std::nullopt;
    return result->GetRowCount() == 0 ? 0 : static_cast<std::uint64_t>(result->GetInt64(0, std::size_t{0}));
}

}  // namespace

std::optional<std::uint64_t> LookUpFile(Side side, const FileKey& key) {
    const KelString statement = key.checksum.empty()
                                    ? KelFormat(kFindByName, key.type, key.label, key.name)
                                    : KelFormat(kFindByKey, key.type, key.label, key.name, key.checksum);
    return FirstFileId(side, statement);
}

std::uint64_t FindFileInDatabase(Side side, const FileKey& key) {
    return LookUpFile(side, key).value_or(0);
}

KelVector<std::uint64_t> FindFilesByName(Side side, const FileKey& key) {
    KelVector<std::uint64_t> fileIds;
    const auto result =
        FileStoreGetDatabase(side).connection.Query(KelFormat(kFindByName, key.type, key.label, key.name));
    for (std::size_t row = 0; result && row < result->GetRowCount(); ++row)
        fileIds.push_back(static_cast<std::uint64_t>(result->GetInt64(row, std::size_t{0})));
    return fileIds;
}

std::optional<std::uint64_t> FindExactFile(Side side, const FileKey& key) {
    return FirstFileId(side, KelFormat(kFindExact, key.type, key.label, key.name, key.checksum));
}

std::uint64_t FindFileFromUrl(const KelString& url) {
    return FirstFileId(Side::Upstream, KelFormat(kFindByUrl, url)).value_or(0);
}

bool LoadKnownFile(Side side, FileStoreEntry& entry) {
    const std::uint64_t fileId = FindFileInDatabase(side, entry.Key());
    return fileId != 0 && entry.LoadFromDatabase(fileId, side);
}

std::optional<KelString> LookUpStatus(Side side, std::uint64_t fileId) {
    const auto result = FileStoreGetDatabase(side).connection.Query(KelFormat(kStatus, fileId));
    if (!result) return std::nullopt;
    return result->GetRowCount() == 0 ? KelString() : result->GetString(0, std::size_t{0});
}

KelString ReadFileStatus(Side side, std::uint64_t fileId) {
    return LookUpStatus(side, fileId).value_or("");
}

bool UpdateFileStatus(Side side, std::uint64_t fileId, const KelString& status, NextTry next, bool unicast) {
    if (unicast)
        return Change(side,
                      KelFormat(kSetStatusAndUnicast, status, kTransportUnicast, StatusTime(next), fileId));
    return Change(side, KelFormat(kSetStatus, status, StatusTime(next), fileId));
}

bool UpdateFileStatus(Side side, std::uint64_t fileId, const KelString& expected, const KelString& status,
                      NextTry next) {
    return Change(side, KelFormat(kSetStatusIf, status, StatusTime(next), fileId, expected));
}

bool UpdateFileStatus(Side side, const IdList& fileIds, const KelString& status, NextTry next) {
    return fileIds.IsEmpty() ||
           Change(side, KelFormat(kSetStatuses, status, StatusTime(next), fileIds.Text()));
}

bool RestoreFileStatus(Side side, const FileStoreEntry& row) {
    return Change(side, KelFormat(kSetStatus, row.FileStatus, row.LastStatusChangeTime, row.FileId));
}

bool SetSuppliedByConsumer(Side side, std::uint64_t fileId) {
    return Change(side, KelFormat(kSetSupplied, kStatusNotRelaysChild, fileId));
}

bool DeleteFileRow(Side side, std::uint64_t fileId) {
    IdList one;
    one.Add(fileId);
    if (!DeleteFileRows(side, one)) return false;
    FileStoreRowDeleted(side, fileId);
    return true;
}

bool DeleteFileRows(Side side, const IdList& fileIds) {
    if (fileIds.IsEmpty()) return true;
    const KelLock lock(FileStoreGetDatabase(side).mutex);
    if (side == Side::Downstream && (!ChangeDownstream(KelFormat(kDeleteTargets, fileIds.Text())) ||
                                     !ChangeDownstream(KelFormat(kDeleteHandedOver, fileIds.Text()))))
        return false;
    return Change(side, KelFormat(kDelete, fileIds.Text()));
}

bool MarkDueDownloads(std::int64_t before) {
    return ChangeDownstream(KelFormat(kMarkDueDownloads, kStatusDownloading, "BETWEEN 1 AND", before - 1)) &&
           ChangeDownstream(
               KelFormat(kMarkDueDownloads, kStatusDownloading, ">", LatestPossibleTime(std::time(nullptr))));
}

bool SetDownloadPath(std::uint64_t fileId, const KelString& path) {
    return ChangeDownstream(KelFormat(kSetDownloadPath, path, fileId, kStatusDownloading));
}

bool SetTransferredBytes(std::uint64_t fileId, std::uint64_t bytes, NextTry next) {
    return ChangeDownstream(
        KelFormat(kSetTransferredBytes, bytes, StatusTime(next), fileId, kStatusDownloading));
}

bool StartUnicastRecovery(std::uint64_t fileId) {
    return ChangeDownstream(KelFormat(kStartUnicastRecovery, kTransportUnicast, fileId, kStatusDownloading));
}

bool RestartDownload(std::uint64_t fileId) {
    return ChangeDownstream(KelFormat(kRestartDownload, Now(), fileId, kStatusDownloading));
}

bool SetDownloaded(std::uint64_t fileId, std::uint64_t size) {
    return ChangeDownstream(KelFormat(kSetDownloaded, size, kStatusAvailable, fileId, kStatusDownloading));
}

bool SetAcknowledged(std::uint64_t fileId) {
    return ChangeDownstream(KelFormat(kSetAcknowledged, fileId, kStatusAvailable));
}

bool SetNotRelaysChild(const KelString& name, const KelString& checksum) {
    return ChangeDownstream(
        KelFormat(kSetNotRelaysChild, kStatusNotRelaysChild, name, checksum, kStatusAvailable));
}

bool SetLastRequestTime(std::uint64_t fileId, std::int64_t time) {
    return ChangeDownstream(KelFormat(kSetLastRequestTime, time, fileId));
}

void MakeDueForParent() {
    ChangeDownstream(KelFormat(kMakeDownloadsDue, kStatusDownloading, kStatusToBeRequested));
    ChangeDownstream(KelFormat(kMakeAcknowledgementsDue, kStatusAvailable));
    ChangeUpstream(KelFormat(kMakeUploadsDue, kStatusToBeUploaded, kStatusUploading, kStatusToBePacked));
}

void TurnToNewParent() {
    ChangeDownstream(KelFormat(kRequestDownloads, kStatusToBeRequested, kStatusDownloading));
    ChangeUpstream(KelFormat(kOfferUploads, kStatusToBeUploaded, kStatusUploading));
}

bool SetMissing(std::uint64_t fileId) {
    return ChangeDownstream(KelFormat(kSetMissing, kStatusMissing, fileId));
}

bool SetExternalMissing(std::uint64_t fileId) {
    return ChangeDownstream(KelFormat(kSetExternalMissing, kStatusMissing, fileId));
}

bool SetReceivedByMulticast(std::uint64_t fileId, std::uint64_t size) {
    return ChangeDownstream(KelFormat(kSetReceivedByMulticast, size, kStatusAvailable, kTransportMulticast,
                                      fileId, kStatusMulticastListening));
}

bool ResetMulticastReception(const KelString& url) {
    return ChangeDownstream(
        KelFormat(kResetMulticastOfUrl, kStatusToBeRequested, url, kStatusMulticastListening));
}

bool ResetAllMulticastReceptions() {
    return ChangeDownstream(KelFormat(kResetMulticast, kStatusToBeRequested, kStatusMulticastListening));
}

bool DownloadByUnicast(std::uint64_t fileId) {
    return ChangeDownstream(
        KelFormat(kBackToUnicast, kStatusDownloading, kTransportUnicast, fileId, kStatusMulticastListening));
}

bool ForgetUnfinishedOffers() {
    return ChangeDownstream(KelFormat(kForgetUnfinished, kStatusMissing, kStatusReceiving));
}

bool MoveContentPaths(Side side, const KelString& previous, const KelString& location) {
    const auto move = [side](const KelString& from, const KelString& to, const char* which) {
        return Change(side, KelFormat(kMovePaths, to, from, from, from, which));
    };
    for (const Side folder : {Side::Downstream, Side::Upstream}) {
        const KelString name = KelFormat("%s/", SideName(folder));
        if (!move(previous + name, location + name, kIsExternal)) return false;
    }
    return side == Side::Upstream || move(previous, location, kIsOwn);
}

bool RecordRequestAnswer(std::uint64_t fileId, const RequestAnswer& answer) {
    return ChangeDownstream(KelFormat(kRecordRequestAnswer, answer.status, StatusTime(answer.next),
                                      answer.url, answer.keepCopy, answer.checksum, answer.info, fileId,
                                      kStatusToBeRequested));
}

bool SetReceivingAgain(std::uint64_t fileId, std::int64_t size, const KelString& url, bool repeated) {
    return ChangeUpstream(
        KelFormat(kSetReceivingAgain, kStatusReceiving, kTransportUnicast, size, url, repeated, fileId));
}

bool HandleAgain(std::uint64_t fileId) {
    return ChangeUpstream(KelFormat(kHandleAgain, kStatusToBeHandled, fileId, kStatusAvailable,
                                    kStatusPackedFile, kStatusReceiving));
}

bool SetSourceDevice(Side side, std::uint64_t fileId, const KelString& deviceUrl) {
    return Change(side, KelFormat(kSetSourceDevice, deviceUrl, fileId));
}

bool SetMissingSourceDevices(const KelString& deviceUrl) {
    return ChangeUpstream(KelFormat(kSetMissingSourceDevices, deviceUrl));
}

bool RepeatSentFiles() {
    return ChangeUpstream(
        KelFormat(kRepeatSent, kStatusToBeUploaded, kStatusAvailable, kStatusPackedFile, kPackedFilesType));
}

bool RecordSentFiles(const KelVector<SentFile>& files) {
    if (files.empty()) return true;
    const FileStoreDatabase database = FileStoreGetDatabase(Side::Upstream);
    const KelLock lock(database.mutex);
    DBTransaction transaction(database.connection);
    for (const SentFile& file : files) {
        const DBValue values[] = {file.url, KelString(file.status), static_cast<std::int64_t>(file.fileId)};
        if (!database.connection.Query(kRecordSent, values)) return false;
    }
    return transaction.Commit();
}

void RunUpstreamStatements(const KelVector<KelString>& statements) {
    const FileStoreDatabase database = FileStoreGetDatabase(Side::Upstream);
    const KelLock lock(database.mutex);
    DBTransaction transaction(database.connection);
    for (const KelString& statement : statements)
        database.connection.Query(statement);
    transaction.Commit();
}

}  // namespace filestore
