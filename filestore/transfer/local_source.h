#pragma once

#include <cstdint>

#include "kel/container.h"
#include "kel/types.h"

namespace filestore {

/// Where the content of a local offer comes from.
struct LocalSource {
    enum class Kind { None, Move, Copy, External };
    Kind kind = Kind::None;
    KelString path;
    KelString computedChecksum = {};  ///< set by FillChecksum: what a copy of the content must have
};

/// Where content is made before it gets its place in the store, on the same file system. What a kill leaves
/// there is removed at the next start.
KelString StoreWorkFolder();

/// The source that an offer names: MovePath, else CopyPath, else FilePath (the file stays where it is).
LocalSource ReadLocalSource(const KelContainer& arguments);

/// Sets an empty checksum to the MD5 of the file at `path`; false, with a warning, when that cannot be read.
bool FillChecksum(const KelString& path, KelString& checksum);

/// The same of a source, which then remembers what was computed.
bool FillChecksum(LocalSource& source, KelString& checksum);

/// False, with a warning, when an upstream file of this size in bytes (-1: it cannot be read) could never be
/// delivered: no device above takes an empty one.
bool CheckUpstreamSize(const KelString& path, std::int64_t size);

/// Brings the content of a moved or copied source to `destination` (its folder is made), on the disk when
/// the call returns. A moved source stays under its own name, too, until RemoveMovedSource: a crash before
/// the row is committed loses nothing, but until then nobody may write to it, for both may name one file.
/// Nothing to do for an external file, when the source is gone but the destination is there (an earlier
/// attempt got that far) and, with `keepExisting`, when the destination has the source's size. False, logged,
/// when the content is not there afterwards or changed since its checksum was computed.
bool PlaceContent(const LocalSource& source, const KelString& folder, const KelString& destination,
                  bool keepExisting);

/// Ends a move: removes the source once the row of its content is committed. Other sources stay.
void RemoveMovedSource(const LocalSource& source, const KelString& destination);

/// The size in bytes of what the offer brings: of the source, or of `destination` when the source is gone;
/// -1 when neither is there.
std::int64_t ContentSize(const LocalSource& source, const KelString& destination);

}  // namespace filestore
