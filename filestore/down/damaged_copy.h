#pragma once

#include <functional>

#include "filestore/db/file_store_entry.h"
#include "kel/types.h"
#include "kelcore/file_key.h"

/// Copies that went bad in a store, from both ends: the device that got unusable content says so, and the
/// device that holds the copy verifies it and fetches it anew when it is damaged.
namespace filestore {

/// Tells the device at `sender` (a call URL) that its copy of `file` is of no use, so that it looks at it.
/// Failures are logged only: the next failed download reports it again. Network; hold no lock.
void ReportDamage(const FileStoreEntry& file, const KelString& sender);

/// Has the copy of this key verified by the pull thread. A copy that was verified within PullTimeout is not
/// read again. From any thread.
void RememberReportedDamage(const FileKey& key);

/// Verifies the copies that were reported since the last call. One that is damaged is removed and requested
/// from the parent; content outside the store stays, with an error in the log. On the pull thread, without
/// locks: reads whole files. `cancelled` ends it between two files.
void VerifyReportedCopies(const std::function<bool()>& cancelled);

}  // namespace filestore
