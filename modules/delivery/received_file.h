#pragma once

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"

/// A file that arrived for this device.
struct ReceivedFile {
    KelString type;
    KelString label;
    KelString name;
    KelString checksum;    ///< MD5, lower-case hexadecimal
    KelString sourcePath;  ///< where the file store keeps it

    /// FileType, FileLabel, FileName, FileChecksum, FilePath.
    KelContainer ToContainer() const;
};

/// Reads and checks the same values; type, label and name become path elements. An unusable one is an error
/// that names it.
KelResult<ReceivedFile> ReadReceivedFile(const KelContainer& arguments);
