#pragma once

#include <span>

#include "filestore/state/worker_loop.h"

namespace filestore {

/// The module's threads in the order of the enumeration Worker, in which they are started and stopped.
std::span<FileThreadBase* const> Workers();

}  // namespace filestore
