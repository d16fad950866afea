#pragma once

#include <cstdint>

#include "filestore/db/file_key.h"
#include "kel/types.h"

namespace filestore {
class RowReader;
}

/// One row of the table Files in memory, with all its columns: what every selection of files returns. A
/// record does not know which of the two databases it belongs to; each operation names the side. One thread
/// at a time per object.
class FileStoreEntry {
  public:
    FileStoreEntry();
    explicit FileStoreEntry(const FileKey& key);
    virtual ~FileStoreEntry() = default;
    FileStoreEntry(const FileStoreEntry&) = default;
    FileStoreEntry& operator=(const FileStoreEntry&) = default;
    FileStoreEntry(FileStoreEntry&&) = default;
    FileStoreEntry& operator=(FileStoreEntry&&) = default;

    /// The columns as a SELECT lists them for Read. `Files.` stands where a join would be ambiguous.
    static constexpr const char* kColumns =
        "Files.FileId, FileType, FileLabel, FileName, FileChecksum, FileSize, FilePath, FileURL, FileStatus, "
        "Upstream, KeepCopy, ExternalFile, Bypass, Acknowledged, Priority, TransferredBytes, CreateTime, "
        "LastStatusChangeTime, SourceDevice, FirstRelay, FileInfo, MulticastTransferToBeStarted, "
        "MulticastAddress, MulticastPort, MulticastBlockSize, MulticastRetryNumber, TransportMode, "
        "LastRequestTime, Repeated";

    /// Fills the record from the columns above.
    void Read(filestore::RowReader& row);

    FileKey Key() const { return {FileType, FileLabel, FileName, FileChecksum}; }
    void SetKey(const FileKey& key);

    /// Fills the record from the row `fileId`. False, with the record unchanged, when there is none or the
    /// statement failed. The caller holds the mutex of the database when a write follows from what was read.
    bool LoadFromDatabase(std::uint64_t fileId, Side side);

    /// Inserts the record, giving it a FileId and a CreateTime when it has none. Its FileId, or 0 on failure.
    /// Takes the database's mutex for the statement.
    std::uint64_t CreateInDatabase(Side side);

    /// Writes every column of the record's row. False on failure. Takes the database's mutex for the
    /// statement.
    bool SaveToDatabase(Side side);

    std::uint64_t FileId = 0;  ///< 0: no row yet
    KelString FileType;
    KelString FileLabel;
    KelString FileName;
    KelString FileChecksum;
    KelString FilePath;         ///< of the content on this device
    KelString FileURL;          ///< URL path: downstream where it is fetched, upstream where it is put
    std::int64_t FileSize = 0;  ///< bytes; 0: unknown
    KelString FileInfo;         ///< container as XML
    std::uint64_t TransferredBytes = 0;
    KelString FileStatus;
    KelString SourceDevice;  ///< device URL
    KelString FirstRelay;    ///< device URL
    bool Bypass = false;     ///< moves through closed windows
    bool Upstream = false;
    std::uint32_t KeepCopy = 0;  ///< bits: 1 master, 2 relay, 4 client
    bool ExternalFile = false;   ///< the content lies outside the store, at FilePath
    bool Acknowledged = false;
    std::uint32_t Priority = 100;
    std::int64_t CreateTime = 0;                     ///< seconds since the epoch, as are the other times
    std::int64_t LastStatusChangeTime = 0;           ///< 0: due at once
    std::uint32_t MulticastTransferToBeStarted = 0;  ///< MulticastState (multicast_table.h)
    KelString MulticastAddress;
    std::uint32_t MulticastPort = 0;
    std::uint32_t MulticastBlockSize = 1024;
    std::uint32_t MulticastRetryNumber = 0;
    KelString TransportMode;
    std::int64_t LastRequestTime = 0;
    bool Repeated = false;  ///< offered again after a database was lost: devices that have the file keep it
};
