#pragma once

#include "filestore/db/file_store_entry.h"

namespace filestore {

/// True when `entry` is a package that a relay administrated by this device has sent and that is to be
/// published here.
bool IsManagedRelayPackage(const FileStoreEntry& entry);

/// Publishes such a package on this device: moves it into the package folder of the downstream store, records
/// it there, offers it further up, tells the relay module and removes its row. False when the row is still
/// there because a step failed: it is taken up again later. On the handler thread; takes the database mutexes
/// itself.
bool RepublishManagedRelayPackage(const FileStoreEntry& entry, bool upstream);

}  // namespace filestore
