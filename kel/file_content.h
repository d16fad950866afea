#pragma once

#include <cstdint>
#include <string_view>

#include "kel/types.h"

// Content of open files. All return false with errno set on failure, and continue after interruptions.

/// Writes all of `content` at the file position.
bool FileWriteAll(int fd, std::string_view content);

/// Reads from the file position to the end; EFBIG when there are more than `maxBytes`.
bool FileReadAll(int fd, std::uint64_t maxBytes, KelString& content);

/// Copies from the one file position to the other up to the source's end, inside the kernel where the file
/// systems can.
bool FileCopyContent(int source, int destination);

/// The same, through this process, which computes the SHA-256 digest of what it writes, as 64 lower-case
/// hexadecimal digits.
bool FileCopyContent(int source, int destination, KelString& sha256);
