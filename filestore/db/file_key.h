#pragma once

#include <optional>

#include "kelcore/file_key.h"

/// The two halves of the store, each with a database and a folder of its own: files that travel from parent
/// to child, and files that travel from child to parent.
enum class Side : unsigned char { Downstream, Upstream };

namespace filestore {

/// "downstream" or "upstream": the name of a side in folders and URLs.
const char* SideName(Side side);

/// Where a file lies below the storage folder: "side/type/label/checksum", and the same with "/name".
///
/// Devices may send identical files up. The first one has that place; for each of the others a folder named
/// by SourceFolder stands between checksum and name: "upstream/type/label/checksum/source/name".
KelString StoredFolder(Side side, const FileKey& key, const KelString& source = {});
KelString StoredPath(Side side, const FileKey& key, const KelString& source = {});

/// The name of a device's folder in such a path, for any text that names a device.
KelString SourceFolder(const KelString& deviceUrl);

/// The parts of such a path.
struct StoredPlace {
    Side side = Side::Downstream;
    FileKey key;
    KelString source;  ///< the device's folder; empty without one
};

/// Reads such a path back; nothing for any other path.
std::optional<StoredPlace> ParseStoredPath(const KelString& path);

/// The URL path under which a stored file is served: "/FileStore/" and its path. Kept raw; it is
/// percent-encoded on the wire only.
KelString StoredUrl(Side side, const FileKey& key, const KelString& source = {});

/// Reads such a URL path back; nothing for any other.
std::optional<StoredPlace> ParseStoredUrl(const KelString& url);

}  // namespace filestore
