#pragma once

#include "kel/container.h"
#include "kel/types.h"

// The names of the command line's JSON. They are its own and stay the same when actions change theirs; the
// guide for operators lists them.

/// `item`, an entry of a list, with the names of the JSON output instead of those of the actions. Containers
/// in it are translated as well; values that the table does not know are left out.
KelContainer ForJson(const KelContainer& item);
