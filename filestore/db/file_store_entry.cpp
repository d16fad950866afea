#include "filestore/db/file_store_entry.h"

#include <algorithm>
#include <array>
#include <ctime>

#include "filestore/db/database.h"
#include "filestore/db/file_status.h"
#include "kel/format.h"

using namespace filestore;

namespace {

constexpr char kSelectById[] = "SELECT %s FROM Files WHERE FileId = %lu";

constexpr char kInsert[] =
    "INSERT INTO Files (FileId, FileType, FileLabel, FileName, FileChecksum, FileSize, FilePath, FileURL, "
    "FileStatus, Upstream, KeepCopy, ExternalFile, Bypass, Acknowledged, Priority, TransferredBytes, "
    "CreateTime, "
    "LastStatusChangeTime, SourceDevice, FirstRelay, FileInfo, MulticastTransferToBeStarted, "
    "MulticastAddress, "
    "MulticastPort, MulticastBlockSize, MulticastRetryNumber, TransportMode, LastRequestTime, Repeated) "
    "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";

constexpr char kUpdate[] =
    "UPDATE Files SET FileType = '%Q', FileLabel = '%Q', FileName = '%Q', FileChecksum = '%Q', FileSize = "
    "%lu, "
    "FilePath = '%Q', FileURL = '%Q', FileStatus = '%Q', Upstream = %u, KeepCopy = %u, ExternalFile = %u, "
    "Bypass = "
    "%u, Acknowledged = %u, Priority = %u, TransferredBytes = %lu, CreateTime = %lu, LastStatusChangeTime = "
    "%lu, "
    "SourceDevice = '%Q', FirstRelay = '%Q', FileInfo = '%Q', MulticastTransferToBeStarted = %u, "
    "MulticastAddress "
    "= '%Q', MulticastPort = %u, MulticastBlockSize = %u, MulticastRetryNumber = %u, TransportMode = '%Q', "
    "LastRequestTime = %lu, Repeated = %u WHERE FileId = %lu";

/// A number that the table holds unsigned; a size that is not known (-1) is stored as 0.
std::uint64_t NotNegative(std::int64_t number) {
    return static_cast<std::uint64_t>(std::max<std::int64_t>(number, 0));
}

/// The same for a parameter.
template <class Number>
std::int64_t Stored(Number number) {
    return static_cast<std::int64_t>(NotNegative(static_cast<std::int64_t>(number)));
}

/// False when the record has no identifier and none can be drawn.
bool EnsureFileId(FileStoreEntry& entry, const FileStoreDatabase& database) {
    if (entry.FileId == 0) entry.FileId = database.sequence.GetId("Files", "FileId");
    return entry.FileId != 0;
}

std::array<DBValue, 29> InsertValues(const FileStoreEntry& e) {
    return {Stored(e.FileId),
            e.FileType,
            e.FileLabel,
            e.FileName,
            e.FileChecksum,
            Stored(e.FileSize),
            e.FilePath,
            e.FileURL,
            e.FileStatus,
            Stored(e.Upstream),
            Stored(e.KeepCopy),
            Stored(e.ExternalFile),
            Stored(e.Bypass),
            Stored(e.Acknowledged),
            Stored(e.Priority),
            Stored(e.TransferredBytes),
            Stored(e.CreateTime),
            Stored(e.LastStatusChangeTime),
            e.SourceDevice,
            e.FirstRelay,
            e.FileInfo,
            Stored(e.MulticastTransferToBeStarted),
            e.MulticastAddress,
            Stored(e.MulticastPort),
            Stored(e.MulticastBlockSize),
            Stored(e.MulticastRetryNumber),
            e.TransportMode,
            Stored(e.LastRequestTime),
            Stored(e.Repeated)};
}

KelString UpdateStatement(const FileStoreEntry& e) {
    return KelFormat(kUpdate, e.FileType, e.FileLabel, e.FileName, e.FileChecksum, NotNegative(e.FileSize),
                     e.FilePath, e.FileURL, e.FileStatus, e.Upstream, e.KeepCopy, e.ExternalFile, e.Bypass,
                     e.Acknowledged, e.Priority, e.TransferredBytes, NotNegative(e.CreateTime),
                     NotNegative(e.LastStatusChangeTime), e.SourceDevice, e.FirstRelay, e.FileInfo,
                     e.MulticastTransferToBeStarted, e.MulticastAddress, e.MulticastPort,
                     e.MulticastBlockSize, e.MulticastRetryNumber, e.TransportMode,
                     NotNegative(e.LastRequestTime), e.Repeated, e.FileId);
}

}  // namespace

FileStoreEntry::FileStoreEntry() : FileStatus(kStatusMissing), TransportMode(kTransportUnknown) {}

FileStoreEntry::FileStoreEntry(const FileKey& key) : FileStoreEntry() {
    SetKey(key);
}

void FileStoreEntry::SetKey(const FileKey& key) {
    FileType = key.type;
    FileLabel = key.label;
    FileName = key.name;
    FileChecksum = key.checksum;
}

void FileStoreEntry::Read(RowReader& row) {
    FileId = row.Unsigned();
    FileType = row.Text();
    FileLabel = row.Text();
    FileName = row.Text();
    FileChecksum = row.Text();
    FileSize = row.Number();
    FilePath = row.Text();
    FileURL = row.Text();
    FileStatus = row.Text();
    Upstream = row.Flag();
    KeepCopy = row.Unsigned32();
    ExternalFile = row.Flag();
    Bypass = row.Flag();
    Acknowledged = row.Flag();
    Priority = row.Unsigned32();
    TransferredBytes = row.Unsigned();
    CreateTime = row.Number();
    LastStatusChangeTime = row.Number();
    SourceDevice = row.Text();
    FirstRelay = row.Text();
    FileInfo = row.Text();
    MulticastTransferToBeStarted = row.Unsigned32();
    MulticastAddress = row.Text();
    MulticastPort = row.Unsigned32();
    MulticastBlockSize = row.Unsigned32();
    MulticastRetryNumber = row.Unsigned32();
    TransportMode = row.Text();
    LastRequestTime = row.Number();
    Repeated = row.Flag();
}

bool FileStoreEntry::LoadFromDatabase(std::uint64_t fileId, Side side) {
    const auto result = FileStoreGetDatabase(side).connection.Query(KelFormat(kSelectById, kColumns, fileId));
    if (!result || result->GetRowCount() == 0) return false;
    RowReader row(*result, 0);
    Read(row);
    return true;
}

std::uint64_t FileStoreEntry::CreateInDatabase(Side side) {
    const FileStoreDatabase database = FileStoreGetDatabase(side);
    if (!EnsureFileId(*this, database)) return 0;
    if (CreateTime == 0) CreateTime = std::time(nullptr);
    const auto values = InsertValues(*this);
    const KelLock lock(database.mutex);
    return database.connection.Query(kInsert, values) ? FileId : 0;
}

bool FileStoreEntry::SaveToDatabase(Side side) {
    const FileStoreDatabase database = FileStoreGetDatabase(side);
    if (!EnsureFileId(*this, database)) return false;
    const KelString statement = UpdateStatement(*this);
    const KelLock lock(database.mutex);
    return database.connection.Query(statement) != nullptr;
}
