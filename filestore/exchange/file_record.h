#pragma once

#include "filestore/db/file_store_entry.h"
#include "kelcore/file_offer.h"

/// Describes stored files to other devices and to the modules of this device.
namespace filestore {

/// The values that a consumer gets: which file it is and where it comes from.
FileOffer FileDescriptionOf(const FileStoreEntry& entry);

/// The values by which a file is offered to the parent and listed in an archive's index.
FileOffer FileRecordOf(const FileStoreEntry& entry);

/// The container that a row's FileInfo holds as XML; empty, with a warning that names the file, when it is
/// damaged.
KelContainer FileInfoOf(const FileStoreEntry& entry);

/// True when a row's FileInfo, as XML, has what the master has signed of the file.
bool IsSigned(const KelString& info);

/// In the FileInfo of a file that a client has requested without its checksum: the GUID of the client. Relays
/// pass it up.
inline constexpr const char* kRequestedFor = "RequestedFor";

/// False when the master has signed a file with this FileInfo for other devices than this one.
bool IsPublishedFor(const KelContainer& info, const KelString& guid);

/// The FileInfo, as XML, of a file that is fetched from the parent: its own, unless only the parent's is
/// signed, as for a file that was requested here.
const KelString& SignedOne(const KelString& own, const KelString& ofParent);

}  // namespace filestore
