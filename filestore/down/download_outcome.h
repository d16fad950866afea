#pragma once

#include <cstdint>

#include "filestore/db/file_store_entry.h"
#include "kel/debug.h"

/// Recording what came of a download. `file` is the row as the pull thread selected it, with FilePath set to
/// where the content goes.
///
/// A download takes long. Meanwhile a module of this device may have offered the same file, or an order of
/// the parent may have changed the row: a row that is no longer in the status "downloading", and its content,
/// are left alone. All functions take mutexDownstream as needed and run on any thread; those that return bool
/// and change something give false when the database did not take the change.
namespace filestore {

/// The row is still in the status "downloading". The caller holds mutexDownstream when a change follows from
/// the answer.
bool IsStillWanted(std::uint64_t fileId);

/// The content at FilePath has the announced checksum. Logs it when not. Hashes the file: hold no lock.
bool HasAnnouncedContent(const FileStoreEntry& file);

/// Files of some type keep their key when their content changes: neither their checksum nor their size is
/// compared, and no transfer goes on from what an earlier one has left.
bool MayHaveAnyContent(const FileStoreEntry& file);

/// The next try follows after PullTimeout, from where this one ended.
bool PostponeDownload(std::uint64_t fileId);

/// The last try of the file failed, which has been logged.
bool IsFailing(const FileStoreEntry& file);

/// Logs that a download failed, when it begins to: `line`, and the file with `reason`. FinishDownload logs
/// the end.
void LogDownloadFailure(const FileStoreEntry& file, KelDebugLevel level, const KelString& line,
                        const KelString& reason);

/// The transfer ended with `result`, an error of HttpClient, which `reason` explains. What has arrived stays
/// for the next try.
bool KeepForRetry(const FileStoreEntry& file, unsigned int result, const KelString& reason);

/// The transfer has made way for a more urgent file and goes on behind it.
bool InterruptDownload(const FileStoreEntry& file);

/// Removes the content at FilePath.
void DeleteDownload(const FileStoreEntry& file);

/// Removes useless content; the next try follows after PullTimeout, from the beginning.
bool RestartDownloadLater(const FileStoreEntry& file);

/// Makes the file available: its content is complete, verified and on the disk.
bool FinishDownload(const FileStoreEntry& file);

/// For a row that is no longer wanted: a body that began to arrive after a module of this device had offered
/// the file was written over the content of that offer. If that is spoilt now, the file is requested again.
bool RequestSpoiltContent(const FileStoreEntry& file);

}  // namespace filestore
