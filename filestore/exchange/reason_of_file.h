#pragma once

#include <cstdint>
#include <optional>

#include "filestore/db/file_store_entry.h"
#include "filestore/db/files_selection.h"
#include "filestore/db/targets_table.h"
#include "filestore/state/bandwidth_manager.h"
#include "filestore/state/parent.h"
#include "filestore/state/waiting_reasons.h"

/// Why a row waits: from what the steps have noted, the row itself, and the state of parent and windows.
namespace filestore {

/// What holds for all rows at one moment. Read it once for many rows; asks local modules.
struct Circumstances {
    static Circumstances Now();

    std::int64_t now = 0;  ///< seconds since the epoch
    Parent parent;
    std::optional<FileStoreBandwidthManager::ClosedSpan> toParent;    ///< the window, while it is closed
    std::optional<FileStoreBandwidthManager::ClosedSpan> toChildren;  ///< the same
    bool isMulticastOpen = false;                                     ///< its window
};

/// Why the file is not here yet or does not move on; nothing when this device has done with it, but for
/// targets. Reads the size of a file that is being downloaded.
std::optional<WaitingReason> ReasonOfFile(const FileStoreEntry& file, Side side, const Circumstances& at);

/// Files of a status that wait for the same reason.
struct WaitingCount {
    KelString status;
    Waiting code = Waiting::NotTried;
    std::int64_t files = 0;
    std::int64_t since = 0;  ///< when the first file of the status was recorded
};
/// How many files wait, by status and reason; `counts` are those of the side. Follows the rules of
/// ReasonOfFile for each status as a whole and reads one row of each: files that pass a closed window, and
/// whose last try is not known since a restart, are counted with the others of their status.
KelVector<WaitingCount> CountWaiting(Side side, const KelVector<StatusCount>& counts,
                                     const Circumstances& at);

/// Why the target of an available file waits.
WaitingReason ReasonOfTarget(const FileStoreEntry& file, const FileStoreTarget& target,
                             const Circumstances& at);

}  // namespace filestore
