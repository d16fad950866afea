#pragma once

#include <cstdint>

#include "filestore/db/file_store_entry.h"

namespace filestore {

/// Where a download begins.
struct DownloadStart {
    bool isComplete = false;   ///< as many bytes as announced are here, not yet verified: nothing to fetch
    std::uint64_t offset = 0;  ///< bytes that an earlier attempt has left: the transfer starts behind them
};

/// Decides how a download goes on from what earlier attempts have left at `file.FilePath`, and removes that
/// where it is of no use: when the file comes by unicast after a failed multicast reception, whose gaps are
/// unknown, when the file may have other content by now, and when it is longer than `largest` bytes. Takes
/// mutexDownstream for the removal.
DownloadStart PrepareResume(const FileStoreEntry& file, std::uint64_t largest);

/// Ends a download that PrepareResume found complete: verifies the content and makes the file available, or
/// has it fetched from the beginning. False when the database did not take the outcome. Hashes the file: hold
/// no lock.
bool FinishCompleteDownload(const FileStoreEntry& file);

}  // namespace filestore
