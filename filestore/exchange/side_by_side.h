#pragma once

#include <cstddef>
#include <functional>

namespace filestore {

/// Calls `work` once for each index below `count`, on up to `mostAtOnce` threads, of which the caller's is
/// one, and returns when all have ended: a device that answers slowly holds up only what its own thread does
/// next. On fewer threads when the system gives no more. An exception from `work` is logged and ends that one
/// call.
void RunSideBySide(std::size_t count, std::size_t mostAtOnce, const std::function<void(std::size_t)>& work);

}  // namespace filestore
