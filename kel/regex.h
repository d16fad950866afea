#pragma once

#include "kel/types.h"

/// Searches `text` for the PCRE2 pattern `pattern` (compiled once per pattern and kept). On a match
/// `captures` holds the whole match at index 0 and the groups from 1 on, a group that took no part as an
/// empty text. Text and pattern are UTF-8; ill-formed bytes of the text match nothing. False, with `captures`
/// unchanged, when there is no match, the pattern is malformed (said once on stderr) or the search exceeds a
/// million steps. May be called from any thread.
bool FindPcre(const KelString& pattern, const KelString& text, KelVector<KelString>& captures);
