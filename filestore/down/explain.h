#pragma once

#include <chrono>
#include <cstdint>

#include "filestore/db/file_key.h"
#include "kel/container.h"
#include "kel/types.h"

/// Why the targets of a file below this device wait: from the rows of this device, and from the answers of
/// the next devices for those that it has handed the file on to.
namespace filestore {

/// What the answers may cost, so that a question ends in time whatever the tree is like.
struct ExplainLimits {
    static constexpr std::int32_t kMostSeconds = 20;
    static constexpr std::int32_t kMostDevices = 300;

    std::int32_t seconds = kMostSeconds;  ///< until the answer is complete
    std::int32_t devices = kMostDevices;  ///< that may be asked, on all levels together
};

/// A target that waits, or that the file has reached, and where.
using ExplainedTargets = KelVector<KelContainer>;

/// The state of a file on this device and below.
struct Explanation {
    KelContainer own;  ///< Known, FileStatus, FileSize; Reason while it waits here
    ExplainedTargets targets;
};

/// `tree`: the targets that are asked for, as in an announcement, its one name designating this device;
/// empty: those that still wait according to the rows. Network: blocks up to `limits.seconds`; hold no lock.
Explanation ExplainFile(Side side, std::uint64_t fileId, const KelContainer& tree,
                        const ExplainLimits& limits);

/// The part of a tree that leads to the device with this GUID; empty when that is not in it.
KelContainer PartOfTree(const KelContainer& tree, const KelString& guid);

}  // namespace filestore
