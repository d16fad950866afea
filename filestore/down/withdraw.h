#pragma once

#include "filestore/db/withdrawals_table.h"
#include "kel/container.h"

namespace filestore {

/// The type of an order to delete the package that its `FileInfo` names (PackageName, PackageChecksum), whose
/// file has the name of the order; FileStoreDeletePackage carries it out.
inline constexpr const char* kPackageDeletionType = "PackageDelete";

// Files that were published and are withdrawn. Each store forgets the targets, and the file itself where
// nothing else wants it, and passes the withdrawal on to the devices below it: the notify thread calls them
// until they have taken it (announcement_calls.h). What was handed to the modules of a device stays there.

/// Passes a withdrawal on to the device of its row. 0 or the error of the call. Any thread; network.
unsigned int WithdrawFrom(const FileWithdrawal& withdrawal);

/// True for an error with which a device will always answer: it is not called again.
bool IsFinalRefusal(unsigned int error);

}  // namespace filestore
