#pragma once

#include <cstdint>

#include "filestore/db/id_list.h"
#include "kel/types.h"

namespace filestore {

/// Gives an upstream row a new status that is taken up at once. Takes mutexUpstream.
void SetUpstreamStatus(std::uint64_t fileId, const KelString& status);
/// The same for many rows at once; false when the database failed and none was changed.
bool SetUpstreamStatus(const IdList& ids, const KelString& status);

/// Removes an upstream row. Takes mutexUpstream.
void DeleteUpstreamRow(std::uint64_t fileId);

/// Removes a file and the folder that held it, when that is empty then.
void DeleteFileAndFolder(const KelString& path);

/// Removes the file that came in under `url` without anybody having announced it. Only files of the upstream
/// store are removed; anything else stays, with a warning.
void DeleteUnregisteredFile(const KelString& url);

}  // namespace filestore
