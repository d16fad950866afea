#pragma once

#include <cstdint>

#include "filestore/db/database.h"
#include "kelcore/file_key.h"

/// The table Withdrawals (downstream database): what devices of the next level still have to be told about
/// withdrawn files. Locks and failures as in files_table.h: changes take mutexDownstream.
namespace filestore {

/// One row: a device that is to forget a file.
struct FileWithdrawal {
    std::uint64_t withdrawalId = 0;
    KelString deviceGuid;      ///< path name of the device
    FileKey key;               ///< without a checksum: all contents of this name
    KelString devicePath;      ///< the targets from which the file is withdrawn, a target tree as XML
    bool keepContent = false;  ///< the file is still wanted elsewhere: stores keep what they have
    bool isRemoval = false;    ///< the targets are gone from the tree: they are not called
};

bool AddWithdrawal(const FileWithdrawal& withdrawal);

/// Rows that were tried last before `due`, or never; none of devices in `except` (path names).
KelVector<FileWithdrawal> SelectDueWithdrawals(std::int64_t due, const KelVector<KelString>& except,
                                               unsigned int limit);

/// True when a device, named by its device URL, has yet to learn that this file is withdrawn.
bool IsBeingWithdrawn(const FileKey& key, const KelString& deviceUrl);

bool DeleteWithdrawals(const IdList& withdrawalIds);
/// What waits for a device with this GUID, which holds letters, digits and hyphens only.
bool DeleteWithdrawalsOf(const KelString& guid);
/// The devices could not be called at `now`.
bool PostponeWithdrawals(const KelVector<KelString>& devices, std::int64_t now);

/// What waits for a device, named by its device URL, is due. False when nothing waited.
bool MakeWithdrawalsDue(const KelString& deviceUrl);

}  // namespace filestore
