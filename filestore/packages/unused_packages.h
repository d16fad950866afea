#pragma once

#include "filestore/state/removal_pass.h"

namespace filestore {

/// Removes the packages that were not requested for PackageTTL days, with their targets; none when that is 0.
/// The relay module removes its copies of those that network installations used. On the cleanup thread,
/// without locks.
void KillPackages(std::int64_t now, bool waitsForConsumers, const PassHost& host);

}  // namespace filestore
