#pragma once

#include <cstdint>

#include "kel/types.h"

class DBResult;

/// One row of the table Files in memory, from the upstream or the downstream database; the flag `upstream` of
/// each operation chooses the database. One thread at a time per object.
class FileStoreEntry {
  public:
    FileStoreEntry();
    virtual ~FileStoreEntry() = default;
    FileStoreEntry(const FileStoreEntry&) = default;
    FileStoreEntry& operator=(const FileStoreEntry&) = default;

    /// Fills the record from the first row that meets the SQL condition `where`. False when there is none;
    /// the record then keeps its values. The caller holds the mutex of the database when it goes on to write.
    bool LoadFromDatabase(const KelString& where, bool upstream);
    bool LoadFromDatabase(unsigned long fileId, bool upstream);

    /// Inserts the record, giving it a FileId and a CreateTime when it has none. Its FileId, or 0 on failure.
    /// Takes the database's mutex for the statement.
    unsigned long CreateInDatabase(bool upstream);

    /// Writes every field to the record's row; the same rules. True on success.
    bool SaveToDatabase(bool upstream);

    /// Fills the record from one row of a result that has all the columns of Files.
    void LoadFromResult(const DBResult& result, std::size_t row);

    std::uint64_t FileId = 0;
    KelString FileType;
    KelString FileLabel;
    KelString FileName;
    KelString FileChecksum;
    KelString FilePath;
    KelString FileURL;
    std::int64_t FileSize = 0;
    KelString FileInfo;
    std::uint64_t TransferredBytes = 0;
    KelString FileStatus;
    KelString SourceDevice;
    KelString FirstRelay;
    bool Bypass = false;
    bool Upstream = false;
    std::uint32_t KeepCopy = 0;
    bool ExternalFile = false;
    bool Acknowledged = false;
    std::uint32_t Priority = 100;
    std::int64_t CreateTime = 0;
    std::int64_t LastStatusChangeTime = 0;
    bool MulticastTransferToBeStarted = false;
    KelString MulticastAddress;
    std::uint32_t MulticastPort = 0;
    std::uint32_t MulticastBlockSize = 1024;
    std::uint32_t MulticastRetryNumber = 0;
    KelString TransportMode;
    std::int64_t LastRequestTime = 0;
};
