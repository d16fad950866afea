#pragma once

#include <cstdint>
#include <string_view>

#include "kel/result.h"
#include "kel/types.h"
#include "kel/unique_fd.h"

// Operations on files. Paths are absolute or relative to the current folder. All may be called from any
// thread. What replaces a file does so atomically and is on the disk (file and folder synced) when the call
// returns true.

/// The prefix of the names of temporary files made here. A file with such a name is unfinished; it stays when
/// the process is killed, see DirDeleteTempFiles.
inline constexpr std::string_view kTempFilePrefix = ".kel-";

/// True when `path` exists and is no folder.
bool FileExists(const KelString& path);

/// Permissions that a file with a secret must not give: to read or write it, to any but its owner. A private
/// key may be read by its group, as where several services of a system share it.
inline constexpr unsigned int kOpenSecret = 066;
inline constexpr unsigned int kOpenKey = 026;

/// True when `path` has one of these permissions.
bool FileIsOpenToOthers(const KelString& path, unsigned int permissions = kOpenSecret);

/// True when nothing exists under `path`; false also when that cannot be found out now (an I/O error).
bool FileIsMissing(const KelString& path);

/// Size in bytes, -1 when the file does not exist or cannot be examined.
std::int64_t FileGetSize64(const KelString& path);

/// Copies through a temporary file in `workFolder`; beside `destination` when that is empty, or when it lies
/// on another file system. With `failIfExists` an existing destination is left alone and the call fails;
/// otherwise it is replaced.
bool FileCopy(const KelString& source, const KelString& destination, bool failIfExists,
              const KelString& workFolder = {});

/// Renames; across file systems it copies and then removes the source. An existing destination as for
/// FileCopy.
bool FileRename(const KelString& source, const KelString& destination, bool failIfExists = false);

/// Removes a file; true when it is gone afterwards.
bool FileDelete(const KelString& path);

/// Replaces `path` by `content` with permission bits `mode`.
KelStatus FileWriteText(const KelString& path, std::string_view content, unsigned int mode = 0600);

/// The whole content of a file of at most `maxBytes`.
KelResult<KelString> FileReadText(const KelString& path, std::uint64_t maxBytes);

/// Puts a file's content and its folder entry on the disk.
bool FileSync(const KelString& path);

/// A new empty file in `folder` (the system's folder for temporary files when empty), mode 0600; sets `path`.
UniqueFd FileCreateTemp(const KelString& folder, KelString& path);

/// Opens `relativePath` strictly beneath `root`: "..", absolute names, and symbolic links beneath the root
/// are refused by the kernel (openat2, RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS), so no link can lead a checked
/// name elsewhere. A kernel without that call is helped by FileOpenByWalk. `flags` and `mode` as for open(2);
/// O_CLOEXEC is added. An invalid descriptor with errno set on failure.
UniqueFd FileOpenBeneath(const KelString& root, const KelString& relativePath, int flags,
                         unsigned int mode = 0644);

/// The same beneath an open folder (O_PATH suffices).
UniqueFd FileOpenBeneath(const UniqueFd& root, const KelString& relativePath, int flags,
                         unsigned int mode = 0644);

/// The same with one openat(2) for each element, none of which may be a link; ".." is refused altogether.
UniqueFd FileOpenByWalk(const UniqueFd& root, const KelString& relativePath, int flags, unsigned int mode);

/// Opens the folder `relativePath` beneath an open folder for reading and makes what is missing of it, with
/// permission bits `mode`. Links beneath `root` are not followed: the call fails with ELOOP or ENOTDIR.
UniqueFd DirCreateBeneath(const UniqueFd& root, const KelString& relativePath, unsigned int mode);

/// Copies `source` to `name` in an open folder, with permission bits `mode`, replacing what is there, even a
/// link, atomically. The temporary file is made in `workFolder`; in `folder` when that is empty or on another
/// file system. With `sha256` (64 lower-case hexadecimal digits), content that has another digest is not put
/// in place: the call fails with EKEYREJECTED.
bool FileCopyInto(const KelString& source, const UniqueFd& folder, const KelString& name, unsigned int mode,
                  const KelString& workFolder = {}, const KelString& sha256 = {});
