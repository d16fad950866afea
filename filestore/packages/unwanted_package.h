#pragma once

#include "filestore/db/file_store_entry.h"

namespace filestore {

/// The device that administrates the relay from which a package comes, as the package names it.
enum class PackageOwner : unsigned char { None, ThisDevice, Other };
PackageOwner OwnerOfPackage(const FileStoreEntry& entry);

/// Informs the relay that sent the package that it went to the wrong device, then removes the package. On the
/// callback thread, without locks; calls another device. False while the relay cannot be informed or the
/// database refuses: the row stays as it is and the next try may succeed. A package of unknown type stays for
/// good.
bool RejectPackage(const FileStoreEntry& entry);

}  // namespace filestore
