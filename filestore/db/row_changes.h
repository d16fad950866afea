#pragma once

#include <cstdint>

#include "filestore/db/id_list.h"

namespace filestore {

// Changes of rows of Files that many steps make, in the upstream (true) or the downstream database. Each
// takes the mutex of its database. Failures are in the log.

/// When a step takes a row up that has got a new status.
enum class TakenUp : unsigned char {
    AtOnce,
    AfterTimeout,  ///< of the thread that works on the status, counted from now
};

void SetFileStatus(bool upstream, std::uint64_t fileId, const KelString& status, TakenUp when);
/// The same for a step that took long: a row whose status is not `expected` any more stays what another made
/// of it meanwhile. False when the database failed.
bool SetFileStatus(bool upstream, std::uint64_t fileId, const KelString& expected, const KelString& status,
                   TakenUp when);
/// Many rows at once; false when the database failed and none was changed.
bool SetFileStatus(bool upstream, const IdList& fileIds, const KelString& status, TakenUp when);

/// Removes the row and its targets: a later file may get its number. False when the row may still be there.
bool DeleteFileRow(bool upstream, std::uint64_t fileId);

}  // namespace filestore
