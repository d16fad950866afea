#pragma once

#include "kel/result.h"
#include "kel/types.h"

/// The failure that errno tells of, as "WHAT PATH: reason, and what to do". The code is 3 when `path` does
/// not exist, 1 otherwise. `what` is the beginning of a sentence, such as "A file cannot be read:".
KelError SystemError(const char* what, const KelString& path);
