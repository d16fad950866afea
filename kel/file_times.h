#pragma once

#include <cstdint>

#include "kel/types.h"

/// When a file was last written, renamed or given other attributes, in seconds since the epoch; -1 when there
/// is none. Of a link, its own. Unlike the time of the last write alone, it cannot be set: a file that was
/// moved here a moment ago is new.
std::int64_t FileLastChange(const KelString& path);
