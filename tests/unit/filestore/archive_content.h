#pragma once

#include <utility>

#include "kel/types.h"

/// Names and contents of the entries of the zip archive at `path`, in their order; throws when it is damaged.
KelVector<std::pair<KelString, KelString>> ArchiveContent(const KelString& path);
