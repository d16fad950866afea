#pragma once

#include "filestore/db/file_store_entry.h"

namespace filestore {

/// True when the package of an administrated relay names this device as the one that administrates it.
bool IsPackageForUs(const FileStoreEntry& entry);

/// Tells the relay that sent the package that it came to the wrong device, then removes it. When the relay
/// cannot be told, the row stays as it is. On the callback thread; calls another device.
void RejectPackage(const FileStoreEntry& entry);

}  // namespace filestore
