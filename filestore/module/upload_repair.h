#pragma once

/// Removes what a stop or crash has left half-made: temporary files, archives, their indexes and unpacked
/// folders. Before the action gate opens: running calls make such files.
void FileStoreRemoveLeftOvers();

/// Queues again the files that have arrived whole but were not yet handed over when the module stopped or
/// crashed. Before the threads start.
void FileStoreRepairUploads();
