#pragma once

#include "kel/types.h"

namespace filestore {

/// Removes a file and the folder that held it, when that is empty then.
void DeleteFileAndFolder(const KelString& path);

/// Removes the file that came in under `url`, which no row names, unless its key is known: a sender repeats a
/// PUT whose answer it did not get. Only files of the upstream store are removed; anything else stays. Each
/// with a warning. Takes mutexUpstream.
void DeleteUnregisteredFile(const KelString& url);

}  // namespace filestore
