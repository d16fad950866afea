#pragma once

#include <cstdint>

#include "kel/types.h"

/// True when `path` exists and is a folder.
bool DirExists(const KelString& path);

/// Creates one folder whose parent exists; true when it is there afterwards.
bool DirCreate(const KelString& path);

/// Copies the folder `source` and all it holds into `destination` (created; files of the same name are
/// replaced). A missing source counts as empty. False at the first failure.
bool DirCopy(const KelString& source, const KelString& destination);

/// Removes a folder and, with `recursive`, all it holds; true when it is gone afterwards. Links are removed,
/// not followed.
bool DirDelete(const KelString& path, bool recursive);

/// Flushes the whole file system of a folder: after changes to many files and folders, instead of one flush
/// for each. False when that failed.
bool DirSyncFileSystem(const KelString& path);

/// Removes the temporary files of kel/file.h that a killed process left in `folder`, not below it; a missing
/// folder counts as empty. True when none is left. Call it only while no other thread makes files there.
bool DirDeleteTempFiles(const KelString& folder);

/// The names of the entries of a folder without "." and "..", sorted; empty when it cannot be read.
KelVector<KelString> DirList(const KelString& path);

/// Bytes free for this process on the file system that holds `path`. 0 on success, kKelPathNotFound when
/// `path` does not exist, kKelFailure on any other failure.
unsigned int DiskFree(const KelString& path, std::uint64_t& bytes);
