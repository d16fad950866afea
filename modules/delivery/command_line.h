#pragma once

#include "kel/result.h"
#include "kel/types.h"

/// Splits a configured command into the program's absolute path and its arguments: at blanks and tabs, but
/// not inside double quotes. There is no shell: no other character has a meaning.
KelResult<KelVector<KelString>> SplitCommandLine(const KelString& text);
