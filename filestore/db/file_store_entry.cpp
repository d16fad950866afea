#include "filestore/db/file_store_entry.h"

#include <algorithm>
#include <ctime>

#include "filestore/db/database.h"
#include "filestore/db/file_status.h"
#include "filestore/db/schema.h"
#include "kel/format.h"

using namespace filestore;

namespace {

/// A number that the table holds unsigned; a size that could not be found out (-1) counts as unknown.
std::uint64_t NotNegative(std::int64_t number) {
    return static_cast<std::uint64_t>(std::max<std::int64_t>(number, 0));
}

/// Gives the record an identifier when it has none; false when none can be had.
bool TakeFileId(FileStoreEntry& entry, const FileStoreDatabase& database) {
    if (entry.FileId == 0) entry.FileId = database.sequence.GetId(kTableFiles, kFileId);
    return entry.FileId != 0;
}

KelString InsertStatement(const FileStoreEntry& entry) {
    return KelFormat(
        "INSERT INTO %s (FileId, FileType, FileLabel, FileName, FileChecksum, FileSize, FilePath, FileURL, "
        "FileStatus, Upstream, KeepCopy, ExternalFile, Bypass, Acknowledged, Priority, TransferredBytes, "
        "CreateTime, LastStatusChangeTime, SourceDevice, FirstRelay, FileInfo, MulticastTransferToBeStarted, "
        "MulticastAddress, MulticastPort, MulticastBlockSize, MulticastRetryNumber, TransportMode, "
        "LastRequestTime) VALUES (%lu, '%Q', '%Q', '%Q', '%Q', %gu, '%Q', '%Q', '%Q', %u, %u, %u, %u, %u, "
        "%u, %gu, %gu, %gu, '%Q', '%Q', '%Q', %u, '%Q', %u, %u, %u, '%Q', %gu)",
        kTableFiles, entry.FileId, entry.FileType, entry.FileLabel, entry.FileName, entry.FileChecksum,
        NotNegative(entry.FileSize), entry.FilePath, entry.FileURL, entry.FileStatus, entry.Upstream,
        entry.KeepCopy, entry.ExternalFile, entry.Bypass, entry.Acknowledged, entry.Priority,
        entry.TransferredBytes, NotNegative(entry.CreateTime), NotNegative(entry.LastStatusChangeTime),
        entry.SourceDevice, entry.FirstRelay, entry.FileInfo, entry.MulticastTransferToBeStarted,
        entry.MulticastAddress, entry.MulticastPort, entry.MulticastBlockSize, entry.MulticastRetryNumber,
        entry.TransportMode, NotNegative(entry.LastRequestTime));
}

KelString UpdateStatement(const FileStoreEntry& entry) {
    return KelFormat(
        "UPDATE %s SET FileType = '%Q', FileLabel = '%Q', FileName = '%Q', FileChecksum = '%Q', "
        "FileSize = %gu, FilePath = '%Q', FileURL = '%Q', FileStatus = '%Q', Upstream = %u, KeepCopy = %u, "
        "ExternalFile = %u, Bypass = %u, Acknowledged = %u, Priority = %u, TransferredBytes = %gu, "
        "CreateTime = %gu, LastStatusChangeTime = %gu, SourceDevice = '%Q', FirstRelay = '%Q', "
        "FileInfo = '%Q', MulticastTransferToBeStarted = %u, MulticastAddress = '%Q', MulticastPort = %u, "
        "MulticastBlockSize = %u, MulticastRetryNumber = %u, TransportMode = '%Q', LastRequestTime = %gu "
        "WHERE FileId = %lu ",
        kTableFiles, entry.FileType, entry.FileLabel, entry.FileName, entry.FileChecksum,
        NotNegative(entry.FileSize), entry.FilePath, entry.FileURL, entry.FileStatus, entry.Upstream,
        entry.KeepCopy, entry.ExternalFile, entry.Bypass, entry.Acknowledged, entry.Priority,
        entry.TransferredBytes, NotNegative(entry.CreateTime), NotNegative(entry.LastStatusChangeTime),
        entry.SourceDevice, entry.FirstRelay, entry.FileInfo, entry.MulticastTransferToBeStarted,
        entry.MulticastAddress, entry.MulticastPort, entry.MulticastBlockSize, entry.MulticastRetryNumber,
        entry.TransportMode, NotNegative(entry.LastRequestTime), entry.FileId);
}

}  // namespace

