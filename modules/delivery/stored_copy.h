#pragma once

#include "kel/result.h"
#include "kel/types.h"

// Copies of files that the file store handed over. Any thread, concurrently.

/// True when `path` is a file whose content has this MD5 (any case).
bool HoldsContent(const KelString& path, const KelString& checksum);

/// Copies `source` to `path`, making its folders and replacing another content atomically; on the disk when
/// the call succeeds. The copy is made in `workFolder`, or beside `path` when that is empty.
KelStatus PlaceCopy(const KelString& source, const KelString& path, const KelString& workFolder = {});
