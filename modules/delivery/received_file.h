#pragma once

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/file_key.h"

/// A file that arrived for this device.
struct ReceivedFile {
    FileKey key;
    KelString sourcePath;  ///< where the file store keeps it

    /// FileType, FileLabel, FileName, FileChecksum, FilePath.
    KelContainer ToContainer() const;
};

/// Reads and checks the same values; type, label and name become path elements. An unusable one is an error
/// that names it.
KelResult<ReceivedFile> ReadReceivedFile(const KelContainer& arguments);

/// True when `path` is a file whose content has this MD5 (in any case). Any thread, concurrently, like the
/// next.
bool HoldsContent(const KelString& path, const KelString& checksum);

/// Copies `source` to `path`, making its folders and replacing another content atomically; on the disk when
/// the call succeeds. The copy is made in `workFolder`, or next to `path` when that is empty.
KelStatus PlaceCopy(const KelString& source, const KelString& path, const KelString& workFolder = {});
