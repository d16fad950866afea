#pragma once

#include "filestore/db/file_store_entry.h"

namespace filestore {

/// True when `entry` is a package that a relay administrated by this device has sent and that is to be
/// published here.
bool IsManagedRelayPackage(const FileStoreEntry& entry);

/// Publishes such a package on this device: moves it from the upstream store into the package folder of the
/// downstream store, records it there, offers a copy to the parent, hands it to the relay module and removes
/// its row, which is one of `side`. False when a step failed: the row is still there, and the next pass
/// starts over; steps that were done before do no harm when they are repeated. On the handler thread, without
/// locks; takes the database mutexes itself.
bool RepublishManagedRelayPackage(const FileStoreEntry& entry, Side side);

}  // namespace filestore
