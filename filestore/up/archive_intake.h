#pragma once

#include "filestore/db/file_store_entry.h"
#include "kel/thread.h"

namespace filestore {

/// Unpacks an archive that a child has put: its files become rows of their own with `targetStatus`, then the
/// archive and its row are removed. A file that the store refuses is left out. False when disk or database
/// failed: archive and row stay, and the next try goes on where this one stopped. An archive that cannot be
/// unpacked as it is stays as well, but needs no other try soon. On the callback thread `thread`, whose
/// cancellation ends the waits between tries; takes mutexUpstream for its changes.
bool UnpackArchive(KelThread& thread, const FileStoreEntry& archive, const KelString& targetStatus);

/// The file information of an archive whose sender is a client of a tree with keys: its files are the
/// sender's own, and others are left out.
KelString InfoOfOwnFiles();

}  // namespace filestore
