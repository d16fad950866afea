#pragma once

#include <functional>

#include "filestore/db/database.h"
#include "filestore/db/file_store_entry.h"
#include "kelcore/file_lease.h"

/// Removing content from the store, and what keeps it there: everything that transfers, packs, announces or
/// hands over a file holds a FileInUse, and the HTTP server holds leases of what it sends and receives
/// (kelcore/file_lease.h).
namespace filestore {

/// Keeps a row and its content from being removed for as long as it lives, whatever their age. It may wait
/// for a removal that has begun, so no database mutex may be held; the row may be gone afterwards.
class FileInUse {
  public:
    FileInUse() = default;
    FileInUse(Side side, const FileStoreEntry& file);

  private:
    KelFileLease row_;
    KelFileLease content_;
};

/// The FileIds of a side whose rows are in use.
KelVector<std::uint64_t> FilesInUse(Side side);

/// One removal of rows with their content, in this order: Claim what nothing uses, delete the rows, Confirm
/// those that are gone once that is committed, and RemoveContent without a lock. From Claim until the end of
/// its life nothing else takes the content: what arrives at the same place waits.
class ContentRemoval {
  public:
    explicit ContentRemoval(Side side) : side_(side) {}

    /// False when the file is in use: its row has to stay. With or without locks.
    bool Claim(const FileStoreEntry& file);
    /// The row of a claimed file is gone. Content outside the store stays.
    void Confirm(const FileStoreEntry& file);
    /// Removes the content of all confirmed files, and their folders where these are empty then.
    void RemoveContent();

  private:
    const Side side_;
    KelVector<KelFileClaim> claims_;
    KelVector<KelString> paths_;
    IdList removed_;
};

/// Removes what removed rows of a side have left in the store, because it was in use or the agent was killed,
/// unless it has got a row again. On the cleanup thread, without locks.
void RemoveLeftContent(Side side, const std::function<bool()>& isCancelled);

}  // namespace filestore
