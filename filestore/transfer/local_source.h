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
};

/// The source that an offer names: MovePath, else CopyPath, else FilePath (the file stays where it is).
LocalSource ReadLocalSource(const KelContainer& arguments);

/// Sets an empty checksum to the MD5 of the file at `path`; false, with a warning, when that cannot be read.
bool FillChecksum(const KelString& path, KelString& checksum);

/// Brings the content of a moved or copied source to `destination` (its folder is made), on the disk when
/// the call returns. Nothing to do for an external file, when the source is gone but the destination is there
/// (an earlier attempt got that far) and, with `keepExisting`, when the destination has the source's size.
/// False, logged, when the content is not there afterwards.
bool PlaceContent(const LocalSource& source, const KelString& folder, const KelString& destination,
                  bool keepExisting);

/// The size in bytes of what the offer brings: of the source, or of `destination` when the source is gone;
/// -1 when neither is there.
std::int64_t ContentSize(const LocalSource& source, const KelString& destination);

}  // namespace filestore
