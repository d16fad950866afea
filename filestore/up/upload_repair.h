#pragma once

/// Removes what a stop or crash has left unfinished: temporary files, archives, their indexes and unpacked
/// folders. Before the action gate opens: running calls make such files.
void FileStoreRemoveLeftOvers();

/// Queues again the files that had arrived completely but were not yet processed when the module stopped or
/// crashed. Before the threads start.
void FileStoreRepairUploads();