FileStoreEntry::FileStoreEntry() : FileStatus(kStatusMissing), TransportMode(kTransportUnknown) {}

bool FileStoreEntry::LoadFromDatabase(const KelString& where, bool upstream) {
    const auto result = FileStoreGetDatabase(upstream).connection.Query(
        KelFormat("SELECT * FROM %s WHERE %S", kTableFiles, where));
    if (!result || result->GetRowCount() == 0) return false;
    LoadFromResult(*result, 0);
    return true;
}

bool FileStoreEntry::LoadFromDatabase(unsigned long fileId, bool upstream) {
    return LoadFromDatabase(KelFormat("%s = %lu", kFileId, fileId), upstream);
}

void FileStoreEntry::LoadFromResult(const DBResult& result, std::size_t row) {
    FileId = static_cast<std::uint64_t>(result.GetInt64(row, kFileId));
    FileType = result.GetString(row, kFileType);
    FileLabel = result.GetString(row, kFileLabel);
    FileName = result.GetString(row, kFileName);
    FileChecksum = result.GetString(row, kFileChecksum);
    FilePath = result.GetString(row, kFilePath);
    FileURL = result.GetString(row, kFileUrl);
    FileSize = result.GetInt64(row, kFileSize);
    FileInfo = result.GetString(row, kFileInfo);
    TransferredBytes = static_cast<std::uint64_t>(result.GetInt64(row, kTransferredBytes));
    FileStatus = result.GetString(row, kFileStatus);
    SourceDevice = result.GetString(row, kSourceDevice);
    FirstRelay = result.GetString(row, kFirstRelay);
    Bypass = result.GetBool(row, kBypass);
    Upstream = result.GetBool(row, kUpstream);
    KeepCopy = result.GetUint32(row, kKeepCopy);
    ExternalFile = result.GetBool(row, kExternalFile);
    Acknowledged = result.GetBool(row, kAcknowledged);
    Priority = result.GetUint32(row, kPriority);
    CreateTime = result.GetInt64(row, kCreateTime);
    LastStatusChangeTime = result.GetInt64(row, kLastStatusChangeTime);
    MulticastTransferToBeStarted = result.GetBool(row, kMulticastTransferToBeStarted);
    MulticastAddress = result.GetString(row, kMulticastAddress);
    MulticastPort = result.GetUint32(row, kMulticastPort);
    MulticastBlockSize = result.GetUint32(row, kMulticastBlockSize);
    MulticastRetryNumber = result.GetUint32(row, kMulticastRetryNumber);
    TransportMode = result.GetString(row, kTransportMode);
    LastRequestTime = result.GetInt64(row, kLastRequestTime);
}

unsigned long FileStoreEntry::CreateInDatabase(bool upstream) {
    const FileStoreDatabase database = FileStoreGetDatabase(upstream);
    if (!TakeFileId(*this, database)) return 0;
    if (CreateTime == 0) CreateTime = std::time(nullptr);
    const KelString statement = InsertStatement(*this);
    KelLock lock(database.mutex);
    return database.connection.Query(statement) ? static_cast<unsigned long>(FileId) : 0;
}

bool FileStoreEntry::SaveToDatabase(bool upstream) {
    const FileStoreDatabase database = FileStoreGetDatabase(upstream);
    if (!TakeFileId(*this, database)) return false;
    const KelString statement = UpdateStatement(*this);
    KelLock lock(database.mutex);
    return database.connection.Query(statement) != nullptr;
}
