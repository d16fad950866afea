#pragma once

#include "kel/container.h"

namespace filestore {

/// The most files that one call may bring, and bytes of one file and of all: larger ones are put.
inline constexpr std::uint32_t kMostContents = 100;
inline constexpr std::int64_t kMostContentBytes = std::int64_t{64} << 10;
inline constexpr std::int64_t kMostContentsBytes = std::int64_t{1} << 20;

/// Receives small files of a child together with their contents: `Files` holds an offer each, with the value
/// Content. Answers the same number of `Files`, in the same order, each with its Result and the values that
/// FileStoreReceiveFile would have answered. ContentHeld says that the file is taken, in its place and on the
/// disk; any other file has merely been offered, and its content is put as usual. kKelErrorBadInput, with
/// nothing taken, when there are too many. On the caller's thread, without locks.
unsigned int ReceiveContents(KelContainer& arguments);

}  // namespace filestore
