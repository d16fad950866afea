#pragma once

#include "kel/types.h"

// File names that hold a path. The name of a file is one element of a path on every device, so a file that
// was published with its folder carries its relative path in the name, with "%2F" in place of each "/".

/// The name for a relative path; a path without "/" is its own name.
KelString NameForPath(const KelString& path);

/// The relative path that a name stands for. A name that stands for no usable path is returned as it is: one
/// with an element that is empty, "." or "..", or that begins like a temporary file. So a safe name
/// (IsSafePathElement) always gives a path that stays beneath any folder, and different names give different
/// paths.
KelString PathInName(const KelString& name);
