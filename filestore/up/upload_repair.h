#pragma once

/// Begins the names of the folders in the storage folder into which archives are unpacked.
inline constexpr const char* kUnpackFolderPrefix = ".extract-";

/// Removes what a stop or crash has left unfinished: temporary files, archives, their indexes and unpacked
/// folders. Before the action gate opens: running calls make such files.
void FileStoreRemoveLeftOvers();

/// Queues again the files that had arrived completely but were not yet processed when the module stopped or
/// crashed, or whose place in the queue was lost. From any thread.
void FileStoreRepairUploads();
