#pragma once

#include "kel/types.h"

namespace filestore {

/// Removes a file and the folder that held it, when that is empty then.
void DeleteFileAndFolder(const KelString& path);

/// Removes the file that came in under `url` without anybody having announced it. Only files of the upstream
/// store are removed; anything else stays, with a warning.
void DeleteUnregisteredFile(const KelString& url);

}  // namespace filestore
