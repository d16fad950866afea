#pragma once

#include <cstdint>

#include "filestore/db/file_store_entry.h"

namespace filestore {

enum class Space : unsigned char { Enough, TooLittle, Unknown };

/// Decides before a transfer whether the disk has room for a download. `largest` receives the size in bytes
/// at which the transfer is to be stopped.
///
/// A size that was announced is compared with the free space only when the settings say so, and less what an
/// earlier attempt has left. One that was not announced is asked for, and `file.FileSize` set to it; when it
/// cannot be learnt, the free space and a fixed limit bound the transfer. Network for such files; hold no
/// lock.
Space ExamineSpace(FileStoreEntry& file, std::uint64_t& largest);

}  // namespace filestore
