#pragma once

#include <cstdint>

#include "filestore/state/waiting_reasons.h"
#include "kel/container.h"
#include "kel/types.h"

namespace filestore {

/// Where the content of a local offer comes from.
struct LocalSource {
    enum class Kind { None, Move, Copy, External };
    Kind kind = Kind::None;
    KelString path;
    KelString computedChecksum = {};  ///< set by FillChecksum: a copy must have it
};

/// The source that an offer names: MovePath, else CopyPath, else FilePath (the file stays where it is).
LocalSource ReadLocalSource(const KelContainer& arguments);

/// Sets an empty checksum to the MD5 of the file at `path`; false, with a warning, when that cannot be read.
/// Reads the whole file: hold no lock.
bool FillChecksum(const KelString& path, KelString& checksum);

/// The same for a source, which remembers the checksum if it was computed.
bool FillChecksum(LocalSource& source, KelString& checksum);

/// True when an upstream file of this size in bytes (-1: it cannot be read) can be delivered. Otherwise
/// false, with a warning: no device above accepts an empty file.
bool CheckUpstreamSize(const KelString& path, std::int64_t size);

/// Puts the content of a moved or copied source in its place at `destination`, making the folder. It is on
/// the disk when the call returns. Copies or links whole files: hold no lock.
///
/// A moved source keeps its old name as well until RemoveMovedSource, so that a crash before the row is
/// committed loses nothing. Nothing may write to it in between: both names may be links to one file.
///
/// There is nothing to do for an external file, when the source is gone but the destination exists (an
/// earlier attempt got that far) and, with `keepExisting`, when the destination has the source's size. False,
/// logged, when the content is not in place afterwards or has changed since its checksum was computed. A copy
/// that the store has no room for (state/store_space.h) is not begun; `why` is then DiskFull.
bool PlaceContent(const LocalSource& source, const KelString& destination, bool keepExisting,
                  WaitingReason& why);

/// The answer to a local offer that was not taken: when there was no room, it may be made again later.
unsigned int AnswerNotTaken(KelContainer& arguments, const WaitingReason& why);

/// Undoes PlaceContent when the row of the content could not be recorded. Leaves content whose source is
/// gone: it is the only copy. The caller makes sure that no row names `destination`, and holds the mutex of
/// its database meanwhile.
void RemovePlaced(const LocalSource& source, const KelString& destination);

/// Completes a move by removing the source; to be called once the row of its content is committed. Other
/// sources stay.
void RemoveMovedSource(const LocalSource& source, const KelString& destination);

/// The size in bytes of the content: of the source, or of `destination` when the source is gone; -1 when
/// neither exists.
std::int64_t ContentSize(const LocalSource& source, const KelString& destination);

}  // namespace filestore
