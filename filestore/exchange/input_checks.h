#pragma once

#include "kel/container.h"
#include "kelcore/file_key.h"

/// Checks of values that other modules and devices supply and that become parts of paths, patterns or
/// statements. Each returns false with a warning that names the value; the caller then refuses the call with
/// kKelErrorBadInput and has changed nothing.
namespace filestore {

/// `part` can be one part of the file key. `name` is the value's name for the log. With `inSql`, apostrophes
/// are refused as well.
bool CheckKeyPart(const char* name, const KelString& part, bool inSql);

/// All four parts. With `mayLackChecksum` the checksum may be empty.
bool CheckFileKey(const FileKey& key, bool mayLackChecksum);

/// `text` holds neither an apostrophe nor a control character: a device URL, a transport mode.
bool CheckDeviceText(const char* name, const KelString& text);

/// A value that another agent gave as a URL path: begins with "/" and holds no control character. Does not
/// log.
bool IsUrlPath(const KelString& text);

/// A device other than this one names no local path (FilePath, CopyPath, MovePath).
bool CheckLocalPaths(const KelContainer& arguments);

}  // namespace filestore
