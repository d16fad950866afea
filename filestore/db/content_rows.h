#pragma once

#include <optional>
#include <set>

#include "filestore/db/files_table.h"

/// Which rows name the content in the store, for the search for what has lost its counterpart.
namespace filestore {

/// True when a row of either side has the key of a file that lies at `place`; in a folder that names its
/// source, when a row lies there. True also when the statement failed.
bool HasRowFor(const StoredPlace& place);

/// The paths of external files that begin with `folder`. Nothing when the statement failed.
std::optional<std::set<KelString>> SelectExternalPaths(Side side, const KelString& folder);

/// The next rows behind `fileId` whose content must be there, in the order of their identifiers.
FileRows SelectRowsWithContent(Side side, std::uint64_t fileId, unsigned int limit);

/// Some upstream files in the store, other than `file`, with its checksum and size.
FileRows SelectFilesLike(const FileStoreEntry& file);

}  // namespace filestore
