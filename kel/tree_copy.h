#pragma once

#include <cstdint>
#include <functional>

#include "kel/result.h"
#include "kel/types.h"

/// Files and bytes in a folder, at all depths. Links count as files without bytes.
struct TreeSize {
    std::uint64_t files = 0;
    std::uint64_t bytes = 0;
};

/// The size of what a folder holds; a missing folder is empty.
KelResult<TreeSize> TreeMeasure(const KelString& folder);

/// True when both exist on the same file system.
bool TreesShareFileSystem(const KelString& left, const KelString& right);

/// Called after every file and after every MiB of a large one, with what has been copied so far; false ends
/// the copy.
using TreeCopyStep = std::function<bool(const TreeSize& copied)>;

/// The error code of a copy that its step has ended.
inline constexpr unsigned int kTreeCopyEnded = 2;

/// Copies the folder `source` with all it holds to `destination`, which is created; a missing source is
/// empty. Modes and times are kept, links are copied as links, and files of the same name are replaced. On
/// the same file system files become hard links, which takes neither time nor space: the source is to be
/// deleted afterwards, not written to. Nothing is synced, see DirSyncFileSystem. After a failure the
/// destination holds a part.
KelStatus TreeCopy(const KelString& source, const KelString& destination, const TreeCopyStep& step);
