#pragma once

#include "kel/container.h"
#include "kel/types.h"

/// The quadruple that identifies a file on every device of the tree.
struct FileKey {
    KelString type;
    KelString label;
    KelString name;
    KelString checksum;  ///< MD5 of the content, lower-case hexadecimal; empty while unknown

    bool operator==(const FileKey&) const = default;

    /// Reads FileType, FileLabel, FileName and FileChecksum; absent ones are empty.
    static FileKey Read(const KelContainer& values);
    /// Writes the same values.
    void Write(KelContainer& values) const;
    /// "type/label/name", for log lines.
    KelString Text() const;
};
