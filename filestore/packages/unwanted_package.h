#pragma once

#include "filestore/db/file_store_entry.h"

namespace filestore {

/// True when the package of an administrated relay names this device as the one that administrates it.
bool IsPackageForUs(const FileStoreEntry& entry);

/// Informs the relay that sent the package that it went to the wrong device, then removes the package. While
/// the relay cannot be informed, the row stays as it is. On the callback thread, without locks; calls another
/// device.
void RejectPackage(const FileStoreEntry& entry);

}  // namespace filestore
