#pragma once

#include <cstdint>

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/file_key.h"

/// A file that arrived for this device.
struct ReceivedFile {
    FileKey key;
    KelString sourcePath;                    ///< where the file store keeps it
    KelVector<KelString> publications = {};  ///< identifiers of those that it is delivered for
    std::int64_t publicationTime = 0;        ///< of the latest, seconds since the epoch; 0: unknown
    std::int64_t size = -1;                  ///< bytes, by the master's signature; -1: in a plain tree
    KelString sha256 = {};                   ///< likewise; empty: in a plain tree

    /// FileType, FileLabel, FileName, FileChecksum, FilePath, FileInfo{PublicationId (several),
    /// PublicationTime}.
    KelContainer ToContainer() const;
};

/// Reads the same values. Type, label and name become path elements: an unusable one is an error that names
/// it.
KelResult<ReceivedFile> ReadReceivedFile(const KelContainer& arguments);

/// Checks the parts of a key in the same way.
KelStatus CheckFileKey(const FileKey& key);
