#include "kelcore/file_key.h"

#include "kelcore/file_values.h"

FileKey FileKey::Read(const KelContainer& values) {
    return {values.GetString(kValueFileType), values.GetString(kValueFileLabel),
            values.GetString(kValueFileName), values.GetString(kValueFileChecksum)};
}

void FileKey::Write(KelContainer& values) const {
    values.SetString(kValueFileType, type);
    values.SetString(kValueFileLabel, label);
    values.SetString(kValueFileName, name);
    values.SetString(kValueFileChecksum, checksum);
}

KelString FileKey::Text() const {
    return type + "/" + label + "/" + name;
}
