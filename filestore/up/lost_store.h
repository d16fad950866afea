#pragma once

#include "filestore/db/file_store_entry.h"
#include "kel/types.h"

/// What a lost upstream database needs: the parent's, that the files which this device has sent are offered
/// again, and this device's own, that its files are found in the store. Content that is in place is verified,
/// not sent again.
namespace filestore {

/// Asks the parent at `parentUrl` (a call URL), whose GUID is `parentGuid`, for the identifier of its
/// upstream database. Has all sent files offered again when that parent has another one than before. False
/// when the parent or the database failed. On the cleanup thread, without locks.
bool OfferAgainAfterLoss(const KelString& parentUrl, const KelString& parentGuid);

/// Begins to wait for unknown files when the upstream database is a new one. Before any worker runs.
void NoteNewDatabase();

/// Records the files of this device that lie in the upstream store without a row, once after NoteNewDatabase.
/// On a device that has children a day later: until then they offer theirs again, which cannot be told apart.
/// A file whose content is damaged is left alone, with a warning. On the cleanup thread, without locks: reads
/// whole files.
void RecordUnknownFiles();

}  // namespace filestore
