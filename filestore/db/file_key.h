#pragma once

#include "kelcore/file_key.h"

/// The two halves of the store, each with a database and a folder of its own: files that travel from parent
/// to child, and files that travel from child to parent.
enum class Side : unsigned char { Downstream, Upstream };

namespace filestore {

/// "downstream" or "upstream": the name of a side in folders and URLs.
const char* SideName(Side side);

/// Where a file lies below the storage folder: "side/type/label/checksum", and the same with "/name".
KelString StoredFolder(Side side, const FileKey& key);
KelString StoredPath(Side side, const FileKey& key);

/// Reads such a path back; false for any other path.
bool ParseStoredPath(const KelString& path, Side& side, FileKey& key);

/// The URL path under which a stored file is served: "/FileStore/side/type/label/checksum/name". Kept raw; it
/// is percent-encoded on the wire only.
KelString StoredUrl(Side side, const FileKey& key);

/// Reads such a URL path back; false for any other.
bool ParseStoredUrl(const KelString& url, Side& side, FileKey& key);

}  // namespace filestore
