#pragma once

#include <cstdint>

#include "filestore/db/file_store_entry.h"

namespace filestore {

enum class Space : unsigned char { Enough, TooLittle, Unknown };

/// Decides before a transfer whether the disk has room for a download. `largest` receives the size in bytes
/// at which the transfer is to be stopped.
///
/// A size that was announced, less what an earlier attempt has left, is compared with what the store may take
/// (state/store_space.h), unless no setting limits that. One that was not announced is asked for, and
/// `file.FileSize` set to it; when it cannot be learnt, the free space and a fixed limit bound the transfer.
/// Network for such files; hold no lock.
Space ExamineSpace(FileStoreEntry& file, std::uint64_t& largest);

/// What a transfer writes at most of a file whose size is known; 0 of others.
std::uint64_t BytesToFetch(const FileStoreEntry& file);

}  // namespace filestore
