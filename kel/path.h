#pragma once

#include <string_view>

#include "kel/types.h"

/// Splits `path` at its last "/" (or "\") into the folder, with that separator, and the name behind it.
void SplitPath(const KelString& path, KelString& folder, KelString& name);

/// `path` as an absolute path without "." and ".." elements; a relative one counts from the current folder.
/// Links are not resolved and nothing needs to exist.
KelString CompletePath(const KelString& path);

/// Creates the folder `path` with all missing parents; true when it is there afterwards.
bool PathCreate(const KelString& path);

/// True when `element` can be one element of a path and of a file key: not empty, at most 255 bytes, not "."
/// or "..", without "/", "\", control characters.
bool IsSafePathElement(std::string_view element);
